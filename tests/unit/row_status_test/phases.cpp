// The later phases of a row status, and whole SETs.
#include "tables.h"

#include <cstring>
#include <string>

namespace {

using namespace row_status;

// RESERVE2, COMMIT, FREE, UNDO

TYPED_TEST(RowStatus, Reserve2MarksTheFirstByteOfTheCurrentValue) {
    this->add(7, flash::rowNotReady);
    const std::string before = this->whole(7);
    u_char given[4] = {9, 9, 9, 9};
    forget();
    EXPECT_EQ(this->call(reserve2, 7, flash::rowActive, given), no_error);
    this->expect_traces(
        {{TypeParam::entering, "DEBUG: " + TypeParam::handler() + " :  Entering RESERVE2\n"}});
    EXPECT_THAT(given, ElementsAre(1, 9, 9, 9));
    EXPECT_THAT(container_calls(), IsEmpty());
    EXPECT_EQ(this->whole(7), before);
}

TYPED_TEST(RowStatus, Reserve2WithoutACurrentValueMarksNothing) {
    EXPECT_EQ(this->call(reserve2, 7, flash::rowCreateAndWait), no_error);
    this->expect_traces(
        {{TypeParam::entering, "DEBUG: " + TypeParam::handler() + " :  Entering RESERVE2\n"}});
    EXPECT_THAT(container_calls(), IsEmpty());
}

TYPED_TEST(RowStatus, CommitFreeAndUndoDoNothing) {
    this->add(7, flash::rowCreateAndWait);
    const std::string before = this->whole(7);
    for (Phase phase : {commit, release, undo})
        for (oid index : {oid{7}, oid{8}}) {
            forget();
            EXPECT_EQ(this->call(phase, index, flash::rowDestroy), no_error);
            this->expect_traces({{TypeParam::entering}});
            EXPECT_THAT(container_calls(), IsEmpty());
        }
    EXPECT_EQ(this->whole(7), before);
}

TYPED_TEST(RowStatus, ARowCreatedInReserve1StaysWithItsStatusAfterFree) {
    for (long value : {flash::rowActive, flash::rowNotInService, flash::rowCreateAndGo,
                       flash::rowCreateAndWait}) {
        fakes::empty_tables();
        EXPECT_EQ(this->call(reserve1, 7, value), no_error);
        EXPECT_EQ(this->call(release, 7, value), no_error);
        EXPECT_EQ(this->state(7), value);
    }
}

// ACTION

TYPED_TEST(RowStatus, ActionOnAnAbsentRowIsAGeneralError) {
    for (long value : {1L, 2L, 4L, 5L, 6L}) {
        forget();
        EXPECT_EQ(this->call(action, 7, value), general_error);
        this->expect_traces(
            {this->action_start(),
             {TypeParam::no_rows},
             TypeParam::absent(),
             {"ERROR  " + TypeParam::handler() + " : Should never come here... \n"}});
        EXPECT_FALSE(this->present(7));
    }
}

TYPED_TEST(RowStatus, ActionOnARowThatCannotBeLookedUpIsAGeneralError) {
    for (int32_t result : {int32_t{flash::failure}, -1, 1})
        for (long value : {1L, 2L, 4L, 5L, 6L}) {
            SCOPED_TRACE(value);
            fakes::empty_tables();
            this->add(7, flash::rowNotReady);
            const std::string before = this->whole(7);
            forget();
            TypeParam::look_up().returns(result);
            EXPECT_EQ(this->call(action, 7, value), general_error);
            this->expect_traces({this->action_start(),
                                 {"ERROR " + TypeParam::handler() +
                                  " :  Some Generic error while getting the informatiom for the "
                                  "entry 7 \n"}});
            EXPECT_THAT(container_calls(), IsEmpty());
            EXPECT_THAT(fakes::calls(), IsEmpty());
            EXPECT_EQ(this->whole(7), before);
        }
}

TYPED_TEST(RowStatus, ActionMakesARowCreatedByCreateAndWaitNotReady) {
    for (long value : {flash::rowCreateAndWait, flash::rowNotInService}) {
        fakes::empty_tables();
        this->add(7, flash::rowCreateAndWait, 1);
        this->add(8, flash::rowCreateAndWait);
        flash_copy_pid = 4242;
        forget();
        EXPECT_EQ(this->call(action, 8, value), no_error);
        this->expect_traces(
            {this->action_start(),
             TypeParam::present(8),
             {"DEBUG : " + TypeParam::handler() + " : Setting the entry to  " +
              std::to_string(value) + " (index = 8" + TypeParam::address() + ")\n"}});
        EXPECT_EQ(this->state(8), flash::rowNotReady);

        EXPECT_EQ(this->call(action, 7, value), no_error);
        EXPECT_EQ(this->state(7), flash::rowNotReady);
        EXPECT_THAT(fakes::calls(), IsEmpty());
    }
}

TYPED_TEST(RowStatus, ActionStoresNotInServiceAndCreateAndWaitOverAnyOtherStatus) {
    for (int32_t value : {flash::rowNotInService, flash::rowCreateAndWait})
        for (int32_t before : {1, 2, 3, 4}) {
            fakes::empty_tables();
            this->add(7, before);
            auto expected = *TypeParam::stored(7);
            expected.entryStatus = value;
            forget();
            EXPECT_EQ(this->call(action, 7, value), no_error);
            this->expect_traces({this->action_start(), TypeParam::present(7)});
            EXPECT_EQ(this->whole(7), bytes(expected));
        }
}

TYPED_TEST(RowStatus, ActionOfDestroyRemovesTheRowAlone) {
    this->add(6, flash::rowNotReady);
    this->add(7, flash::rowDestroy);
    forget();
    EXPECT_EQ(this->call(action, 7, flash::rowDestroy), no_error);
    this->expect_traces({this->action_start(), TypeParam::present(7)});
    EXPECT_FALSE(this->present(7));
    EXPECT_TRUE(this->present(6));
}

TYPED_TEST(RowStatus, ARowThatCannotBeWrittenInActionIsAGeneralError) {
    for (long value : {flash::rowNotInService, flash::rowCreateAndWait}) {
        fakes::empty_tables();
        this->add(7, flash::rowNotReady);
        const std::string before = this->whole(7);
        forget();
        platform().ordset_find.at(2, nullptr);
        EXPECT_EQ(this->call(action, 7, value), general_error);
        this->expect_traces(
            {this->action_start(), TypeParam::present(7), TypeParam::write_failed()});
        EXPECT_EQ(this->whole(7), before);
    }
}

// Whole SETs

TYPED_TEST(RowStatus, CreateAndWaitOfAnAbsentRowLeavesItNotReady) {
    const Outcome outcome = this->set(7, flash::rowCreateAndWait);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(outcome.phases, succeeded);
    EXPECT_EQ(this->state(7), flash::rowNotReady);
}

TYPED_TEST(RowStatus, TheColumnsCanBeSetAfterCreateAndWait) {
    ASSERT_EQ(this->set(7, flash::rowCreateAndWait).status, no_error);
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(fakes::set_integer(TypeParam::set_notify, phase, TypeParam::notify_magic, 7, 1),
                  no_error);
    EXPECT_EQ(TypeParam::stored(7)->notifyOnCompletion, 1);
}

TYPED_TEST(RowStatus, ACreateAndWaitWhoseRequestFailsLeavesARowWhoseColumnsCanBeSet) {
    EXPECT_EQ(this->call(reserve1, 7, flash::rowCreateAndWait), no_error);
    EXPECT_EQ(this->call(release, 7, flash::rowCreateAndWait), no_error);
    EXPECT_EQ(this->state(7), flash::rowCreateAndWait);
    EXPECT_EQ(fakes::set_integer(TypeParam::set_notify, reserve2, TypeParam::notify_magic, 7, 1),
              no_error);
}

TYPED_TEST(RowStatus, NotInServiceOfAnAbsentRowCreatesItNotInService) {
    const Outcome outcome = this->set(7, flash::rowNotInService);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(outcome.phases, succeeded);
    EXPECT_EQ(this->state(7), flash::rowNotInService);
}

TYPED_TEST(RowStatus, DestroyOfAnAbsentRowFailsInAction) {
    const Outcome outcome = this->set(7, flash::rowDestroy);
    EXPECT_EQ(outcome.status, general_error);
    EXPECT_EQ(outcome.phases, failed);
    EXPECT_FALSE(this->present(7));
}

TYPED_TEST(RowStatus, CreateOfAPresentRowIsInconsistentWhateverItsStatus) {
    for (long value : {flash::rowCreateAndGo, flash::rowCreateAndWait})
        for (int32_t before : {1, 2, 3, 4, 5}) {
            fakes::empty_tables();
            this->add(7, before);
            const std::string row = this->whole(7);
            const Outcome outcome = this->set(7, value);
            EXPECT_EQ(outcome.status, inconsistent_value);
            EXPECT_EQ(outcome.phases, refused);
            EXPECT_EQ(this->whole(7), row);
        }
}

TYPED_TEST(RowStatus, NotInServiceOfAPresentRowIsStored) {
    for (int32_t before : {1, 2, 3, 4, 5}) {
        fakes::empty_tables();
        this->add(7, before);
        const Outcome outcome = this->set(7, flash::rowNotInService);
        EXPECT_EQ(outcome.status, no_error);
        EXPECT_EQ(outcome.phases, succeeded);
        EXPECT_EQ(this->state(7), flash::rowNotInService);
    }
}

TYPED_TEST(RowStatus, DestroyOfAPresentRowRemovesIt) {
    for (int32_t before : {1, 2, 3, 4, 5, 6}) {
        fakes::empty_tables();
        this->add(7, before);
        const Outcome outcome = this->set(7, flash::rowDestroy);
        EXPECT_EQ(outcome.status, no_error);
        EXPECT_EQ(outcome.phases, succeeded);
        EXPECT_FALSE(this->present(7));
    }
}

TYPED_TEST(RowStatus, NotReadyAndValuesOutsideOneToSixAreRefusedForAnyRow) {
    for (bool row : {false, true})
        for (long value : {3L, 0L, 7L}) {
            fakes::empty_tables();
            if (row)
                this->add(7, flash::rowNotInService);
            const std::string before = this->whole(7);
            const Outcome outcome = this->set(7, value);
            EXPECT_EQ(outcome.status, wrong_value);
            EXPECT_EQ(outcome.phases, refused);
            EXPECT_EQ(this->whole(7), before);
        }
}

TYPED_TEST(RowStatus, AnIndexAbove31BitsIsARow) {
    for (oid index : {oid{2147483648U}, oid{4294967295U}}) {
        const auto stored = static_cast<int32_t>(static_cast<uint32_t>(index));
        EXPECT_EQ(this->set(index, flash::rowCreateAndWait).status, no_error);
        EXPECT_TRUE(fakes::traced(101, this->added(stored).front()));
        EXPECT_EQ(this->state(stored), flash::rowNotReady);
        EXPECT_EQ(this->set(index, flash::rowDestroy).status, no_error);
        EXPECT_FALSE(this->present(stored));
    }
}

TYPED_TEST(RowStatus, TheRowIsNamedByTheLastArc) {
    fakes::Oid name = fakes::instance_of(TypeParam::magic, {0, 9, 7});
    long value = flash::rowCreateAndWait;
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(TypeParam::method(phase, reinterpret_cast<u_char *>(&value), ASN_INTEGER,
                                    sizeof value, nullptr, name.data(), name.size()),
                  no_error);
    EXPECT_EQ(this->state(7), flash::rowNotReady);
}

TYPED_TEST(RowStatus, NothingIsLeftOfARowThatWasCreatedAndDestroyed) {
    fakes::watch_allocations();
    EXPECT_EQ(this->set(7, flash::rowCreateAndWait).status, no_error);
    EXPECT_EQ(fakes::outstanding_allocations(), 1U);
    EXPECT_EQ(this->call(reserve1, 7, flash::rowDestroy), no_error);
    EXPECT_EQ(this->call(action, 7, flash::rowDestroy), no_error);
    EXPECT_EQ(fakes::outstanding_allocations(), 0U);
}

} // namespace

// RESERVE1 of a row status: what it refuses, and the rows that it makes.
#include "tables.h"

#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace row_status;

// Index 0

TYPED_TEST(RowStatus, IndexZeroIsAGeneralErrorInEveryPhaseAndForEveryValue) {
    for (Phase phase : {reserve1, reserve2, action, commit, release, undo})
        for (long value : {1L, 2L, 3L, 4L, 5L, 6L, 7L}) {
            forget();
            EXPECT_EQ(this->call(phase, 0, value), general_error);
            this->expect_traces({{TypeParam::entering, "Row with Index 0 cannot be created \n"}});
            EXPECT_THAT(container_calls(), IsEmpty());
        }
    EXPECT_FALSE(this->present(0));
}

TYPED_TEST(RowStatus, IndexZeroIsTestedBeforeTheType) {
    fakes::Capture errors(STDERR_FILENO);
    EXPECT_EQ(
        fakes::set_phase(TypeParam::method, reserve1, TypeParam::magic, 0, ASN_OCTET_STR, "x", 1),
        general_error);
    EXPECT_EQ(errors.text(), "");
}

// RESERVE1: what is refused

TYPED_TEST(RowStatus, AnyTypeButIntegerIsWrongType) {
    const long value = flash::rowCreateAndWait;
    for (u_char type :
         {u_char{ASN_OCTET_STR}, u_char{ASN_NULL}, u_char{ASN_OBJECT_ID}, u_char{ASN_IPADDRESS},
          u_char{ASN_COUNTER}, u_char{ASN_GAUGE}, u_char{ASN_TIMETICKS}, u_char{ASN_OPAQUE},
          u_char{ASN_COUNTER64}, u_char{0x80}, u_char{0x81}, u_char{0x82}}) {
        SCOPED_TRACE(static_cast<int>(type));
        forget();
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(fakes::set_phase(TypeParam::method, reserve1, TypeParam::magic, 7, type, &value,
                                   sizeof value),
                  wrong_type);
        EXPECT_EQ(errors.text(), TypeParam::type_message);
        this->expect_traces({this->start()});
    }
    EXPECT_FALSE(this->present(7));
}

TYPED_TEST(RowStatus, ANullValueOfAnotherTypeIsWrongType) {
    fakes::Oid name = fakes::instance_of(TypeParam::magic, {7});
    for (size_t length : {size_t{0}, sizeof(long), size_t{300}}) {
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(
            TypeParam::method(reserve1, nullptr, 0x80, length, nullptr, name.data(), name.size()),
            wrong_type);
        EXPECT_EQ(errors.text(), TypeParam::type_message);
    }
}

TYPED_TEST(RowStatus, ALengthAboveThatOfALongIsWrongLength) {
    for (size_t length : {sizeof(long) + 1, size_t{16}, size_t{60000}}) {
        const std::string value(length, '\5');
        forget();
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(fakes::set_phase(TypeParam::method, reserve1, TypeParam::magic, 7, ASN_INTEGER,
                                   value.data(), value.size()),
                  wrong_length);
        EXPECT_EQ(errors.text(), TypeParam::length_message);
        this->expect_traces({this->start()});
    }
    EXPECT_FALSE(this->present(7));
}

TYPED_TEST(RowStatus, AnyValueButOneTwoFourFiveSixIsAWrongValue) {
    std::vector<long> values = {3,   0,   7,         8,         -1,       -2,
                                255, 260, INT32_MAX, INT32_MIN, LONG_MAX, LONG_MIN};
#if LONG_MAX > INT32_MAX
    for (long low = 1; low <= 6; ++low)
        values.push_back((1L << 32) + low);
#endif
    for (bool row : {false, true}) {
        fakes::empty_tables();
        if (row)
            this->add(7, flash::rowNotReady);
        const std::string before = this->whole(7);
        for (long value : values) {
            SCOPED_TRACE(value);
            u_char *const given = this->current(7);
            forget();
            fakes::Capture errors(STDERR_FILENO);
            EXPECT_EQ(this->call(reserve1, 7, value, given), wrong_value);
            EXPECT_EQ(errors.text(), "");
            this->expect_traces({this->start(), {TypeParam::wrong_value_text}});
        }
        EXPECT_EQ(this->whole(7), before);
    }
}

TYPED_TEST(RowStatus, AValueOfNoBytesIsZeroAndWrong) {
    fakes::Oid name = fakes::instance_of(TypeParam::magic, {7});
    EXPECT_EQ(
        TypeParam::method(reserve1, nullptr, ASN_INTEGER, 0, nullptr, name.data(), name.size()),
        wrong_value);
}

TYPED_TEST(RowStatus, CreateAndGoWithACurrentValueIsInconsistentAtOnce) {
    this->add(7, flash::rowNotReady);
    const std::string before = this->whole(7);
    u_char *const given = this->current(7);
    forget();
    EXPECT_EQ(this->call(reserve1, 7, flash::rowCreateAndGo, given), inconsistent_value);
    this->expect_traces(
        {this->start(), {"ERROR: " + TypeParam::handler() + " : CreateAndGo on a existing row\n"}});
    EXPECT_THAT(container_calls(), IsEmpty());
    EXPECT_EQ(this->whole(7), before);
}

TYPED_TEST(RowStatus, CreateOfAPresentRowWithoutACurrentValueIsInconsistent) {
    for (long value : {flash::rowCreateAndGo, flash::rowCreateAndWait}) {
        fakes::empty_tables();
        this->add(7, flash::rowNotReady);
        const std::string before = this->whole(7);
        forget();
        EXPECT_EQ(this->call(reserve1, 7, value), inconsistent_value);
        this->expect_traces({this->start(), TypeParam::progress_asked(value, 1), this->adding(),
                             this->existing(7)});
        EXPECT_EQ(this->whole(7), before);
    }
}

TYPED_TEST(RowStatus, CreateAndWaitOfAPresentRowIsInconsistent) {
    this->add(7, flash::rowNotReady);
    const std::string before = this->whole(7);
    u_char *const given = this->current(7);
    forget();
    EXPECT_EQ(this->call(reserve1, 7, flash::rowCreateAndWait, given), inconsistent_value);
    this->expect_traces({this->start(), TypeParam::progress_asked(flash::rowCreateAndWait, 1),
                         this->adding(), this->existing(7)});
    EXPECT_EQ(this->whole(7), before);
}

// RESERVE1: the undo copy

TYPED_TEST(RowStatus, NoMemoryForTheUndoCopyIsAGeneralError) {
    for (long value :
         {flash::rowActive, flash::rowNotInService, flash::rowCreateAndWait, flash::rowDestroy}) {
        SCOPED_TRACE(value);
        fakes::empty_tables();
        this->add(7, flash::rowNotReady);
        const std::string before = this->whole(7);
        u_char *const given = this->current(7);
        forget();
        fakes::fail_allocation(1);
        EXPECT_EQ(this->call(reserve1, 7, value, given), general_error);
        this->expect_traces(
            {this->start(),
             TypeParam::progress_asked(value, 1),
             {"ERROR: " + TypeParam::handler() + " : Mallocing for entry into undolist failed\n"}});
        EXPECT_EQ(this->whole(7), before);
    }
}

TYPED_TEST(RowStatus, NoUndoCopyIsMadeWithoutACurrentValue) {
    this->add(7, flash::rowNotReady);
    fakes::fail_allocation(1);
    EXPECT_EQ(this->call(reserve1, 7, flash::rowNotInService), no_error);
    EXPECT_EQ(TypeParam::create(), nullptr) << "the failure was used up before";
}

TYPED_TEST(RowStatus, TheUndoCopyIsTheOnlyMemoryTakenForAPresentRow) {
    this->add(7, flash::rowNotReady);
    u_char *const given = this->current(7);
    fakes::fail_allocation(2);
    EXPECT_EQ(this->call(reserve1, 7, flash::rowNotInService, given), no_error);
    EXPECT_EQ(TypeParam::create(), nullptr) << "the failure was used up before";
}

// RESERVE1: absent rows

TYPED_TEST(RowStatus, DestroyOfAnAbsentRowPassesReserve1AndCreatesNothing) {
    EXPECT_EQ(this->call(reserve1, 7, flash::rowDestroy), no_error);
    this->expect_traces({this->start(),
                         TypeParam::progress_asked(flash::rowDestroy, 0),
                         this->adding(),
                         {TypeParam::no_rows}});
    EXPECT_FALSE(this->present(7));
}

TYPED_TEST(RowStatus, Reserve1CreatesAnAbsentRowWithTheValueForEveryOtherValue) {
    fakes::set_time(1000);
    for (long value : {flash::rowActive, flash::rowNotInService, flash::rowCreateAndGo,
                       flash::rowCreateAndWait}) {
        SCOPED_TRACE(value);
        fakes::empty_tables();
        forget();
        EXPECT_EQ(this->call(reserve1, 7, value), no_error);
        this->expect_traces({this->start(),
                             TypeParam::progress_asked(value, 0),
                             this->adding(),
                             {TypeParam::no_rows},
                             this->added(7),
                             this->setting(0)});
        auto *expected = TypeParam::create();
        expected->index = 7;
        expected->entryStatus = static_cast<int32_t>(value);
        EXPECT_EQ(this->whole(7), bytes(*expected));
        TypeParam::dispose(expected);
    }
}

TYPED_TEST(RowStatus, Reserve1CreatesARowBesideOthers) {
    this->add(3, flash::rowNotReady);
    this->add(9, flash::rowNotInService);
    const std::string third = this->whole(3);
    const std::string ninth = this->whole(9);
    forget();
    EXPECT_EQ(this->call(reserve1, 7, flash::rowCreateAndWait), no_error);
    this->expect_traces({this->start(),
                         TypeParam::progress_asked(flash::rowCreateAndWait, 2),
                         this->adding(),
                         {TypeParam::no_row},
                         this->added(7),
                         this->setting(0)});
    EXPECT_EQ(this->state(7), flash::rowCreateAndWait);
    EXPECT_EQ(this->whole(3), third);
    EXPECT_EQ(this->whole(9), ninth);
}

TYPED_TEST(RowStatus, NoMemoryForANewRowIsAGeneralError) {
    for (long value : {flash::rowActive, flash::rowNotInService, flash::rowCreateAndGo,
                       flash::rowCreateAndWait}) {
        forget();
        fakes::fail_allocation(1);
        EXPECT_EQ(this->call(reserve1, 7, value), general_error);
        this->expect_traces({this->start(),
                             TypeParam::progress_asked(value, 0),
                             this->adding(),
                             {TypeParam::no_rows,
                              "ERROR  " + TypeParam::handler() +
                                  " : RESERVE1 - Could not malloc for the flashCopyEntry for  a "
                                  "new entry \n"}});
        EXPECT_FALSE(this->present(7));
    }
}

TYPED_TEST(RowStatus, ARowThatCannotBeAddedIsReleasedAndAGeneralError) {
    for (bool others : {false, true}) {
        SCOPED_TRACE(others);
        if (others)
            this->add(3, flash::rowNotReady);
        forget();
        fakes::watch_allocations();
        platform().ordset_add.returns(nullptr);
        EXPECT_EQ(this->call(reserve1, 7, flash::rowCreateAndWait), general_error);
        EXPECT_EQ(fakes::outstanding_allocations(), 0U);
        this->expect_traces(
            {this->start(),
             TypeParam::progress_asked(flash::rowCreateAndWait, others),
             this->adding(),
             {others ? TypeParam::no_row : TypeParam::no_rows},
             this->added(7),
             {"ERROR  " + TypeParam::handler() + " : Adding a new entry (index = 7) failed\n"}});
        EXPECT_FALSE(this->present(7));
    }
}

TYPED_TEST(RowStatus, ANewRowThatCannotBeWrittenIsRemovedForCreateAndGoAndCreateAndWaitOnly) {
    for (long value : {flash::rowActive, flash::rowNotInService, flash::rowCreateAndGo,
                       flash::rowCreateAndWait}) {
        SCOPED_TRACE(value);
        fakes::empty_tables();
        forget();
        fakes::watch_allocations();
        platform().ordset_find.always(nullptr);
        EXPECT_EQ(this->call(reserve1, 7, value), general_error);
        platform().ordset_find.normal();
        this->expect_traces({this->start(),
                             TypeParam::progress_asked(value, 0),
                             this->adding(),
                             {TypeParam::no_rows},
                             this->added(7),
                             this->setting(0),
                             this->setting_failed(7)});
        const bool created = value == flash::rowCreateAndGo || value == flash::rowCreateAndWait;
        EXPECT_EQ(this->present(7), !created);
        EXPECT_EQ(fakes::outstanding_allocations(), created ? 0U : 1U);
    }
}

TYPED_TEST(RowStatus, Reserve1OfARowThatCannotBeLookedUpIsAGeneralErrorAndChangesNothing) {
    for (bool row : {false, true})
        for (int32_t result : {int32_t{flash::failure}, -1, 1})
            for (long value : {1L, 2L, 4L, 5L, 6L}) {
                SCOPED_TRACE(testing::Message() << value << " with result " << result);
                fakes::empty_tables();
                if (row)
                    this->add(7, flash::rowNotReady);
                const std::string before = this->whole(7);
                forget();
                TypeParam::look_up().returns(result);
                EXPECT_EQ(this->call(reserve1, 7, value), general_error);
                this->expect_traces(
                    {this->start(), TypeParam::progress_asked(value, row), this->adding()});
                EXPECT_THAT(container_calls("ordset_add"), IsEmpty());
                EXPECT_EQ(this->whole(7), before);
            }
}

// RESERVE1: present rows

TYPED_TEST(RowStatus, Reserve1StoresTheValueInAPresentRow) {
    for (long value : {flash::rowActive, flash::rowNotInService, flash::rowDestroy})
        for (int32_t before : {flash::rowActive, flash::rowNotInService, flash::rowNotReady})
            for (bool with_current : {true, false}) {
                SCOPED_TRACE(testing::Message() << value << " over " << before);
                fakes::empty_tables();
                this->add(7, before);
                auto expected = *TypeParam::stored(7);
                expected.entryStatus = static_cast<int32_t>(value);
                u_char *const given = with_current ? this->current(7) : nullptr;
                forget();
                EXPECT_EQ(this->call(reserve1, 7, value, given), no_error);
                this->expect_traces({this->start(), TypeParam::progress_asked(value, 1),
                                     this->adding(), this->setting(before)});
                EXPECT_EQ(this->whole(7), bytes(expected));
            }
}

TYPED_TEST(RowStatus, APresentRowThatCannotBeWrittenStaysAsItWasAndIsAGeneralError) {
    for (long value : {flash::rowActive, flash::rowNotInService, flash::rowDestroy}) {
        fakes::empty_tables();
        this->add(7, flash::rowNotReady);
        const std::string before = this->whole(7);
        u_char *const given = this->current(7);
        forget();
        platform().ordset_find.at(2, nullptr);
        EXPECT_EQ(this->call(reserve1, 7, value, given), general_error);
        this->expect_traces({this->start(), TypeParam::progress_asked(value, 1), this->adding(),
                             this->setting(flash::rowNotReady), this->setting_failed(7)});
        EXPECT_EQ(this->whole(7), before);
    }
}

TYPED_TEST(RowStatus, AValueOfFourBytesIsUnderstood) {
    const int32_t value = flash::rowCreateAndWait;
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(fakes::set_phase(TypeParam::method, phase, TypeParam::magic, 7, ASN_INTEGER,
                                   &value, sizeof value),
                  no_error);
    EXPECT_EQ(this->state(7), flash::rowNotReady);
}

TYPED_TEST(RowStatus, AValueOfOneToThreeBytesIsUnderstood) {
    const int32_t value = flash::rowCreateAndWait;
    for (size_t length : {1U, 2U, 3U}) {
        SCOPED_TRACE(length);
        fakes::empty_tables();
        const std::string cut = fakes::low_bytes(value, length);
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(fakes::set_phase(TypeParam::method, phase, TypeParam::magic, 7, ASN_INTEGER,
                                       cut.data(), cut.size()),
                      no_error);
        EXPECT_EQ(this->state(7), flash::rowNotReady);
    }
}

} // namespace

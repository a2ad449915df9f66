// The row status of both writable tables: how rows are created, started, stopped and removed.
#include "fakes/fixture.h"

#include "flash_write.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace fakes;

struct CopyTable {
    using Row = flashCopyEntry;
    static constexpr WriteMethod *method = set_orvexFlashCopyEntryStatus;
    static constexpr int magic = flash::magicCopyEntryStatus;
    static constexpr WriteMethod *set_notify = set_orvexFlashCopyNotifyOnCompletion;
    static constexpr int notify_magic = flash::magicCopyNotifyOnCompletion;
    static constexpr auto create = createFlashCopyEntry;
    static constexpr auto dispose = flashCopyEntry_free;
    static constexpr auto add = fakes::add_copy_row;
    static constexpr auto stored = fakes::stored_copy_row;
    static constexpr auto status = &flashCopyEntry::copyStatus;
    static auto &look_up() { return fakes::module().getFlashCopyEntry; }

    static std::string handler() { return "set_orvexFlashCopyEntryStatus"; }
    static constexpr const char *entering = "Entering set_orvexFlashCopyEntryStatus ....\n";
    static constexpr const char *entering_reserve1 =
        "Entering RESERVE1 of set_orvexFlashCopyEntryStatus ....\n";
    static constexpr const char *type_message =
        "write to orvexFlashCopyEntryStatus not ASN_INTEGER\n";
    static constexpr const char *length_message =
        "write to orvexFlashCopyEntryStatus: bad length\n";
    static constexpr const char *wrong_value_text =
        "returning SNMP_ERR_WRONGVALUE from set_orvexFlashCopyEntryStatus ....\n";
    static constexpr const char *table = "flashCopyTable";
    static constexpr const char *setting = "Setting flashCopyEntryStatus to ";
    static constexpr const char *no_rows = "getFlashCopyEntry: ordset_size returned 0\n";
    static constexpr const char *no_row = "getFlashCopyEntry: tmp_entry is NULL\n";

    // What RESERVE1 traces when it asks for a copy in progress, with this many rows and none.
    static Lines progress_asked(long value, int rows) {
        Lines lines = {"calling flashcopy_inprogress..\n"};
        if (value == flash::rowActive) {
            lines.push_back("calling get_flash_entry_with_status()..\n");
            for (int i = 0; i < rows; ++i)
                lines.push_back("found entry after calling getnextFlashCopyEntry.\n");
            lines.push_back(
                rows == 0 ? "no entry in the flashCopyTable, ordset_find_nth_obj returned NULL.\n"
                          : "No entry in the flashCopyTable...\n");
        }
        return lines;
    }
    // What ACTION traces of a row that is not there.
    static Lines absent() { return {handler() + " : The current flash copy status is 0 \n"}; }
    static Lines present(int32_t index) {
        return {handler() + " : The current flash copy status is 17 \n",
                "DEBUG : " + handler() + " : Entry present  (index = " + std::to_string(index) +
                    ", Server Addr = 4294967295)\n"};
    }
    static std::string address() { return ", Server Add = 4294967295"; }
    static Lines write_failed() {
        return {"DEBUG: " + handler() + " : setFlashCopyEntry Failed\n"};
    }
};

struct MiscOpTable {
    using Row = flashMiscOpEntry;
    static constexpr WriteMethod *method = set_orvexFlashMiscOpEntryStatus;
    static constexpr int magic = flash::magicMiscOpEntryStatus;
    static constexpr WriteMethod *set_notify = set_orvexFlashMiscOpNotifyOnCompletion;
    static constexpr int notify_magic = flash::magicMiscOpNotifyOnCompletion;
    static constexpr auto create = createFlashMiscOpEntry;
    static constexpr auto dispose = flashMiscOpEntry_free;
    static constexpr auto add = fakes::add_misc_row;
    static constexpr auto stored = fakes::stored_misc_row;
    static constexpr auto status = &flashMiscOpEntry::operationStatus;
    static auto &look_up() { return fakes::module().getFlashMiscOpEntry; }

    static std::string handler() { return "set_orvexFlashMiscOpEntryStatus"; }
    static constexpr const char *entering = "Entering set_orvexFlashMiscOpEntryStatus\n";
    static constexpr const char *entering_reserve1 =
        "Entering RESERVE1 of set_orvexFlashMiscOpEntryStatus ....\n";
    static constexpr const char *type_message =
        "write to orvexFlashMiscOpEntryStatus not ASN_INTEGER\n";
    static constexpr const char *length_message =
        "write to orvexFlashMiscOpEntryStatus: bad length\n";
    static constexpr const char *wrong_value_text =
        "returning SNMP_ERR_WRONGVALUE from orvexFlashMiscOpEntryStatus ....\n";
    static constexpr const char *table = "flashMiscOpTable";
    static constexpr const char *setting = "Setting flashMiscOpEntryStatus to ";
    static constexpr const char *no_rows = "getFlashMiscOpEntry: ordset_size returned 0\n";
    static constexpr const char *no_row = "getFlashMiscOpEntry: tmp_entry is NULL\n";

    static Lines progress_asked(long value, int rows) {
        if (value != flash::rowActive)
            return {};
        Lines lines = {"calling flashdelete_inprogress..\n",
                       "calling get_flashMiscOp_entry_with_status()..\n"};
        for (int i = 0; i < rows; ++i)
            lines.push_back("found entry after calling getnextFlashMiscOpEntry.\n");
        lines.push_back(
            rows == 0 ? "no entry in the flashMiscOpTable, ordset_find_nth_obj returned NULL.\n"
                      : "No entry in the flashMiscOpTable...\n");
        return lines;
    }
    static Lines absent() { return {}; }
    static Lines present(int32_t index) {
        return {"DEBUG : " + handler() + " : Entry present  (index = " + std::to_string(index) +
                ")\n"};
    }
    static std::string address() { return ""; }
    static Lines write_failed() { return {}; }
};

std::string text(int32_t number) { return std::to_string(number); }

Lines joined(const std::vector<Lines> &parts) {
    Lines all;
    for (const Lines &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

template <class Row>
std::string bytes(const Row &row) {
    return std::string(reinterpret_cast<const char *>(&row), sizeof row);
}

// What a whole SET of one row status came to: its status, and the phases called.
struct Outcome {
    int status;
    std::vector<Phase> phases;
};

template <class Table>
class RowStatus : public fakes::FlashTest {
  protected:
    using Row = typename Table::Row;

    int call(Phase phase, oid index, long value, u_char *current = nullptr) {
        return fakes::set_integer(Table::method, phase, Table::magic, index, value, current);
    }

    // The current value as the agent passes it: what the GET handler answers, null for no row.
    u_char *current(oid index) {
        const fakes::Answer answer = fakes::get(Table::magic, {index});
        return const_cast<u_char *>(answer.value);
    }

    // A SET as the agent carries it out.
    Outcome set(oid index, long value) {
        Outcome outcome{no_error, {}};
        u_char *const given = current(index);
        auto next = [&](Phase phase) {
            outcome.phases.push_back(phase);
            return call(phase, index, value, given);
        };
        forget();
        for (Phase phase : {reserve1, reserve2, action}) {
            outcome.status = next(phase);
            if (outcome.status != no_error) {
                EXPECT_EQ(next(phase == action ? undo : release), no_error);
                return outcome;
            }
        }
        EXPECT_EQ(next(commit), no_error);
        return outcome;
    }

    void add(int32_t index, int32_t state, int32_t status = 17) {
        Table::add(index, [&](Row &row) {
            row.entryStatus = state;
            row.*Table::status = status;
        });
    }
    // The entry status in the store, -100 when there is no such row.
    int32_t state(int32_t index) {
        const auto row = Table::stored(index);
        return row ? row->entryStatus : -100;
    }
    bool present(int32_t index) { return Table::stored(index).has_value(); }
    std::string whole(int32_t index) {
        const auto row = Table::stored(index);
        return row ? bytes(*row) : std::string();
    }

    // Nothing but these is traced, all at debug level.
    void expect_traces(const std::vector<Lines> &parts) {
        EXPECT_EQ(fakes::trace_texts(101), joined(parts));
        EXPECT_THAT(fakes::trace_texts(100), IsEmpty());
    }

    static Lines start() { return {Table::entering, Table::entering_reserve1}; }
    static Lines action_start() {
        return {Table::entering, "DEBUG " + Table::handler() + " : Entering ACTION \n"};
    }
    static Lines adding() { return {"Adding a new row with all values 0\n"}; }
    static Lines added(int32_t index) {
        return {"DEBUG  " + Table::handler() + " : Added new entry to " + Table::table +
                " ( index = " + text(index) + ")\n"};
    }
    static Lines setting(int32_t before) {
        return {"DEBUG  " + Table::handler() + " : " + Table::setting + text(before) + " \n"};
    }
    static Lines setting_failed(int32_t index) {
        return {"ERROR  " + Table::handler() + " : Setting a new entry (index = " + text(index) +
                ") failed\n"};
    }
    static Lines existing(int32_t index) {
        return {"ERROR  " + Table::handler() +
                " : CREATE on a existing row (index = " + text(index) + ")\n"};
    }
};

using Tables = testing::Types<CopyTable, MiscOpTable>;
TYPED_TEST_SUITE(RowStatus, Tables);

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

const std::vector<Phase> succeeded = {reserve1, reserve2, action, commit};
const std::vector<Phase> refused = {reserve1, release};
const std::vector<Phase> failed = {reserve1, reserve2, action, undo};

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

// The copy table: one copy at a time, for active only

class CopyRowStatus : public RowStatus<CopyTable> {
  protected:
    // A row that validation accepts: fetch from 10.0.0.1 by TFTP.
    void fill(flashCopyEntry &row) {
        const uint8_t address[4] = {10, 0, 0, 1};
        std::memcpy(&row.serverAddress, address, sizeof row.serverAddress);
        row.protocol = flash::protocolTftp;
        row.command = flash::commandToFlash;
        fakes::put(row.sourceName, "image.bin");
        fakes::put(row.destinationName, "bootflash:image.bin");
        platform().paths["bootflash:image.bin"] = "/bootflash/image.bin";
    }
    void add_ready(int32_t index, int32_t state = flash::rowNotReady) {
        fakes::add_copy_row(index, [&](flashCopyEntry &row) {
            fill(row);
            row.entryStatus = state;
        });
    }
    // A row that validation takes for a finished copy, without a worker.
    void add_line_card(int32_t index, int32_t state) {
        fakes::add_copy_row(index, [&](flashCopyEntry &row) {
            row.entryStatus = state;
            row.protocol = flash::protocolRcp;
            fakes::put(row.sourceName, "from");
            fakes::put(row.destinationName, "to");
        });
    }
    static Lines activating(int32_t index) {
        return {"DEBUG : set_orvexFlashCopyEntryStatus : Activating the entry (index = " +
                    text(index) + ", Server Add = 4294967295)\n",
                "Entering validate_n_start_flash_copy()...\n"};
    }
    static Lines validated(const char *result, int32_t state) {
        return {std::string("DEBUG: set_orvexFlashCopyEntryStatus : validate_n_start_flash_copy "
                            "returned ") +
                    result + "\n",
                "set_orvexFlashCopyEntryStatus : flashcopyentrystatus is " + text(state) + "\n"};
    }
    // The traces end with these.
    void expect_end(const Lines &end) {
        const Lines traces = fakes::trace_texts(101);
        ASSERT_GE(traces.size(), end.size());
        EXPECT_EQ(Lines(traces.end() - static_cast<std::ptrdiff_t>(end.size()), traces.end()), end);
    }
};

TEST_F(CopyRowStatus, ActiveWhileACopyRunsIsAGeneralErrorAndLogged) {
    for (bool row : {false, true}) {
        SCOPED_TRACE(row);
        fakes::empty_tables();
        add(5, flash::rowActive, flash::copyInProgress);
        if (row)
            add_ready(7);
        const std::string before = whole(7);
        u_char *const given = current(7);
        forget();
        EXPECT_EQ(call(reserve1, 7, flash::rowActive, given), general_error);
        EXPECT_EQ(fakes::traces(),
                  (fakes::Traces{
                      {101, CopyTable::entering},
                      {101, CopyTable::entering_reserve1},
                      {101, "calling flashcopy_inprogress..\n"},
                      {101, "calling get_flash_entry_with_status()..\n"},
                      {101, "found entry after calling getnextFlashCopyEntry.\n"},
                      {101, "Now checking the status\n"},
                      {100, "ERROR: set_orvexFlashCopyEntryStatus : Another Copy is in progress\n"},
                      {101, "Logged error text of 0x4049003e\n"}}));
        EXPECT_THAT(fakes::calls("log_snmp_error"),
                    ElementsAre("log_snmp_error code=0x4049003e text=text of 0x4049003e"));
        EXPECT_THAT(fakes::everything().back(), testing::StartsWith("log_snmp_error"));
        EXPECT_EQ(whole(7), before);
        EXPECT_EQ(call(release, 7, flash::rowActive, given), no_error);
        EXPECT_EQ(whole(7), before);
    }
}

TEST_F(CopyRowStatus, TheErrorRecordIsClearedBeforeItIsFilled) {
    platform().error_formats[flash::copyAlreadyRunning] = "short";
    // A refused source name of an active row puts its text into the same record.
    fakes::add_copy_row(4, [](flashCopyEntry &row) {
        row.command = flash::commandFromFlash;
        row.entryStatus = flash::rowActive;
        fakes::put(row.sourceName, "nowhere");
    });
    platform().error_formats[flash::invalidSourceFile] = std::string(190, 'y');
    ASSERT_EQ(call(action, 4, flash::rowActive), general_error);
    ASSERT_EQ(platform().errors.size(), 1U);
    ASSERT_EQ(platform().errors[0].code, flash::invalidSourceFile);

    add(5, flash::rowActive, flash::copyInProgress);
    EXPECT_EQ(call(reserve1, 7, flash::rowActive), general_error);
    ASSERT_EQ(platform().errors.size(), 2U);
    snmp_error_record expected{};
    expected.code = flash::copyAlreadyRunning;
    std::strcpy(expected.text, "short");
    EXPECT_EQ(bytes(platform().errors[1]), bytes(expected));
    EXPECT_TRUE(fakes::traced(101, "Logged error short\n"));
}

TEST_F(CopyRowStatus, ActiveOfTheVeryRowInProgressIsRefused) {
    add(7, flash::rowActive, flash::copyInProgress);
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, general_error);
    EXPECT_EQ(outcome.phases, refused);
    EXPECT_EQ(fakes::calls("fork"), Lines{});
}

TEST_F(CopyRowStatus, OnlyActiveIsHeldBackWhileACopyRuns) {
    for (long value : {flash::rowNotInService, flash::rowCreateAndGo, flash::rowCreateAndWait}) {
        fakes::empty_tables();
        add(5, flash::rowActive, flash::copyInProgress);
        EXPECT_EQ(call(reserve1, 7, value), no_error);
        EXPECT_EQ(state(7), value);
    }
    EXPECT_EQ(call(reserve1, 8, flash::rowDestroy), no_error);
    EXPECT_THAT(platform().errors, IsEmpty());
}

TEST_F(CopyRowStatus, ACreateAndGoStartsASecondCopyWhileOneRuns) {
    os().fork.returns(4242).returns(4243);
    add_ready(5);
    ASSERT_EQ(set(5, flash::rowActive).status, no_error);
    ASSERT_EQ(flash_copy_pid, 4242);
    // The request sets the row's columns after it has been created.
    EXPECT_EQ(call(reserve1, 7, flash::rowCreateAndGo), no_error);
    flashCopyEntry row = *fakes::stored_copy_row(7);
    fill(row);
    ASSERT_EQ(setFlashCopyEntry(&row), flash::success);
    EXPECT_EQ(call(reserve2, 7, flash::rowCreateAndGo), no_error);
    forget();
    EXPECT_EQ(call(action, 7, flash::rowCreateAndGo), no_error);
    EXPECT_EQ(fakes::calls("fork"), Lines{"fork"});
    EXPECT_EQ(flash_copy_pid, 4243);
    EXPECT_EQ(fakes::stored_copy_row(5)->copyStatus, flash::copyInProgress);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInProgress);
}

TEST_F(CopyRowStatus, ACopyMayStartAfterTheOneBeforeHasEnded) {
    add(5, flash::rowActive, flash::copySuccess);
    add_ready(7);
    EXPECT_EQ(set(7, flash::rowActive).status, no_error);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInProgress);
}

// The copy table: activation

TEST_F(CopyRowStatus, ActiveOfARowThatIsReadyStartsItsCopy) {
    add_ready(7);
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(outcome.phases, succeeded);
    EXPECT_EQ(fakes::calls("fork"), Lines{"fork"});
    EXPECT_EQ(flash_copy_pid, 4242);
    const flashCopyEntry row = *fakes::stored_copy_row(7);
    EXPECT_EQ(row.entryStatus, flash::rowActive);
    EXPECT_EQ(row.copyStatus, flash::copyInProgress);
    EXPECT_STREQ(row.destinationPath, "/bootflash/image.bin");
}

TEST_F(CopyRowStatus, ActivationTracesTheResultOfTheStartAndTheStatusThatItLeft) {
    for (long value : {flash::rowActive, flash::rowCreateAndGo}) {
        fakes::empty_tables();
        add_line_card(7, static_cast<int32_t>(value));
        platform().error_names[0] = "SUCCESS";
        forget();
        EXPECT_EQ(call(action, 7, value), no_error);
        expect_traces({action_start(),
                       CopyTable::present(7),
                       activating(7),
                       {"Calling  rumapi_CopyIlcNVRAM with srcfile=from and dstFile=to\n"},
                       validated("SUCCESS", flash::rowActive)});
        EXPECT_EQ(fakes::calls("syserr2str"), Lines{"syserr2str code=0"});
        EXPECT_EQ(state(7), flash::rowActive);
        EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copySuccess);
    }
}

TEST_F(CopyRowStatus, TheEntryIsTracedWithItsAddressAndCopyStatus) {
    add_ready(7, flash::rowActive);
    const uint32_t address = fakes::stored_copy_row(7)->serverAddress;
    forget();
    EXPECT_EQ(call(action, 7, flash::rowActive), no_error);
    const Lines traces = fakes::trace_texts(101);
    const std::string number = std::to_string(address);
    const Lines head = joined(
        {action_start(),
         {"set_orvexFlashCopyEntryStatus : The current flash copy status is 17 \n",
          "DEBUG : set_orvexFlashCopyEntryStatus : Entry present  (index = 7, Server Addr = " +
              number + ")\n",
          "DEBUG : set_orvexFlashCopyEntryStatus : Activating the entry (index = 7, Server Add = " +
              number + ")\n",
          "Entering validate_n_start_flash_copy()...\n"}});
    ASSERT_GE(traces.size(), head.size());
    EXPECT_EQ(Lines(traces.begin(), traces.begin() + static_cast<std::ptrdiff_t>(head.size())),
              head);
}

TEST_F(CopyRowStatus, CreateAndGoWithItsColumnsInOneRequestStartsTheCopy) {
    platform().paths["bootflash:image.bin"] = "/bootflash/image.bin";
    for (Phase phase : {reserve1, reserve2, action, commit}) {
        EXPECT_EQ(call(phase, 7, flash::rowCreateAndGo), no_error);
        if (phase == action)
            continue; // after ACTION of the row status the row is active
        EXPECT_EQ(fakes::set_text(set_orvexFlashCopySourceName, phase, flash::magicCopySourceName,
                                  7, "image.bin"),
                  no_error);
        EXPECT_EQ(fakes::set_text(set_orvexFlashCopyDestinationName, phase,
                                  flash::magicCopyDestinationName, 7, "bootflash:image.bin"),
                  no_error);
    }
    EXPECT_EQ(fakes::calls("fork"), Lines{"fork"});
    EXPECT_EQ(state(7), flash::rowActive);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInProgress);
}

TEST_F(CopyRowStatus, CreateAndGoOfAnAbsentRowAloneLeavesItNotReady) {
    const Outcome outcome = set(7, flash::rowCreateAndGo);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(outcome.phases, succeeded);
    EXPECT_EQ(state(7), flash::rowNotReady);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyStatusInitial);
    expect_end(joined({validated("name of 0", flash::rowNotReady), {CopyTable::entering}}));
    EXPECT_EQ(fakes::calls("fork"), Lines{});
}

TEST_F(CopyRowStatus, ActiveOfAnAbsentRowCreatesItAndValidatesItsDefaults) {
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, inconsistent_value);
    EXPECT_EQ(outcome.phases, failed);
    EXPECT_EQ(state(7), flash::rowActive);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInvalidProtocol);
    EXPECT_EQ(fakes::calls("fork"), Lines{});
}

TEST_F(CopyRowStatus, TheResultOfTheStartReachesTheManagerUnchanged) {
    const struct {
        int status;
        const char *name;
        void (*change)(flashCopyEntry &);
        int failing_find; // 0: none
    } cases[] = {
        {wrong_value, "name of 0xa",
         [](flashCopyEntry &row) { row.command = flash::commandFromFlashLog; }, 0},
        {inconsistent_value, "name of 0xc",
         [](flashCopyEntry &row) { fakes::put(row.sourceName, ""); }, 0},
        {general_error, "name of 0x5",
         [](flashCopyEntry &row) { fakes::put(row.destinationName, "nowhere:x"); }, 0},
        {general_error, "name of 0x5", [](flashCopyEntry &) {}, 2},
        {no_such_name, "name of 0x2", [](flashCopyEntry &) {}, 3},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.status);
        fakes::empty_tables();
        fakes::add_copy_row(7, [&](flashCopyEntry &row) {
            fill(row);
            row.entryStatus = flash::rowActive;
            one.change(row);
        });
        forget();
        if (one.failing_find != 0)
            platform().ordset_find.at(one.failing_find, nullptr);
        EXPECT_EQ(call(action, 7, flash::rowActive), one.status);
        expect_end(validated(one.name, flash::rowActive));
        platform().ordset_find.normal();
        EXPECT_TRUE(present(7));
    }
}

TEST_F(CopyRowStatus, ARowWhoseStartWasRefusedIsNotWrittenAgain) {
    add_ready(7, flash::rowActive);
    flashCopyEntry row = *fakes::stored_copy_row(7);
    row.command = flash::commandFromFlashLog;
    ASSERT_EQ(setFlashCopyEntry(&row), flash::success);
    forget();
    EXPECT_EQ(call(action, 7, flash::rowActive), wrong_value);
    // One look-up by the handler, one by the validation's write.
    EXPECT_EQ(container_calls("ordset_find").size(), 2U);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInvalidCommand);
}

TEST_F(CopyRowStatus, AStartedRowThatCannotBeWrittenIsAGeneralError) {
    add_line_card(7, flash::rowActive);
    forget();
    platform().ordset_find.at(3, nullptr);
    EXPECT_EQ(call(action, 7, flash::rowActive), general_error);
    expect_end(joined({validated("name of 0", flash::rowActive), CopyTable::write_failed()}));
}

TEST_F(CopyRowStatus, TheRowIsWrittenBackAfterTheStart) {
    add_line_card(7, flash::rowActive);
    forget();
    EXPECT_EQ(call(action, 7, flash::rowActive), no_error);
    EXPECT_EQ(container_calls("ordset_find").size(), 3U);
}

TEST_F(CopyRowStatus, ActiveOfARowThatIsNotReadyAnswersTheManagerAndLeavesTheVerdict) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.entryStatus = flash::rowNotReady; });
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, inconsistent_value);
    EXPECT_EQ(outcome.phases, failed);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInvalidProtocol);
}

// The copy table: stopping

TEST_F(CopyRowStatus, DestroyOfARunningCopyEndsTheWorkerAndRemovesTheRow) {
    add(7, flash::rowActive, flash::copyInProgress);
    flash_copy_pid = 4242;
    const Outcome outcome = set(7, flash::rowDestroy);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(fakes::calls("kill"), Lines{"kill pid=4242 signal=" + text(SIGTERM)});
    EXPECT_FALSE(present(7));
}

TEST_F(CopyRowStatus, NotInServiceOfARunningCopyEndsTheWorkerAndKeepsTheRow) {
    add(7, flash::rowActive, flash::copyInProgress);
    flash_copy_pid = 4242;
    const Outcome outcome = set(7, flash::rowNotInService);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(fakes::calls("kill"), Lines{"kill pid=4242 signal=" + text(SIGTERM)});
    EXPECT_EQ(state(7), flash::rowNotInService);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInProgress);
}

TEST_F(CopyRowStatus, StoppingARowThatDoesNotRunSignalsNobody) {
    flash_copy_pid = 4242;
    for (long value : {flash::rowNotInService, flash::rowDestroy}) {
        fakes::empty_tables();
        add(7, flash::rowActive, flash::copySuccess);
        EXPECT_EQ(set(7, value).status, no_error);
    }
    EXPECT_EQ(set(8, flash::rowNotInService).status, no_error);
    EXPECT_EQ(fakes::calls("kill"), Lines{});
}

TEST_F(CopyRowStatus, StoppingARowWhoseWorkerNeverStartedSignalsNobody) {
    for (int32_t pid : {0, -1}) {
        flash_copy_pid = pid;
        fakes::empty_tables();
        add(7, flash::rowActive, flash::copyInProgress);
        EXPECT_EQ(set(7, flash::rowDestroy).status, no_error);
        EXPECT_FALSE(present(7));
    }
    EXPECT_EQ(fakes::calls("kill"), Lines{});
}

TEST_F(CopyRowStatus, DestroyOfARowThatCannotBeStoppedIsAGeneralErrorAndKeepsTheRow) {
    for (int32_t result : {1, -1, int32_t{flash::failure}}) {
        fakes::empty_tables();
        add(7, flash::rowDestroy);
        const std::string before = whole(7);
        forget();
        fakes::module().handle_flash_abort.returns(result);
        EXPECT_EQ(call(action, 7, flash::rowDestroy), general_error);
        expect_traces({action_start(), CopyTable::present(7)});
        EXPECT_THAT(container_calls("ordset_remove"), IsEmpty());
        EXPECT_EQ(whole(7), before);
    }
}

TEST_F(CopyRowStatus, NotInServiceOfARowThatCannotBeStoppedIsAGeneralErrorAndNotWritten) {
    for (long value : {flash::rowNotInService, flash::rowCreateAndWait})
        for (int32_t result : {1, -1, int32_t{flash::failure}}) {
            fakes::empty_tables();
            add(7, flash::rowActive);
            const std::string before = whole(7);
            forget();
            int32_t seen = 0;
            fakes::module().handle_flash_abort.does([&](const flashCopyEntry *row) {
                seen = row->entryStatus;
                return result;
            });
            EXPECT_EQ(call(action, 7, value), general_error);
            EXPECT_EQ(seen, value) << "the status is set before the abort";
            expect_traces(
                {action_start(),
                 CopyTable::present(7),
                 {"DEBUG: set_orvexFlashCopyEntryStatus : handle_flash_abort was unsuccessful\n"}});
            EXPECT_EQ(container_calls("ordset_find").size(), 1U);
            EXPECT_EQ(whole(7), before);
        }
}

TEST_F(CopyRowStatus, ARowCreatedByCreateAndWaitIsNotStopped) {
    fakes::module().handle_flash_abort.always(1);
    add(7, flash::rowCreateAndWait);
    EXPECT_EQ(call(action, 7, flash::rowCreateAndWait), no_error);
    EXPECT_EQ(fakes::module().handle_flash_abort.count(), 0);
}

TEST_F(CopyRowStatus, ANewCopyMayStartAfterTheRunningOneWasDestroyed) {
    add(7, flash::rowActive, flash::copyInProgress);
    add_ready(8);
    ASSERT_EQ(set(8, flash::rowActive).status, general_error);
    ASSERT_EQ(set(7, flash::rowDestroy).status, no_error);
    EXPECT_EQ(set(8, flash::rowActive).status, no_error);
    EXPECT_EQ(fakes::stored_copy_row(8)->copyStatus, flash::copyInProgress);
}

// The misc-operation table

class MiscOpRowStatus : public RowStatus<MiscOpTable> {
  protected:
    void SetUp() override {
        RowStatus<MiscOpTable>::SetUp();
        os().unlink.does([](const char *) { return 0; });
        platform().paths["bootflash:old"] = "/bootflash/old";
    }
    void add_named(int32_t index, int32_t state, const char *name) {
        fakes::add_misc_row(index, [&](flashMiscOpEntry &row) {
            row.entryStatus = state;
            fakes::put(row.destinationName, name);
        });
    }
    static Lines activating(int32_t index) {
        return {"DEBUG : set_orvexFlashMiscOpEntryStatus : Activating the entry (index = " +
                    text(index) + ")\n",
                "Entering validate_n_start_flash_delete()...\n"};
    }
};

TEST_F(MiscOpRowStatus, ActiveWhileADeleteRunsIsInconsistentAndNotLogged) {
    for (bool row : {false, true}) {
        fakes::empty_tables();
        add(5, flash::rowActive, flash::miscOpInProgress);
        if (row)
            add_named(7, flash::rowNotReady, "bootflash:old");
        const std::string before = whole(7);
        u_char *const given = current(7);
        forget();
        EXPECT_EQ(call(reserve1, 7, flash::rowActive, given), inconsistent_value);
        EXPECT_EQ(
            fakes::traces(),
            (fakes::Traces{
                {101, MiscOpTable::entering},
                {101, MiscOpTable::entering_reserve1},
                {101, "calling flashdelete_inprogress..\n"},
                {101, "calling get_flashMiscOp_entry_with_status()..\n"},
                {101, "found entry after calling getnextFlashMiscOpEntry.\n"},
                {101, "Now checking the status\n"},
                {100,
                 "ERROR: set_orvexFlashMiscOpEntryStatus : Another delete is in progress\n"}}));
        EXPECT_THAT(fakes::calls(), IsEmpty());
        EXPECT_EQ(whole(7), before);
    }
}

TEST_F(MiscOpRowStatus, OnlyActiveIsHeldBackWhileADeleteRuns) {
    for (long value : {flash::rowNotInService, flash::rowCreateAndGo, flash::rowCreateAndWait}) {
        fakes::empty_tables();
        add(5, flash::rowActive, flash::miscOpInProgress);
        EXPECT_EQ(call(reserve1, 7, value), no_error);
        EXPECT_EQ(state(7), value);
    }
    EXPECT_EQ(call(reserve1, 8, flash::rowDestroy), no_error);
}

TEST_F(MiscOpRowStatus, ARunningCopyDoesNotHoldADeleteBack) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.copyStatus = flash::copyInProgress; });
    EXPECT_EQ(call(reserve1, 7, flash::rowActive), no_error);
}

TEST_F(MiscOpRowStatus, ActiveDeletesTheFileAndStaysActive) {
    add_named(7, flash::rowNotReady, "bootflash:old");
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(outcome.phases, succeeded);
    EXPECT_EQ(fakes::calls("unlink"), Lines{"unlink path=/bootflash/old"});
    EXPECT_EQ(state(7), flash::rowActive);
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpSuccess);
}

TEST_F(MiscOpRowStatus, ActivationTracesNothingAfterTheDelete) {
    add_named(7, flash::rowActive, "bootflash:old");
    for (long value : {flash::rowActive, flash::rowCreateAndGo}) {
        forget();
        EXPECT_EQ(call(action, 7, value), no_error);
        const Lines traces = fakes::trace_texts(101);
        const Lines head = joined({action_start(), MiscOpTable::present(7), activating(7)});
        ASSERT_GE(traces.size(), head.size());
        EXPECT_EQ(Lines(traces.begin(), traces.begin() + static_cast<std::ptrdiff_t>(head.size())),
                  head);
        EXPECT_EQ(traces.back(), "start_flash_delete(): deleted /bootflash/old...\n");
        EXPECT_EQ(fakes::calls("syserr2str"), Lines{});
    }
}

TEST_F(MiscOpRowStatus, CreateAndGoWithItsNameInOneRequestDeletesTheFile) {
    for (Phase phase : {reserve1, reserve2, action, commit}) {
        EXPECT_EQ(call(phase, 7, flash::rowCreateAndGo), no_error);
        EXPECT_EQ(fakes::set_text(set_orvexFlashMiscOpDestinationName, phase,
                                  flash::magicMiscOpDestinationName, 7, "bootflash:old"),
                  no_error);
    }
    EXPECT_EQ(fakes::calls("unlink"), Lines{"unlink path=/bootflash/old"});
    // The delete leaves the row status as it found it.
    EXPECT_EQ(state(7), flash::rowCreateAndGo);
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpSuccess);
}

TEST_F(MiscOpRowStatus, ADeleteThatFailsShowsInTheRowOnly) {
    os().unlink.always(-1, ENOENT);
    add_named(7, flash::rowNotReady, "bootflash:old");
    EXPECT_EQ(set(7, flash::rowActive).status, no_error);
    EXPECT_EQ(state(7), flash::rowActive);
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpFailed);
}

TEST_F(MiscOpRowStatus, ActivationOfAnAbsentRowPassesTheDeletesResultOn) {
    for (long value : {flash::rowActive, flash::rowCreateAndGo}) {
        fakes::empty_tables();
        const Outcome outcome = set(7, value);
        EXPECT_EQ(outcome.status, general_error);
        EXPECT_EQ(outcome.phases, failed);
        // The row is not written after a refused delete.
        EXPECT_EQ(state(7), value);
        EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpStatusInitial);
    }
}

TEST_F(MiscOpRowStatus, ARowWhoseDeleteWasRefusedIsNotWritten) {
    add_named(7, flash::rowActive, "");
    forget();
    EXPECT_EQ(call(action, 7, flash::rowActive), general_error);
    EXPECT_EQ(container_calls("ordset_find").size(), 1U);
}

TEST_F(MiscOpRowStatus, ALineCardNameIsDoneWithoutADelete) {
    add_named(7, flash::rowNotReady, "ilc-nvram:old");
    EXPECT_EQ(set(7, flash::rowActive).status, no_error);
    EXPECT_EQ(fakes::calls("unlink"), Lines{});
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpSuccess);
}

TEST_F(MiscOpRowStatus, ARowThatTheDeleteCannotWriteIsAGeneralError) {
    add_named(7, flash::rowActive, "ilc-nvram:old");
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(call(action, 7, flash::rowActive), general_error);
}

TEST_F(MiscOpRowStatus, ARowThatCannotBeWrittenAfterTheDeleteIsAGeneralErrorWithoutATrace) {
    add_named(7, flash::rowActive, "bootflash:old");
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(call(action, 7, flash::rowActive), general_error);
    EXPECT_EQ(fakes::trace_texts(101).back(), "start_flash_delete(): deleted /bootflash/old...\n");
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpStatusInitial);
}

TEST_F(MiscOpRowStatus, StoppingARowNeverAborts) {
    flash_copy_pid = 4242;
    for (long value : {flash::rowNotInService, flash::rowDestroy}) {
        fakes::empty_tables();
        add(7, flash::rowActive, flash::miscOpInProgress);
        EXPECT_EQ(set(7, value).status, no_error);
    }
    EXPECT_THAT(fakes::calls(), IsEmpty());
}

TEST_F(MiscOpRowStatus, TheTablesKeepTheirRowsApart) {
    fakes::add_copy_row(7);
    EXPECT_EQ(set(7, flash::rowDestroy).status, general_error);
    EXPECT_EQ(set(7, flash::rowCreateAndWait).status, no_error);
    EXPECT_EQ(fakes::stored_copy_row(7)->entryStatus, 0);
}

} // namespace

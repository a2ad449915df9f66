// SET of every column: RESERVE1 and RESERVE2.
#include "columns.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

using namespace write_columns;

// RESERVE1

constexpr u_char every_type[] = {
    ASN_BOOLEAN,   ASN_INTEGER,   ASN_BIT_STR, ASN_OCTET_STR, ASN_NULL,      ASN_OBJECT_ID,
    ASN_SEQUENCE,  ASN_IPADDRESS, ASN_COUNTER, ASN_GAUGE,     ASN_TIMETICKS, ASN_OPAQUE,
    ASN_COUNTER64, 0x80,          0x81,        0x82,          0x00,          0xff};

TEST_P(Columns, AValueOfAnyOtherTypeIsWrongType) {
    for (u_char type : every_type) {
        if (type == column.type)
            continue;
        SCOPED_TRACE(static_cast<int>(type));
        forget();
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(fakes::set_phase(column.method, reserve1, column.magic, 7, type,
                                   column.written.data(), column.written.size()),
                  wrong_type);
        EXPECT_EQ(errors.text(), column.type_message);
        const Lines message = {column.type_message};
        expect_traces(
            {column.every_call, column.reserve1_start, column.traces_refusals ? message : Lines{}});
    }
}

TEST_P(Columns, ANullValueOfAnotherTypeIsWrongType) {
    for (u_char type : every_type) {
        if (type == column.type)
            continue;
        SCOPED_TRACE(static_cast<int>(type));
        oid name[MAX_OID_LEN];
        const fakes::Oid instance = fakes::instance_of(column.magic, {7});
        std::copy(instance.begin(), instance.end(), name);
        for (size_t length : {size_t{0}, size_t{4}, sizeof(long)}) {
            fakes::Capture errors(STDERR_FILENO);
            EXPECT_EQ(
                column.method(reserve1, nullptr, type, length, nullptr, name, instance.size()),
                wrong_type);
            EXPECT_EQ(errors.text(), column.type_message);
        }
    }
}

TEST_P(Columns, TheTypeIsCheckedBeforeTheLength) {
    const u_char other = column.type == ASN_INTEGER ? ASN_OCTET_STR : ASN_INTEGER;
    for (size_t length : column.bad_lengths) {
        fakes::Capture errors(STDERR_FILENO);
        const std::string value(length, 'x');
        EXPECT_EQ(fakes::set_phase(column.method, reserve1, column.magic, 7, other, value.data(),
                                   value.size()),
                  wrong_type);
        EXPECT_EQ(errors.text(), column.type_message);
    }
}

TEST_P(Columns, ALengthOutsideTheLimitsIsWrongLength) {
    for (size_t length : column.bad_lengths) {
        SCOPED_TRACE(length);
        forget();
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(column.call(reserve1, 7, std::string(length, 'x')), wrong_length);
        EXPECT_EQ(errors.text(), column.length_message);
        const Lines message = {column.length_message};
        expect_traces(
            {column.every_call, column.reserve1_start, column.traces_refusals ? message : Lines{}});
    }
}

TEST_P(Columns, TheLengthsAtTheLimitsAreAccepted) {
    for (const std::string &value : column.good_lengths) {
        SCOPED_TRACE(value.size());
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(column.call(reserve1, 7, value), no_error);
        EXPECT_EQ(errors.text(), "");
    }
}

TEST_P(Columns, AnAcceptedValueIsTracedAndNotWrittenToStandardError) {
    fakes::Capture errors(STDERR_FILENO);
    EXPECT_EQ(column.call(reserve1, 7), no_error);
    EXPECT_EQ(errors.text(), "");
    expect_traces({column.every_call, column.reserve1_start, column.reserve1_accepted});
}

TEST_P(Columns, Reserve1DoesNotLookAtTheRow) {
    column.add(7, flash::rowActive, column.before);
    const std::string before = column.whole(7);
    forget();
    EXPECT_EQ(column.call(reserve1, 7), no_error);
    {
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(column.call(reserve1, 7, std::string(column.bad_lengths.back(), 'x')),
                  wrong_length);
    }
    EXPECT_THAT(container_calls(), IsEmpty());
    EXPECT_EQ(column.whole(7), before);
}

TEST_P(Columns, Reserve1AcceptsAValueForAnAbsentRow) {
    EXPECT_EQ(column.call(reserve1, 8), no_error);
    EXPECT_EQ(column.read(8), "no row");
}

TEST_P(Integers, NoLengthUpToThatOfALongIsWrongLength) {
    for (size_t length = 0; length <= sizeof(long); ++length) {
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_NE(column.call(reserve1, 7, std::string(length, '\1')), wrong_length) << length;
        EXPECT_THAT(errors.text(), Not(EndsWith("bad length\n"))) << length;
    }
}

TEST_P(Integers, TheLengthIsCheckedBeforeTheValue) {
    fakes::Capture errors(STDERR_FILENO);
    EXPECT_EQ(column.call(reserve1, 7, std::string(sizeof(long) + 1, '\x7f')), wrong_length);
    EXPECT_EQ(errors.text(), column.length_message);
}

TEST_P(Texts, AnEmptyTextIsWrongLength) {
    oid name[MAX_OID_LEN];
    const fakes::Oid instance = fakes::instance_of(column.magic, {7});
    std::copy(instance.begin(), instance.end(), name);
    u_char nothing = 'x';
    for (u_char *value : {&nothing, static_cast<u_char *>(nullptr)}) {
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(column.method(reserve1, value, ASN_OCTET_STR, 0, nullptr, name, instance.size()),
                  wrong_length);
        EXPECT_EQ(errors.text(), column.length_message);
    }
}

// RESERVE2

TEST_P(Columns, Reserve2OfAnAbsentRowIsNoSuchName) {
    EXPECT_EQ(column.call(reserve2, 7), no_such_name);
    expect_traces({column.every_call, column.reserve2_start, {column.no_rows}, column.row_absent});
    EXPECT_EQ(column.read(7), "no row");
}

TEST_P(Columns, Reserve2NeverCreatesARow) {
    column.add(6, flash::rowNotReady, column.before);
    EXPECT_EQ(column.call(reserve2, 7), no_such_name);
    EXPECT_EQ(column.read(7), "no row");
    EXPECT_EQ(column.read(6), column.before);
}

TEST_P(Columns, Reserve2StoresTheValueWhileTheRowIsBeingCreated) {
    for (int32_t state : states_of_creation) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(7, state, column.before);
        forget();
        EXPECT_EQ(column.call(reserve2, 7), no_error);
        expect_traces({column.every_call, column.reserve2_start, column.changing,
                       column.before_store, column.stored});
        EXPECT_EQ(column.read(7), column.after);
    }
}

TEST_P(Columns, Reserve2ChangesNothingElseAndLeavesNothingOfTheOldValue) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    const std::string changed = column.whole(7);
    fakes::empty_tables();
    column.add(7, flash::rowNotReady, column.after);
    EXPECT_TRUE(changed == column.whole(7));
}

TEST_P(Columns, Reserve2OfARowInAnyOtherStateIsInconsistentAndChangesNothing) {
    for (int32_t state : other_states) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(7, state, column.before);
        const std::string before = column.whole(7);
        forget();
        EXPECT_EQ(column.call(reserve2, 7), inconsistent_value);
        expect_traces({column.every_call, column.reserve2_start, column.changing, refusal(state)});
        EXPECT_TRUE(column.whole(7) == before);
    }
}

TEST_P(Columns, ARowThatCannotBeWrittenInReserve2IsAGeneralError) {
    column.add(7, flash::rowNotReady, column.before);
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(column.call(reserve2, 7), general_error);
    EXPECT_EQ(column.read(7), column.before);
}

TEST_P(Texts, NoTextIsTracedAsStoredWhenTheRowCannotBeWritten) {
    column.add(7, flash::rowNotReady, column.before);
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(column.call(reserve2, 7), general_error);
    expect_traces({column.every_call, column.reserve2_start, column.changing, column.before_store});
}

} // namespace

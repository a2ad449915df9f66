// The scalar, the agent error record, the object table.
#include "frame.h"

#include "flash_inventory.h"

#include <cstring>
#include <set>
#include <unistd.h>

namespace {

using namespace frame;

// The scalar

TEST_F(FrameTest, GetOfTheScalarInstanceIsOne) {
    const fakes::Answer answer = fakes::get(1, {0});
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.integer(), 1);
    EXPECT_EQ(answer.length, 4U);
    EXPECT_EQ(answer.name, fakes::instance_of(1, {0}));
}

TEST_F(FrameTest, GetnextFromBeforeTheScalarYieldsItsInstanceWithTheUnsignedValueOne) {
    const fakes::Answer answer = fakes::ask(
        1, fakes::Oid(orvex_flash_mib_variables_oid, orvex_flash_mib_variables_oid + 9), false);
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.name, fakes::instance_of(1, {0}));
    EXPECT_EQ(answer.counter(), 1U);
    EXPECT_EQ(answer.length, 4U);
    EXPECT_EQ(fakes::object(1).type, 0x42);
}

TEST_F(FrameTest, GetnextFromTheScalarObjectYieldsItsInstance) {
    const fakes::Answer answer = fakes::getnext(1);
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.name, fakes::instance_of(1, {0}));
}

TEST_F(FrameTest, TheScalarClearsTheWriteMethod) {
    const fakes::Answer answer =
        fakes::ask(1, fakes::instance_of(1, {0}), true, {},
                   [](int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; });
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.write_method, nullptr);
}

TEST_F(FrameTest, TheScalarHasNoOtherInstance) {
    EXPECT_EQ(fakes::get(1).value, nullptr);
    EXPECT_EQ(fakes::get(1, {1}).value, nullptr);
    EXPECT_EQ(fakes::get(1, {0, 0}).value, nullptr);
    EXPECT_EQ(fakes::getnext(1, {0}).value, nullptr);
    EXPECT_EQ(fakes::calls(), Lines{});
}

TEST_F(FrameTest, TheScalarHandlerAnswersAnUnservedMagicWithAnEmptyDetail) {
    const fakes::Answer answer = fakes::ask(1, fakes::instance_of(1, {0}), true, u_char{2});
    EXPECT_EQ(answer.value, nullptr);
    EXPECT_EQ(fakes::calls(), (Lines{"snmp_set_detail text="}));
}

TEST_F(FrameTest, TheScalarHandlerMatchesBeforeItLooksAtTheMagic) {
    EXPECT_EQ(fakes::ask(1, fakes::instance_of(1, {1}), true, u_char{2}).value, nullptr);
    EXPECT_EQ(fakes::calls(), Lines{});
}

TEST_F(FrameTest, TheScalarsValueStaysValidAfterTheHandlerReturned) {
    const fakes::Answer first = fakes::get(1, {0});
    const fakes::Answer second = fakes::getnext(1);
    EXPECT_EQ(first.value, second.value);
    EXPECT_EQ(first.integer(), 1);
}

// The agent error record

TEST_F(FrameTest, AnErrorIsLoggedWithItsCodeAndItsFormattedText) {
    platform().error_formats[0x4049003C] = "Protocol is not supported";
    flash_log_snmp_error(0x4049003C);
    EXPECT_EQ(fakes::calls(), (Lines{"syserr_format code=0x4049003c",
                                     "log_snmp_error code=0x4049003c text=Protocol is not "
                                     "supported"}));
}

TEST_F(FrameTest, ANegativeErrorCodeIsLoggedAsItIs) {
    flash_log_snmp_error(-5);
    ASSERT_EQ(platform().errors.size(), 1U);
    EXPECT_EQ(platform().errors[0].code, -5);
}

TEST_F(FrameTest, LoggingAnErrorReturnsTheLoggersResult) {
    platform().log_snmp_error.returns(0).returns(-1).returns(17);
    EXPECT_EQ(flash_log_snmp_error(1), 0);
    EXPECT_EQ(flash_log_snmp_error(1), -1);
    EXPECT_EQ(flash_log_snmp_error(1), 17);
}

TEST_F(FrameTest, AnErrorTextLongerThan200CharactersIsCutAt200) {
    for (const size_t length : {size_t{0}, size_t{199}, size_t{200}, size_t{201}, size_t{1000}}) {
        fakes::forget();
        std::string text;
        for (size_t i = 0; i < length; ++i)
            text += static_cast<char>('a' + i % 26);
        platform().error_formats[1] = text;
        flash_log_snmp_error(1);
        ASSERT_EQ(platform().errors.size(), 1U);
        EXPECT_STREQ(platform().errors[0].text, text.substr(0, 200).c_str()) << length;
        EXPECT_EQ(platform().errors[0].text[200], '\0') << length;
    }
}

TEST_F(FrameTest, NothingButCodeAndTextOfTheErrorRecordIsFilled) {
    platform().error_formats[1] = std::string(200, 'x');
    platform().error_formats[2] = "short";
    flash_log_snmp_error(1);
    flash_log_snmp_error(2);
    ASSERT_EQ(platform().errors.size(), 2U);
    snmp_error_record expected{};
    expected.code = 1;
    std::fill_n(expected.text, 200, 'x');
    EXPECT_EQ(fakes::bytes_of(platform().errors[0]), fakes::bytes_of(expected));
    expected = {};
    expected.code = 2;
    std::strcpy(expected.text, "short");
    EXPECT_EQ(fakes::bytes_of(platform().errors[1]), fakes::bytes_of(expected));
}

TEST_F(FrameTest, AShorterErrorTextLeavesNothingOfALongerOneBefore) {
    platform().error_formats[1] = std::string(200, 'x');
    platform().error_formats[2] = "short";
    flash_log_snmp_error(1);
    flash_log_snmp_error(2);
    ASSERT_EQ(platform().errors.size(), 2U);
    EXPECT_STREQ(platform().errors[1].text, "short");
}

// The object table

using Handler = FindVarMethod *;

struct Object {
    int magic;
    std::vector<oid> suffix;
    int type;
    int access;
    Handler handler;
};

const std::vector<Object> &golden() {
    const Handler scalar = get_orvex_flash_mib;
    const Handler device = get_orvexFlashDeviceTable;
    const Handler partition = get_orvexFlashPartitionTable;
    const Handler file = get_orvexFlashFileTable;
    const Handler copy = get_orvexFlashCopyTable;
    const Handler misc = get_orvexFlashMiscOpTable;
    static const std::vector<Object> objects{
        {1, {1, 1, 1}, 0x42, 1, scalar},
        {5, {1, 1, 2, 1, 2}, 0x42, 1, device},
        {6, {1, 1, 2, 1, 3}, 0x42, 1, device},
        {7, {1, 1, 2, 1, 4}, 0x42, 1, device},
        {8, {1, 1, 2, 1, 5}, 0x42, 1, device},
        {9, {1, 1, 2, 1, 6}, 0x02, 1, device},
        {10, {1, 1, 2, 1, 7}, 0x04, 1, device},
        {11, {1, 1, 2, 1, 8}, 0x04, 1, device},
        {12, {1, 1, 2, 1, 9}, 0x04, 1, device},
        {13, {1, 1, 2, 1, 10}, 0x06, 1, device},
        {14, {1, 1, 2, 1, 11}, 0x02, 1, device},
        {15, {1, 1, 2, 1, 12}, 0x43, 1, device},
        {16, {1, 1, 2, 1, 13}, 0x02, 1, device},
        {17, {1, 1, 2, 1, 16}, 0x46, 1, device},
        {29, {1, 1, 4, 1, 1, 2}, 0x02, 1, partition},
        {30, {1, 1, 4, 1, 1, 3}, 0x02, 1, partition},
        {31, {1, 1, 4, 1, 1, 4}, 0x42, 1, partition},
        {32, {1, 1, 4, 1, 1, 5}, 0x42, 1, partition},
        {33, {1, 1, 4, 1, 1, 6}, 0x42, 1, partition},
        {34, {1, 1, 4, 1, 1, 7}, 0x02, 1, partition},
        {35, {1, 1, 4, 1, 1, 8}, 0x02, 1, partition},
        {36, {1, 1, 4, 1, 1, 9}, 0x02, 1, partition},
        {37, {1, 1, 4, 1, 1, 10}, 0x04, 1, partition},
        {38, {1, 1, 4, 1, 1, 11}, 0x02, 1, partition},
        {39, {1, 1, 4, 1, 1, 12}, 0x02, 1, partition},
        {40, {1, 1, 4, 1, 1, 13}, 0x46, 1, partition},
        {41, {1, 1, 4, 1, 1, 14}, 0x46, 1, partition},
        {43, {1, 1, 4, 2, 1, 1, 2}, 0x42, 1, file},
        {44, {1, 1, 4, 2, 1, 1, 3}, 0x04, 1, file},
        {45, {1, 1, 4, 2, 1, 1, 4}, 0x02, 1, file},
        {46, {1, 1, 4, 2, 1, 1, 5}, 0x04, 1, file},
        {47, {1, 1, 4, 2, 1, 1, 6}, 0x02, 1, file},
        {48, {1, 1, 4, 2, 1, 1, 7}, 0x04, 1, file},
        {50, {1, 2, 1, 1, 2}, 0x02, 2, copy},
        {51, {1, 2, 1, 1, 3}, 0x02, 2, copy},
        {52, {1, 2, 1, 1, 4}, 0x40, 2, copy},
        {53, {1, 2, 1, 1, 5}, 0x04, 2, copy},
        {54, {1, 2, 1, 1, 6}, 0x04, 2, copy},
        {55, {1, 2, 1, 1, 7}, 0x04, 2, copy},
        {56, {1, 2, 1, 1, 8}, 0x02, 1, copy},
        {57, {1, 2, 1, 1, 9}, 0x02, 2, copy},
        {58, {1, 2, 1, 1, 10}, 0x43, 1, copy},
        {59, {1, 2, 1, 1, 11}, 0x02, 2, copy},
        {60, {1, 2, 1, 1, 12}, 0x04, 2, copy},
        {74, {1, 2, 3, 1, 2}, 0x02, 2, misc},
        {75, {1, 2, 3, 1, 3}, 0x04, 2, misc},
        {76, {1, 2, 3, 1, 4}, 0x02, 1, misc},
        {77, {1, 2, 3, 1, 5}, 0x02, 2, misc},
        {78, {1, 2, 3, 1, 6}, 0x43, 1, misc},
        {79, {1, 2, 3, 1, 7}, 0x02, 2, misc},
    };
    return objects;
}

TEST(ObjectTable, HasFiftyRows) {
    EXPECT_EQ(std::size(orvex_flash_mib_variables), 50U);
    EXPECT_EQ(golden().size(), 50U);
}

class ObjectTableRow : public testing::TestWithParam<size_t> {};

TEST_P(ObjectTableRow, IsAsTheMibDefinesIt) {
    const Object &expected = golden()[GetParam()];
    const variable7 &row = orvex_flash_mib_variables[GetParam()];
    EXPECT_EQ(row.magic, expected.magic);
    EXPECT_EQ(row.type, expected.type);
    EXPECT_EQ(row.acl, expected.access);
    EXPECT_EQ(row.findVar, expected.handler);
    EXPECT_EQ(fakes::Oid(row.name, row.name + row.namelen), expected.suffix);
}

INSTANTIATE_TEST_SUITE_P(Objects, ObjectTableRow, testing::Range(size_t{0}, size_t{50}),
                         [](const auto &row) {
                             return "Magic" + std::to_string(golden()[row.param].magic);
                         });

TEST(ObjectTable, TheRootHasNineArcs) {
    EXPECT_EQ(
        fakes::oid_text(orvex_flash_mib_variables_oid, std::size(orvex_flash_mib_variables_oid)),
        root);
}

TEST(ObjectTable, RowsAreInAscendingOrderOfTheirSuffixes) {
    for (size_t i = 1; i < std::size(orvex_flash_mib_variables); ++i) {
        const variable7 &before = orvex_flash_mib_variables[i - 1];
        const variable7 &row = orvex_flash_mib_variables[i];
        EXPECT_LT(snmp_oid_compare(before.name, before.namelen, row.name, row.namelen), 0) << i;
    }
}

TEST(ObjectTable, NoTwoRowsHaveTheSameMagic) {
    std::set<int> magics;
    for (const variable7 &row : orvex_flash_mib_variables)
        EXPECT_TRUE(magics.insert(row.magic).second) << int{row.magic};
}

TEST(ObjectTable, NoRowNamesAnIndexColumn) {
    for (const variable7 &row : orvex_flash_mib_variables)
        if (row.magic != 1) {
            EXPECT_NE(row.name[row.namelen - 1], 1U) << int{row.magic};
        }
}

TEST(ObjectTable, DeviceColumns14And15AreNotRegistered) {
    const variable7 *after13 = nullptr;
    for (size_t i = 0; i + 1 < std::size(orvex_flash_mib_variables); ++i)
        if (orvex_flash_mib_variables[i].magic == 16)
            after13 = &orvex_flash_mib_variables[i + 1];
    ASSERT_NE(after13, nullptr);
    EXPECT_EQ(fakes::Oid(after13->name, after13->name + after13->namelen),
              (fakes::Oid{1, 1, 2, 1, 16}));
}

} // namespace

// The packets of TFTP, their options, and what errors become.
#include "tftp/options.h"
#include "tftp/outcome.h"
#include "tftp/packet.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace ruma::tftp;
using namespace std::string_literals;

TEST(TftpPacket, AServersPacketsAreTakenApart) {
    const struct {
        std::string datagram;
        Opcode opcode;
        uint16_t number;
        std::string payload;
    } packets[] = {
        {"\0\3\0\1"s, Opcode::data, 1, ""},
        {"\0\3\xff\xfe\0ab\0"s, Opcode::data, 65534, "\0ab\0"s},
        {"\0\4\1\0"s, Opcode::acknowledgement, 256, ""},
        {"\0\5\0\1no\0"s, Opcode::error, 1, "no"},
        {"\0\5\0\1no"s, Opcode::error, 1, "no"},
        {"\0\5\0\1no\0more"s, Opcode::error, 1, "no"},
        {"\0\5\xff\xff"s, Opcode::error, 65535, ""},
        {"\0\6"s, Opcode::option_acknowledgement, 0, ""},
        {"\0\6a\0b\0"s, Opcode::option_acknowledgement, 0, "a\0b\0"s},
    };
    for (const auto &[datagram, opcode, number, payload] : packets) {
        SCOPED_TRACE(testing::PrintToString(datagram));
        const auto packet = parse(datagram);
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->opcode, opcode);
        EXPECT_EQ(packet->number, number);
        EXPECT_EQ(packet->payload, payload);
    }
}

TEST(TftpPacket, WhatNoServerSendsIsNoPacket) {
    for (const std::string &datagram :
         {""s, "\0"s, "\3"s, "\0\3"s, "\0\3\0"s, "\0\4\0"s, "\0\5\0"s, "\0\0\0\1"s, "\0\7\0\1"s,
          "\1\3\0\1"s, "\0\1there\0octet\0"s, "\0\2there\0octet\0"s})
        EXPECT_FALSE(parse(datagram)) << testing::PrintToString(datagram);
}

// Everything that is cut off a packet leaves a packet or nothing, without a read beyond it.
TEST(TftpPacket, EveryBeginningOfAPacketIsRead) {
    for (const std::string &datagram : {"\0\3\0\1abc"s, "\0\5\0\1no\0"s, "\0\6blksize\0512\0"s}) {
        for (std::size_t size = 0; size <= datagram.size(); ++size) {
            const std::vector<char> cut(datagram.begin(),
                                        datagram.begin() + static_cast<std::ptrdiff_t>(size));
            const auto packet = parse({cut.data(), cut.size()});
            EXPECT_EQ(packet.has_value(), size >= (datagram[1] == '\6' ? 2U : 4U));
        }
    }
}

TEST(TftpPacket, OptionsArePairsOfTerminatedTexts) {
    const auto options = parse_options("a\0b\0\0\0"s);
    ASSERT_TRUE(options);
    ASSERT_EQ(options->size(), 2U);
    EXPECT_EQ((*options)[0].name, "a");
    EXPECT_EQ((*options)[0].value, "b");
    EXPECT_EQ((*options)[1].name + (*options)[1].value, "");
    EXPECT_TRUE(parse_options("")->empty());
    for (const std::string &text : {"a"s, "a\0"s, "a\0b"s, "a\0b\0c\0"s, "\0"s})
        EXPECT_FALSE(parse_options(text)) << testing::PrintToString(text);
}

TEST(TftpPacket, PacketsAreComposed) {
    EXPECT_EQ(request(Opcode::read_request, "a b", {}), "\0\1a b\0octet\0"s);
    EXPECT_EQ(request(Opcode::write_request, "n", {{"x", "1"}, {"y", ""}}),
              "\0\2n\0octet\0x\0001\0y\0\0"s);
    EXPECT_EQ(acknowledgement(0x1234), "\0\4\x12\x34"s);
    EXPECT_EQ(error(ErrorCode::unknown_port, "text"), "\0\5\0\5text\0"s);
    char header[header_size];
    write_header(header, Opcode::data, 0xff00);
    EXPECT_EQ(std::string(header, sizeof header), "\0\3\xff\0"s);
}

TEST(TftpOptions, AnAnswerWithinTheOfferIsAgreed) {
    const Offer offer{.block_size = 1000, .timeout = 7, .size = 0};
    const auto agreement =
        agree(offer, "TimeOut\0007\0blksize\000999\0tsize\0009223372036854775807\0"s);
    ASSERT_TRUE(agreement);
    EXPECT_EQ(agreement->block_size, 999U);
    EXPECT_EQ(agreement->timeout, 7U);
    EXPECT_EQ(agreement->size, 9223372036854775807U);
}

TEST(TftpOptions, WhatIsNotAnsweredStaysAsItIsWithoutOptions) {
    const auto agreement = agree({}, "");
    ASSERT_TRUE(agreement);
    EXPECT_EQ(agreement->block_size, 512U);
    EXPECT_FALSE(agreement->timeout);
    EXPECT_FALSE(agreement->size);
}

TEST(TftpOptions, AnAnswerBeyondTheOfferIsNotAgreed) {
    const Offer offer{.block_size = 1000, .timeout = 7, .size = 0};
    for (const std::string &answer :
         {"blksize\0001001\0"s, "blksize\0007\0"s, "timeout\0006\0"s, "other\0001\0"s,
          "tsize\0-1\0"s, "tsize\0+1\0"s, "tsize\00099999999999999999999\0"s, "blksize\0999"s,
          "blksize\000999\0blksize\000999\0"s})
        EXPECT_FALSE(agree(offer, answer)) << testing::PrintToString(answer);
}

TEST(TftpOutcome, EveryErrnoIsToldToTheServerByACode) {
    EXPECT_EQ(told_to_server(ENOSPC), ErrorCode::disk_full);
    EXPECT_EQ(told_to_server(EDQUOT), ErrorCode::disk_full);
    EXPECT_EQ(told_to_server(EFBIG), ErrorCode::disk_full);
    EXPECT_EQ(told_to_server(EACCES), ErrorCode::no_access);
    EXPECT_EQ(told_to_server(EIO), ErrorCode::undefined);
}

TEST(TftpOutcome, EveryCodeOfAServerIsAResultBelowMinus100WithAText) {
    for (unsigned code = 0; code <= 0xffff; ++code) {
        const Outcome outcome = failed_there(static_cast<uint16_t>(code), "");
        ASSERT_LT(outcome.result, -100) << code;
        ASSERT_EQ(outcome.text, sentence(outcome.result)) << code;
    }
}

} // namespace

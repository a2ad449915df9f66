// cmi_req_resp: what it takes for an answer.
#include "fake_daemon.h"

#include "cmi/cmi_wire.h"
#include "ruma/cmi.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace cmi;

TEST(Cmi, TheRequestTravelsWholeAndTheAnswerComesBack) {
    FakeDaemon daemon(good);
    const Answer answer = ask();
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.record, std::string(size, 'r'));
    ASSERT_EQ(daemon.seen().size(), 1U);
    const Seen seen = daemon.seen().front();
    EXPECT_EQ(seen.header.magic, ruma::cmi_request_magic);
    EXPECT_EQ(seen.header.opcode, opcode);
    EXPECT_EQ(seen.header.message_type, uint32_t{CMI_NEXT});
    EXPECT_EQ(seen.header.length, size);
    EXPECT_EQ(seen.payload, std::string(size, 'q'));
}

TEST(Cmi, OneConnectionServesManyCallsEachWithItsOwnTag) {
    FakeDaemon daemon(good);
    for (int call = 0; call < 20; ++call) {
        EXPECT_EQ(ask().result, 0);
    }
    EXPECT_EQ(daemon.connections(), 1U);
    const std::vector<Seen> seen = daemon.seen();
    EXPECT_NE(seen[0].header.tag, seen[1].header.tag);
}

TEST(Cmi, WithoutADaemonACallFailsAtOnce) {
    unlink((RunDirectory::path + "/" + ruma::fs_daemon_socket).c_str());
    const Answer answer = ask();
    EXPECT_NE(answer.result, 0);
    EXPECT_TRUE(answer.response_null);
    EXPECT_LT(answer.took, at_once);
}

TEST(Cmi, AReportedFailureFailsTheCallAndKeepsTheConnection) {
    FakeDaemon daemon([](const Seen &seen) -> std::vector<std::string> {
        CmiHeader header = good_header(seen);
        header.result = ruma::cmi_no_such_record;
        header.length = 0;
        return {packet(header, "")};
    });
    for (int call = 0; call < 3; ++call) {
        const Answer answer = ask();
        EXPECT_NE(answer.result, 0);
        EXPECT_TRUE(answer.response_null);
        EXPECT_LT(answer.took, at_once);
    }
    daemon.follow(good);
    EXPECT_EQ(ask().result, 0);
    EXPECT_EQ(daemon.connections(), 1U);
}

struct BadAnswer {
    const char *name;
    std::string (*make)(const Seen &);
};

class CmiBadAnswer : public testing::TestWithParam<BadAnswer> {};

TEST_P(CmiBadAnswer, IsDroppedAndTheNextGoodOneIsTaken) {
    FakeDaemon daemon(
        [](const Seen &seen) -> std::vector<std::string> { return {GetParam().make(seen)}; });
    for (int call = 0; call < 2; ++call) {
        const Answer answer = ask();
        EXPECT_NE(answer.result, 0);
        EXPECT_TRUE(answer.response_null);
        EXPECT_LT(answer.took, at_once);
    }
    daemon.follow(good);
    EXPECT_EQ(ask().record, std::string(size, 'r'));
}

std::string with(const Seen &seen, const std::function<void(CmiHeader &)> &change) {
    CmiHeader header = good_header(seen);
    change(header);
    return packet(header, std::string(size, 'r'));
}

INSTANTIATE_TEST_SUITE_P(
    , CmiBadAnswer,
    testing::Values(
        BadAnswer{"Short",
                  [](const Seen &seen) {
                      CmiHeader header = good_header(seen);
                      header.length = size - 1;
                      return packet(header, std::string(size - 1, 'r'));
                  }},
        BadAnswer{"Long",
                  [](const Seen &seen) {
                      CmiHeader header = good_header(seen);
                      header.length = size + 1;
                      return packet(header, std::string(size + 1, 'r'));
                  }},
        BadAnswer{"MuchLonger",
                  [](const Seen &seen) {
                      CmiHeader header = good_header(seen);
                      header.length = 60000;
                      return packet(header, std::string(60000, 'r'));
                  }},
        BadAnswer{"CutShort",
                  [](const Seen &seen) { return packet(good_header(seen), std::string(10, 'r')); }},
        BadAnswer{"WithoutRecord", [](const Seen &seen) { return packet(good_header(seen), ""); }},
        BadAnswer{"LessThanAHeader", [](const Seen &) { return std::string(7, 'r'); }},
        BadAnswer{"WrongLengthField",
                  [](const Seen &seen) {
                      return with(seen, [](CmiHeader &header) { header.length = UINT32_MAX; });
                  }},
        BadAnswer{"WrongOpcode",
                  [](const Seen &seen) {
                      return with(seen, [](CmiHeader &header) { ++header.opcode; });
                  }},
        BadAnswer{
            "WrongTag",
            [](const Seen &seen) { return with(seen, [](CmiHeader &header) { --header.tag; }); }},
        BadAnswer{"WrongMessageType",
                  [](const Seen &seen) {
                      return with(seen, [](CmiHeader &header) { header.message_type = CMI_EXACT; });
                  }},
        BadAnswer{
            "WrongMagic",
            [](const Seen &seen) { return with(seen, [](CmiHeader &header) { ++header.magic; }); }},
        BadAnswer{"FailureWithARecord",
                  [](const Seen &seen) {
                      return with(seen, [](CmiHeader &header) { header.result = 5; });
                  }},
        BadAnswer{"AnEcho", [](const Seen &seen) { return packet(seen.header, seen.payload); }}),
    [](const auto &instance) { return instance.param.name; });

TEST(Cmi, ASecondAnswerToOneRequestIsNotTakenForTheNext) {
    FakeDaemon daemon([](const Seen &seen) -> std::vector<std::string> {
        return {packet(good_header(seen), std::string(size, '1')),
                packet(good_header(seen), std::string(size, '2'))};
    });
    EXPECT_EQ(ask().record, std::string(size, '1'));
    for (int call = 0; call < 20; ++call) {
        EXPECT_NE(ask().record, std::string(size, '2'));
    }
}

TEST(Cmi, AnUnaskedAnswerIsNotTaken) {
    FakeDaemon daemon(good);
    EXPECT_EQ(ask().result, 0);
    CmiHeader guess{};
    guess.magic = ruma::cmi_response_magic;
    guess.tag = daemon.seen().back().header.tag + 1;
    guess.opcode = opcode;
    guess.message_type = CMI_NEXT;
    guess.length = size;
    daemon.say(packet(guess, std::string(size, 'x')));
    EXPECT_EQ(ask().record, std::string(size, 'r'));
}

} // namespace

// The TFTP client's requests, what it agrees on with a server, and whom it hears.
#include "tftp_played.h"

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace tftp_test;

// --- Requests

TEST_F(TftpPlayed, AGetAsksForBlockSizeTimeAndSize) {
    ASSERT_EQ(tftp_timeout_set(20), 0);
    EXPECT_EQ(get_from([](Played &server) {
                  EXPECT_EQ(server.request(), read_request({"there", "octet", "blksize", "1468",
                                                            "timeout", "2", "tsize", "0"}));
                  EXPECT_EQ(server.exchange(data(1, 3)), ack(1));
              }),
              0);
}

TEST_F(TftpPlayed, APutAnnouncesItsSize) {
    ASSERT_EQ(tftp_timeout_set(20), 0);
    EXPECT_EQ(put_to([](Played &server) {
                  EXPECT_EQ(server.request(), write_request({"sent", "octet", "blksize", "1468",
                                                             "timeout", "2", "tsize", "1000"}));
                  EXPECT_EQ(server.exchange(oack({"blksize", "1468", "tsize", "1000"})),
                            data(1, content(1000)));
                  server.send(ack(1));
              }),
              0);
}

TEST_F(TftpPlayed, ANameThatLeavesNoRoomForOptionsIsAskedForWithoutThem) {
    const std::string name(503, 'r');
    EXPECT_EQ(during([&] { return tftp_get2(name.c_str(), "here", 0); },
                     [&](Played &server) {
                         const Bytes request = server.request();
                         EXPECT_EQ(request.size(), 512U);
                         EXPECT_EQ(request, read_request({name, "octet"}));
                         EXPECT_EQ(server.exchange(data(1, 3)), ack(1));
                     }),
              0);
}

TEST_F(TftpPlayed, AnotherPortThanTheProtocolsOwnIsUsed) {
    Socket other(own_address());
    ASSERT_EQ(tftp_connect(own_address().c_str(), other.port()), 0);
    EXPECT_EQ(get_from([&](Played &) {
                  EXPECT_FALSE(other.receive().empty());
                  other.send(data(1, 3), other.sender());
              }),
              0);
}

// --- Options

TEST_F(TftpPlayed, AServerWithoutOptionsSendsBlocksOf512) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  EXPECT_EQ(server.exchange(data(2, 0U)), ack(2));
              }),
              0);
    EXPECT_EQ(read_file(local / "here"), Bytes(512, 'd'));
}

TEST_F(TftpPlayed, AServerWithoutOptionsIsSentBlocksOf512) {
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(ack(0)), data(1, content(1000).substr(0, 512)));
                  EXPECT_EQ(server.exchange(ack(1)), data(2, content(1000).substr(512)));
                  server.send(ack(2));
              }),
              0);
}

TEST_F(TftpPlayed, AnySubsetOfTheOptionsMayBeAgreed) {
    const std::vector<std::pair<std::vector<Bytes>, std::size_t>> answers = {
        {{"blksize", "1468", "timeout", "1", "tsize", "600"}, 1468},
        {{"blksize", "1468"}, 1468},
        {{"blksize", "8"}, 8},
        {{"BlkSize", "1000", "TSIZE", "600"}, 1000},
        {{"tsize", "600"}, 512},
        {{"timeout", "1"}, 512},
        {{}, 512},
    };
    const Bytes text = content(600);
    for (const auto &each : answers) {
        const auto &answer = each.first;
        const std::size_t block_size = each.second;
        SCOPED_TRACE(oack(answer));
        EXPECT_EQ(get_from([&](Played &server) {
                      server.request();
                      EXPECT_EQ(server.exchange(oack(answer)), ack(0));
                      uint16_t block = 0;
                      for (std::size_t at = 0; at <= text.size(); at += block_size) {
                          ++block;
                          EXPECT_EQ(server.exchange(data(block, text.substr(at, block_size))),
                                    ack(block));
                      }
                  }),
                  0);
        EXPECT_EQ(read_file(local / "here"), text);
    }
}

TEST_F(TftpPlayed, AnOptionNotAskedForOrAskedForOtherwiseIsRefused) {
    const Bytes answers[] = {
        oack({"windowsize", "4"}),
        oack({"blksize", "1468", "multicast", ""}),
        oack({"blksize", "1469"}),
        oack({"blksize", "7"}),
        oack({"blksize", "-8"}),
        oack({"blksize", "512 "}),
        oack({"blksize", ""}),
        oack({"blksize", "18446744073709552128"}), // 512 and 2^64
        oack({"blksize", "512", "blksize", "512"}),
        oack({"timeout", "2"}),
        oack({"tsize", "0x10"}),
        oack({"tsize", "9223372036854775808"}),
        oack({"blksize"}),
        oack({"blksize", "512"}) + "tsize",
        oack({}) + "blksize",
    };
    for (const Bytes &answer : answers) {
        SCOPED_TRACE(testing::PrintToString(answer));
        EXPECT_EQ(get_from([&](Played &server) {
                      server.request();
                      EXPECT_THAT(server.exchange(answer), IsError(8));
                  }),
                  -EPROTO);
        EXPECT_EQ(put_to([&](Played &server) {
                      server.request();
                      EXPECT_THAT(server.exchange(answer), IsError(8));
                  }),
                  -EPROTO);
    }
    EXPECT_THAT(local_files(), testing::ElementsAre("sent"));
}

TEST_F(TftpPlayed, WhatAServerSaysOfTheSizeOfAPutChangesNothing) {
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(oack({"blksize", "1468", "tsize", "0"})),
                            data(1, content(1000)));
                  server.send(ack(1));
              }),
              0);
}

class TftpOptionErrors : public TftpPlayed, public testing::WithParamInterface<unsigned> {};

TEST_P(TftpOptionErrors, AreFollowedByARequestWithoutOptions) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  server.send(error(GetParam()));
                  EXPECT_EQ(server.request(), read_request({"there", "octet"}));
                  EXPECT_EQ(server.exchange(data(1, 3)), ack(1));
              }),
              0);
    EXPECT_EQ(read_file(local / "here"), "ddd");
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  server.send(error(GetParam()));
                  EXPECT_EQ(server.request(), write_request({"sent", "octet"}));
                  EXPECT_EQ(server.exchange(ack(0)), data(1, content(1000).substr(0, 512)));
                  EXPECT_EQ(server.exchange(ack(1)), data(2, content(1000).substr(512)));
                  server.send(ack(2));
              }),
              0);
}

INSTANTIATE_TEST_SUITE_P(Code, TftpOptionErrors, testing::Values(0, 4, 8),
                         testing::PrintToStringParamName());

TEST_F(TftpPlayed, TheErrorThatAnswersTheSecondRequestIsTheResult) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  server.send(error(8));
                  server.request();
                  server.send(error(1));
              }),
              -(100 + ENOENT));
}

TEST_F(TftpPlayed, AServerThatRefusesTheRequestWithoutOptionsTooIsNotAskedAgain) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  server.send(error(8));
                  server.request();
                  server.send(error(8));
              }),
              -(100 + EPROTO));
    EXPECT_EQ(played.request_socket().receive(milliseconds(0)), "");
}

TEST_F(TftpPlayed, OptionsThatAnswerARequestWithoutAnyAreRefused) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  server.send(error(8));
                  server.request();
                  EXPECT_THAT(server.exchange(oack({"blksize", "512"})), IsError(8));
              }),
              -EPROTO);
}

TEST_F(TftpPlayed, AnErrorAfterTheOptionsWereAgreedEndsTheTransfer) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(oack({"blksize", "512"})), ack(0));
                  server.send(error(8));
              }),
              -(100 + EPROTO));
    EXPECT_EQ(played.request_socket().receive(milliseconds(0)), "");
}

// --- Errors of the server

TEST_F(TftpPlayed, ErrorsOfTheServerAreToldApart) {
    const std::pair<unsigned, int> errors[] = {{1, ENOENT}, {2, EACCES},    {3, ENOSPC},
                                               {5, EPROTO}, {6, EEXIST},    {7, EPERM},
                                               {9, EPROTO}, {65535, EPROTO}};
    for (const auto &[code, expected] : errors) {
        SCOPED_TRACE(code);
        EXPECT_EQ(get_from([&, sent = code](Played &server) {
                      server.request();
                      server.send(error(sent));
                  }),
                  -(100 + expected));
        EXPECT_EQ(played.request_socket().receive(milliseconds(0)), "") << "asked again";
    }
}

TEST_F(TftpPlayed, ErrorsInMidTransferAreToldApart) {
    const std::pair<unsigned, int> errors[] = {{0, EPROTO}, {1, ENOENT}, {3, ENOSPC}, {4, EPROTO}};
    for (const auto &[code, expected] : errors) {
        SCOPED_TRACE(code);
        EXPECT_EQ(put_to([&, sent = code](Played &server) {
                      server.request();
                      server.exchange(ack(0));
                      server.send(error(sent));
                  }),
                  -(100 + expected));
    }
}

TEST_F(TftpPlayed, TheServersTextIsKeptPrintableAndCut) {
    get_from([](Played &server) {
        server.request();
        server.send(error(1, "no \x1b[2J" + Bytes(300, 'x')));
    });
    EXPECT_STREQ(tftp_strerror(-(100 + ENOENT)),
                 ("The server has no such file: no \\x1b[2J" + Bytes(57, 'x')).c_str());
    EXPECT_STREQ(tftp_strerror(-(100 + EACCES)), "The server refuses access");
}

TEST_F(TftpPlayed, AnErrorWithoutATerminatorIsOne) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  server.send(Bytes("\0\5\0\1gone", 8));
              }),
              -(100 + ENOENT));
    EXPECT_STREQ(tftp_strerror(-(100 + ENOENT)), "The server has no such file: gone");
}

// --- One peer

TEST_F(TftpPlayed, DataFromAnotherPortIsAnsweredWithError5AndNotReceived) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  Socket foreign(own_address());
                  foreign.send(data(2, "foreign"), server.client);
                  EXPECT_THAT(foreign.receive(), IsError(5));
                  EXPECT_EQ(server.exchange(data(2, "own")), ack(2));
              }),
              0);
    EXPECT_EQ(read_file(local / "here"), Bytes(512, 'd') + "own");
}

TEST_F(TftpPlayed, AnotherAddressIsNotHeardEvenBeforeTheServerAnswers) {
    Socket foreign(own_address(1));
    EXPECT_EQ(get_from([&](Played &server) {
                  server.request();
                  foreign.send(data(1, "foreign"), server.client);
                  foreign.send(error(1), server.client);
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  foreign.send(data(2, "foreign"), server.client);
                  EXPECT_EQ(server.exchange(data(2, "own")), ack(2));
              }),
              0);
    EXPECT_EQ(read_file(local / "here"), Bytes(512, 'd') + "own");
    EXPECT_EQ(foreign.receive(milliseconds(0)), "") << "a stranger was answered";
}

TEST_F(TftpPlayed, AnAcknowledgementFromElsewhereDoesNotCount) {
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  EXPECT_EQ(block_of(server.exchange(ack(0))), 1);
                  Socket port(own_address());
                  Socket address(own_address(1));
                  address.send(ack(1), server.client);
                  port.send(ack(1), server.client);
                  EXPECT_THAT(port.receive(), IsError(5));
                  EXPECT_EQ(server.waiting(), 0) << "went on";
                  EXPECT_EQ(block_of(server.exchange(ack(1))), 2);
                  server.send(ack(2));
              }),
              0);
}

TEST_F(TftpPlayed, SprayedErrorsDoNotCutATransferAndAreNotAnswered) {
    Socket port(own_address());
    Socket address(own_address(1));
    EXPECT_EQ(get_from([&](Played &server) {
                  server.request();
                  for (uint16_t block = 1; block <= 20; ++block) {
                      server.exchange(data(block, block < 20 ? 512 : 1));
                      for (unsigned code = 0; code <= 8; ++code) {
                          port.send(error(code), server.client);
                          address.send(error(code), server.client);
                      }
                  }
              }),
              0);
    EXPECT_EQ(fs::file_size(local / "here"), 19 * 512 + 1U);
    EXPECT_EQ(port.receive(milliseconds(0)), "");
    EXPECT_EQ(address.receive(milliseconds(0)), "");
}

TEST_F(TftpPlayed, WhatAnswersNoRequestDoesNotChooseThePort) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  for (const Bytes &packet : {data(2, 3), data(0, 3), ack(0), ack(1)}) {
                      Socket other(own_address());
                      other.send(packet, server.client);
                      EXPECT_THAT(other.receive(), IsError(5));
                  }
                  EXPECT_EQ(server.exchange(data(1, "own")), ack(1));
              }),
              0);
    EXPECT_EQ(read_file(local / "here"), "own");
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  for (const Bytes &packet : {data(1, 3), ack(1)}) {
                      Socket other(own_address());
                      other.send(packet, server.client);
                      EXPECT_THAT(other.receive(), IsError(5));
                  }
                  server.exchange(ack(0));
                  server.exchange(ack(1));
                  server.send(ack(2));
              }),
              0);
}

TEST_F(TftpPlayed, OfTwoAnswersToARepeatedRequestOneIsTakenAndTheOtherEnded) {
    ruma::tftp::limits().retransmission = milliseconds(50);
    EXPECT_EQ(get_from([](Played &server) {
                  const Bytes request = server.request();
                  EXPECT_EQ(server.request(), request);
                  EXPECT_EQ(server.exchange(oack({"blksize", "512"})), ack(0));
                  Socket second(own_address());
                  second.send(oack({"blksize", "512"}), server.client);
                  EXPECT_THAT(second.receive(), IsError(5));
                  EXPECT_EQ(server.exchange(data(1, 3)), ack(1));
              }),
              0);
}

TEST_F(TftpPlayed, MalformedPacketsAreIgnored) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  const std::vector<Bytes> all = {"",
                                                  "x",
                                                  Bytes("\0\3", 2),
                                                  Bytes("\0\3\0", 3),
                                                  Bytes("\0\0\0\2abc", 7),
                                                  Bytes("\0\7\0\2abc", 7),
                                                  Bytes("\3\0\0\2abc", 7),
                                                  Bytes("\0\5\0", 3),
                                                  read_request({"there", "octet"})};
                  for (const Bytes &packet : all)
                      server.send(packet);
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  for (const Bytes &packet : all)
                      server.send(packet);
                  EXPECT_EQ(server.exchange(data(2, 3)), ack(2));
                  EXPECT_EQ(server.waiting(), 0);
              }),
              0);
    EXPECT_EQ(fs::file_size(local / "here"), 515U);
}

// --- A port that is closed

TEST_F(TftpPlayed, AClosedPortEndsTheTransferAtOnce) {
    played.request_socket().close();
    EXPECT_LT(seconds_of([&] { EXPECT_EQ(get(), -EIO); }), 1.0);
    EXPECT_STREQ(tftp_strerror(-EIO), "The server's port is closed");
    EXPECT_THAT(local_files(), testing::ElementsAre("sent"));
}

TEST_F(TftpPlayed, AServerThatEndsInMidTransferEndsTheTransferWithTheNextPacket) {
    ruma::tftp::limits().retransmission = milliseconds(50);
    EXPECT_LT(seconds_of([&] {
                  EXPECT_EQ(get_from([](Played &server) {
                                server.request();
                                server.send(data(1, 512));
                                server.transfer.close();
                            }),
                            -EIO);
              }),
              2.0);
}

TEST_F(TftpPlayed, AStrangersClosedPortEndsNothing) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  for (int i = 0; i < 5; ++i)
                      Socket(own_address()).send(data(2, "foreign"), server.client);
                  EXPECT_EQ(server.exchange(data(2, 3)), ack(2));
              }),
              0);
}

} // namespace

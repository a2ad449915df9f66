// The TFTP client against a server that the test plays, packet by packet, and against strangers.
#include "failing_fsync.h"
#include "tftp_fixture.h"

#include "tftp/packet.h"
#include "unique_fd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace tftp_test;
using ruma::tftp::ErrorCode;
using ruma::tftp::Opcode;
using testing::IsEmpty;

using Bytes = std::string;

// --- Packets

Bytes data(uint16_t block, const Bytes &text) {
    Bytes packet(ruma::tftp::header_size, '\0');
    ruma::tftp::write_header(packet.data(), Opcode::data, block);
    return packet + text;
}
Bytes data(uint16_t block, std::size_t size) { return data(block, Bytes(size, 'd')); }
Bytes ack(uint16_t block) { return ruma::tftp::acknowledgement(block); }
Bytes error(unsigned code, const Bytes &text = "no") {
    return ruma::tftp::error(static_cast<ErrorCode>(code), text);
}

// Texts, each with its terminator.
Bytes texts(const std::vector<Bytes> &all) {
    Bytes bytes;
    for (const Bytes &text : all)
        bytes += text + '\0';
    return bytes;
}
Bytes oack(const std::vector<Bytes> &options) { return Bytes("\0\6", 2) + texts(options); }
Bytes read_request(const std::vector<Bytes> &words) { return Bytes("\0\1", 2) + texts(words); }
Bytes write_request(const std::vector<Bytes> &words) { return Bytes("\0\2", 2) + texts(words); }

MATCHER_P(IsError, code, "an ERROR of code " + std::to_string(code)) {
    const auto packet = ruma::tftp::parse(arg);
    return packet && packet->opcode == Opcode::error && packet->number == code;
}

uint16_t block_of(const Bytes &packet) {
    return packet.size() < 4 ? 0 : ruma::tftp::parse(packet)->number;
}

// --- Sockets

class Socket {
  public:
    explicit Socket(const std::string &address, uint16_t port = 0)
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in wanted = socket_address(address, port);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr *>(&wanted), sizeof wanted),
                  0);
    }

    // The next datagram, or nothing when none comes in time.
    Bytes receive(milliseconds time = milliseconds(5000)) {
        pollfd wait{socket_.get(), POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(time.count())) != 1)
            return {};
        char buffer[4096];
        socklen_t size = sizeof sender_;
        const ssize_t length = recvfrom(socket_.get(), buffer, sizeof buffer, 0,
                                        reinterpret_cast<sockaddr *>(&sender_), &size);
        return length < 0 ? Bytes() : Bytes(buffer, static_cast<std::size_t>(length));
    }

    void send(const Bytes &packet, const sockaddr_in &to) const {
        sendto(socket_.get(), packet.data(), packet.size(), 0,
               reinterpret_cast<const sockaddr *>(&to), sizeof to);
    }

    const sockaddr_in &sender() const { return sender_; }

    uint16_t port() const {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&address), &size);
        return ntohs(address.sin_port);
    }

    void close() { static_cast<void>(socket_.close()); }

  private:
    ruma::UniqueFd socket_;
    sockaddr_in sender_{};
};

// A server on the address that the client was told: requests come to one port, transfers run over
// another.
class Played {
  public:
    // Takes the next request; what follows goes to and comes from its sender.
    Bytes request() {
        Bytes packet = requests_.receive();
        EXPECT_FALSE(packet.empty()) << "no request";
        client = requests_.sender();
        return packet;
    }

    void send(const Bytes &packet) const { transfer.send(packet, client); }

    Bytes receive(milliseconds time = milliseconds(5000)) { return transfer.receive(time); }

    Bytes exchange(const Bytes &packet) {
        send(packet);
        return receive();
    }

    // How many packets of the client wait to be received.
    int waiting() {
        int count = 0;
        while (!receive(milliseconds(0)).empty())
            ++count;
        return count;
    }

    Socket &request_socket() { return requests_; }

    sockaddr_in client{};
    Socket transfer{own_address()};

  private:
    Socket requests_{own_address(), 69};
};

class TftpPlayed : public Tftp {
  protected:
    void SetUp() override {
        Tftp::SetUp();
        // Much shorter than in life, but for the retransmission, which disturbs no test that is
        // about something else.
        ruma::tftp::limits() = {.silence = milliseconds(3000),
                                .total = milliseconds(20000),
                                .retransmission = milliseconds(2000)};
        write_file(local / "sent", content(1000));
    }

    // Runs a transfer while the server plays its part, and waits for both.
    template <typename Transfer, typename Part>
    int during(const Transfer &transfer, const Part &part) {
        std::thread thread([&] { part(played); });
        const int result = transfer();
        thread.join();
        return result;
    }
    template <typename Part>
    int get_from(const Part &part) {
        return during([this] { return get(); }, part);
    }
    template <typename Part>
    int put_to(const Part &part) {
        return during([] { return tftp_put("sent", 0); }, part);
    }

    Played played;
};

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

TEST_F(TftpPlayed, AServerThatEndsInMidTransferEndsTheTransferAtOnce) {
    EXPECT_LT(seconds_of([&] {
                  EXPECT_EQ(get_from([](Played &server) {
                                server.request();
                                server.send(data(1, 512));
                                server.transfer.close();
                            }),
                            -EIO);
              }),
              1.0);
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

// --- Loss, doubling and delay

TEST_F(TftpPlayed, ALostPacketIsSentAgainAtGrowingDistances) {
    ruma::tftp::limits().retransmission = milliseconds(100);
    std::vector<Clock::time_point> times;
    EXPECT_EQ(get_from([&](Played &server) {
                  server.request();
                  const Bytes first = server.exchange(data(1, 512));
                  for (int i = 0; i < 4; ++i) {
                      times.push_back(Clock::now());
                      EXPECT_EQ(server.receive(), first);
                  }
                  times.push_back(Clock::now());
                  EXPECT_EQ(server.exchange(data(2, 3)), ack(2));
              }),
              0);
    const std::vector<milliseconds> least = {milliseconds(100), milliseconds(200),
                                             milliseconds(400), milliseconds(400)};
    ASSERT_EQ(times.size(), least.size() + 1);
    // This side may have looked late at one and so seen the next sooner, by a fraction.
    for (std::size_t i = 0; i < least.size(); ++i)
        EXPECT_GE(times[i + 1] - times[i], least[i] * 3 / 4) << i;
}

TEST_F(TftpPlayed, ALostBlockOfAPutIsSentAgain) {
    ruma::tftp::limits().retransmission = milliseconds(50);
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  const Bytes first = server.exchange(ack(0));
                  EXPECT_EQ(server.receive(), first);
                  EXPECT_EQ(block_of(server.exchange(ack(1))), 2);
                  server.send(ack(2));
              }),
              0);
}

TEST_F(TftpPlayed, ADoubledBlockIsAcknowledgedOnce) {
    ruma::tftp::limits().retransmission = milliseconds(1000);
    int packets = 0;
    EXPECT_EQ(get_from([&](Played &server) {
                  server.request();
                  server.send(oack({"blksize", "512"}));
                  server.send(oack({"blksize", "512"}));
                  for (uint16_t block = 1; block <= 20; ++block) {
                      EXPECT_EQ(server.receive(), ack(static_cast<uint16_t>(block - 1)));
                      server.send(data(block, block < 20 ? 512 : 0U));
                      server.send(data(block, block < 20 ? 512 : 0U));
                  }
                  EXPECT_EQ(server.receive(), ack(20));
                  packets = server.waiting();
              }),
              0);
    EXPECT_EQ(packets, 0);
    EXPECT_EQ(fs::file_size(local / "here"), 19 * 512U);
}

TEST_F(TftpPlayed, ABlockBeforeTheLastOneIsNeverAcknowledgedAgain) {
    ruma::tftp::limits().retransmission = milliseconds(1);
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  server.send(data(1, 512));
                  while (server.receive() != ack(1)) {
                  }
                  server.send(data(2, 512));
                  while (server.receive() != ack(2)) {
                  }
                  for (int i = 0; i < 20; ++i) {
                      server.send(data(1, 512));
                      EXPECT_EQ(server.receive(), ack(2));
                  }
                  server.send(data(3, 0U));
              }),
              0);
}

TEST_F(TftpPlayed, TheLastBlockIsAcknowledgedAgainOnceARetransmissionIsDue) {
    ruma::tftp::limits().retransmission = milliseconds(250);
    ruma::tftp::limits().silence = milliseconds(10000);
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  // Repeated after 250, 500 and then 1000 ms.
                  EXPECT_EQ(server.receive(), ack(1));
                  EXPECT_EQ(server.receive(), ack(1));
                  EXPECT_EQ(server.receive(milliseconds(260)), "");
                  const auto began = Clock::now();
                  server.send(data(1, 512));
                  EXPECT_EQ(server.receive(), ack(1));
                  EXPECT_LT(Clock::now() - began, milliseconds(600));
                  EXPECT_EQ(server.exchange(data(2, 0U)), ack(2));
              }),
              0);
}

TEST_F(TftpPlayed, ABlockThatCameTooEarlyIsNotTaken) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  server.send(data(3, "late"));
                  EXPECT_EQ(server.exchange(data(2, 512)), ack(2));
                  EXPECT_EQ(server.exchange(data(3, "last")), ack(3));
              }),
              0);
    EXPECT_EQ(read_file(local / "here"), Bytes(1024, 'd') + "last");
}

TEST_F(TftpPlayed, ADoubledAcknowledgementBringsNoBlockTwice) {
    write_file(local / "sent", content(20 * std::size_t{512}));
    int packets = 0;
    EXPECT_EQ(put_to([&](Played &server) {
                  server.request();
                  server.send(ack(0));
                  for (uint16_t block = 1; block <= 21; ++block) {
                      EXPECT_EQ(block_of(server.receive()), block);
                      if (block == 21)
                          packets = server.waiting();
                      server.send(ack(static_cast<uint16_t>(block - 1)));
                      server.send(ack(block));
                      server.send(ack(block));
                  }
                  EXPECT_EQ(server.waiting(), 0);
              }),
              0);
    EXPECT_EQ(packets, 0);
}

TEST_F(TftpPlayed, BlockNumbersRollOverInAGet) {
    const Bytes text = content(8 * 65540 + 3);
    EXPECT_EQ(get_from([&](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(oack({"blksize", "8"})), ack(0));
                  for (std::size_t number = 1; number <= 65541; ++number) {
                      const auto block = static_cast<uint16_t>(number);
                      ASSERT_EQ(server.exchange(data(block, text.substr((number - 1) * 8, 8))),
                                ack(block));
                  }
              }),
              0);
    EXPECT_TRUE(read_file(local / "here") == text);
}

TEST_F(TftpPlayed, BlockNumbersRollOverInAPut) {
    const Bytes text = content(8 * 65540 + 3);
    write_file(local / "sent", text);
    EXPECT_EQ(put_to([&](Played &server) {
                  server.request();
                  Bytes packet = server.exchange(oack({"blksize", "8"}));
                  for (std::size_t number = 1; number <= 65541; ++number) {
                      const auto block = static_cast<uint16_t>(number);
                      ASSERT_EQ(packet, data(block, text.substr((number - 1) * 8, 8)));
                      if (number < 65541)
                          packet = server.exchange(ack(block));
                      else
                          server.send(ack(block));
                  }
              }),
              0);
}

// --- Sizes

TEST_F(TftpPlayed, AFileShorterThanAnnouncedIsRefused) {
    write_file(local / "here", "old");
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(oack({"tsize", "513"})), ack(0));
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  EXPECT_THAT(server.exchange(data(2, 0U)), IsError(4));
              }),
              -EPROTO);
    EXPECT_EQ(read_file(local / "here"), "old");
}

TEST_F(TftpPlayed, AFileLongerThanAnnouncedIsRefusedAsSoonAsItShows) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(oack({"tsize", "512"})), ack(0));
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  EXPECT_THAT(server.exchange(data(2, 512)), IsError(4));
              }),
              -EPROTO);
    EXPECT_THAT(local_files(), testing::ElementsAre("sent"));
}

TEST_F(TftpPlayed, AnEmptyFileMayBeAnnounced) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(oack({"tsize", "0"})), ack(0));
                  EXPECT_EQ(server.exchange(data(1, 0U)), ack(1));
              }),
              0);
    EXPECT_EQ(read_file(local / "here"), "");
}

TEST_F(TftpPlayed, ABlockLargerThanAgreedIsRefused) {
    for (const std::size_t size : {std::size_t{513}, std::size_t{1469}, std::size_t{3000}}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(get_from([&](Played &server) {
                      server.request();
                      EXPECT_THAT(server.exchange(data(1, size)), IsError(4));
                  }),
                  -EPROTO);
    }
    EXPECT_THAT(local_files(), testing::ElementsAre("sent"));
}

TEST_F(TftpPlayed, AFileThatShrinksWhileItIsSentIsAnErrorOfThisSide) {
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  EXPECT_EQ(block_of(server.exchange(ack(0))), 1);
                  fs::resize_file("sent", 700);
                  EXPECT_THAT(server.exchange(ack(1)), IsError(0));
              }),
              -EIO);
}

TEST_F(TftpPlayed, AFileThatGrowsWhileItIsSentIsSentAsAnnounced) {
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  EXPECT_EQ(block_of(server.exchange(ack(0))), 1);
                  fs::resize_file("sent", 5000);
                  EXPECT_EQ(server.exchange(ack(1)), data(2, content(1000).substr(512)));
                  server.send(ack(2));
              }),
              0);
}

// --- Failures of this side

TEST_F(TftpPlayed, AFullDiskIsToldToTheServer) {
    const fs::path small = above / "small";
    fs::create_directory(small);
    mount_small(small);
    EXPECT_EQ(during([&] { return tftp_get2("there", (small / "here").c_str(), 0); },
                     [](Played &server) {
                         server.request();
                         uint16_t block = 0;
                         Bytes answer = server.exchange(oack({"blksize", "1468"}));
                         while (answer == ack(block) && block < 100)
                             answer = server.exchange(data(++block, 1468));
                         EXPECT_THAT(answer, IsError(3));
                     }),
              -ENOSPC);
    EXPECT_TRUE(fs::is_empty(small));
    EXPECT_EQ(umount(small.c_str()), 0);
}

TEST_F(TftpPlayed, AFileThatCannotBeKeptIsToldInPlaceOfTheLastAcknowledgement) {
    fsync_errors = {EDQUOT};
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  EXPECT_THAT(server.exchange(data(2, 3)), IsError(3));
              }),
              -ENOSPC);
    EXPECT_THAT(local_files(), testing::ElementsAre("sent"));
}

TEST_F(TftpPlayed, TheFileStandsBeforeTheServerHearsOfIt) {
    std::optional<Bytes> at_last_acknowledgement;
    EXPECT_EQ(get_from([&](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, "text")), ack(1));
                  at_last_acknowledgement = read_file(local / "here");
              }),
              0);
    EXPECT_EQ(at_last_acknowledgement, "text");
}

TEST_F(TftpPlayed, AFileBeingReceivedIsItsOwnersAloneThoughItReplacesAnother) {
    write_file(local / "here", "old");
    ASSERT_EQ(chmod("here", 0644), 0);
    std::vector<unsigned> modes;
    EXPECT_EQ(get_from([&](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
                      std::error_code gone;
                      const std::string target = fs::read_symlink(entry.path(), gone);
                      if (target.rfind(local.string() + "/#", 0) == 0)
                          modes.push_back(permissions(entry.path()));
                  }
                  EXPECT_EQ(permissions("here"), 0644U);
                  EXPECT_EQ(read_file("here"), "old");
                  EXPECT_EQ(server.exchange(data(2, 3)), ack(2));
              }),
              0);
    EXPECT_THAT(modes, testing::ElementsAre(0600U));
    EXPECT_EQ(permissions("here"), 0644U);
}

TEST_F(TftpPlayed, ALinkPutInPlaceOfTheDirectoryMeanwhileIsNotFollowed) {
    const fs::path flash = local / "flash";
    const fs::path outside = above / "outside";
    fs::create_directory(flash);
    fs::create_directory(outside);
    write_file(outside / "here", "precious");
    EXPECT_EQ(during([&] { return tftp_get2("there", (flash / "here").c_str(), 0); },
                     [&](Played &server) {
                         server.request();
                         EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                         fs::rename(flash, local / "moved");
                         fs::create_directory_symlink(outside, flash);
                         EXPECT_EQ(server.exchange(data(2, 3)), ack(2));
                     }),
              0);
    EXPECT_EQ(read_file(outside / "here"), "precious");
    EXPECT_EQ(std::distance(fs::directory_iterator(outside), {}), 1);
    EXPECT_EQ(fs::file_size(local / "moved" / "here"), 515U);
}

TEST_F(TftpPlayed, ALinkOnTheWayToTheDestinationIsRefusedBeforeTheServerIsAsked) {
    fs::create_directory(above / "outside");
    fs::create_directory_symlink(above / "outside", local / "link");
    EXPECT_EQ(tftp_get2("there", (local / "link" / "here").c_str(), 0), -ELOOP);
    EXPECT_EQ(played.request_socket().receive(milliseconds(0)), "");
    EXPECT_TRUE(fs::is_empty(above / "outside"));
}

TEST_F(TftpPlayed, AKilledTransferLeavesNothing) {
    const pid_t child = fork();
    if (child == 0)
        _exit(get() == 0 ? 0 : 1);
    played.request();
    EXPECT_EQ(played.exchange(data(1, 512)), ack(1));
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_THAT(local_files(), testing::ElementsAre("sent"));
}

// --- The last acknowledgement

TEST_F(TftpPlayed, AfterADisturbedTransferARepeatedLastBlockIsAnswered) {
    ruma::tftp::limits().retransmission = milliseconds(100);
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                  EXPECT_EQ(server.receive(), ack(1));
                  EXPECT_EQ(server.exchange(data(2, 3)), ack(2)); // lost on its way, say
                  EXPECT_EQ(server.receive(milliseconds(110)), "");
                  EXPECT_EQ(server.exchange(data(2, 3)), ack(2));
              }),
              0);
}

TEST_F(TftpPlayed, AfterADisturbedTransferTheServerIsWaitedForABoundedTime) {
    ruma::tftp::limits().retransmission = milliseconds(200);
    EXPECT_LT(seconds_of([&] {
                  EXPECT_EQ(get_from([](Played &server) {
                                server.request();
                                server.send(data(1, 512));
                                server.send(data(1, 512));
                                EXPECT_EQ(server.receive(), ack(1));
                                EXPECT_EQ(server.exchange(data(2, 3)), ack(2));
                            }),
                            0);
              }),
              2.0);
}

TEST_F(TftpPlayed, AfterACleanTransferNothingIsWaitedFor) {
    EXPECT_LT(seconds_of([&] {
                  EXPECT_EQ(get_from([](Played &server) {
                                server.request();
                                EXPECT_EQ(server.exchange(data(1, 3)), ack(1));
                            }),
                            0);
              }),
              1.0);
}

// --- Limits of time

class TftpTimed : public TftpPlayed {
  protected:
    void SetUp() override {
        TftpPlayed::SetUp();
        ruma::tftp::limits() = {.silence = milliseconds(400),
                                .total = milliseconds(20000),
                                .retransmission = milliseconds(50)};
    }

    template <typename Transfer>
    static void expect_time_out(const Transfer &transfer) {
        int result = 0;
        const double took = seconds_of([&] { result = transfer(); });
        EXPECT_EQ(result, -ETIMEDOUT);
        EXPECT_GE(took, 0.4);
        EXPECT_LT(took, 2.0);
        EXPECT_STREQ(tftp_strerror(result), "The server did not answer in time");
    }

    // Reads the client's packets until the ERROR that ends the transfer.
    static void expect_to_be_told(Played &server) {
        for (Bytes packet = server.receive();; packet = server.receive()) {
            ASSERT_NE(packet, "") << "not told";
            const auto parsed = ruma::tftp::parse(packet);
            if (parsed && parsed->opcode == Opcode::error)
                return;
        }
    }
};

TEST_F(TftpTimed, TheTimeOfSilenceIsTheOneSet) {
    ASSERT_EQ(tftp_timeout_set(1), 0);
    const double took = seconds_of([&] { EXPECT_EQ(get(), -ETIMEDOUT); });
    EXPECT_GE(took, 1.0);
    EXPECT_LT(took, 3.0);
}

TEST_F(TftpTimed, AServerThatNeverAnswersAGetTimesOut) {
    expect_time_out([&] { return get(); });
    EXPECT_THAT(local_files(), testing::ElementsAre("sent"));
}

TEST_F(TftpTimed, AServerThatNeverAnswersAPutTimesOut) {
    expect_time_out([] { return tftp_put("sent", 0); });
}

TEST_F(TftpTimed, AServerThatStallsInAGetTimesOutAndIsTold) {
    expect_time_out([&] {
        return get_from([](Played &server) {
            server.request();
            EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
            expect_to_be_told(server);
        });
    });
    EXPECT_THAT(local_files(), testing::ElementsAre("sent"));
}

TEST_F(TftpTimed, AServerThatStallsInAPutTimesOutAndIsTold) {
    expect_time_out([&] {
        return put_to([](Played &server) {
            server.request();
            EXPECT_EQ(block_of(server.exchange(ack(0))), 1);
            expect_to_be_told(server);
        });
    });
}

TEST_F(TftpTimed, AServerThatOnlyRepeatsItselfTimesOut) {
    expect_time_out([&] {
        return get_from([](Played &server) {
            server.request();
            Bytes packet = server.exchange(data(1, 512));
            while (packet == ack(1))
                packet = server.exchange(data(1, 512));
            EXPECT_THAT(packet, IsError(0));
        });
    });
}

TEST_F(TftpTimed, AFloodOfForeignPacketsKeepsNoTransferAlive) {
    std::atomic<bool> ended{false};
    expect_time_out([&] {
        return during(
            [&] {
                const int result = get();
                ended = true;
                return result;
            },
            [&](Played &server) {
                server.request();
                EXPECT_EQ(server.exchange(data(1, 512)), ack(1));
                const Socket port(own_address());
                const Socket address(own_address(1));
                while (!ended) {
                    port.send(data(2, 512), server.client);
                    address.send(data(2, 512), server.client);
                }
            });
    });
}

TEST_F(TftpTimed, ASlowTransferThatMovesIsNotCut) {
    EXPECT_EQ(get_from([](Played &server) {
                  server.request();
                  for (uint16_t block = 1; block <= 4; ++block) {
                      // Less than the limit for one block, more than it for all of them.
                      const auto until = Clock::now() + milliseconds(200);
                      while (Clock::now() < until)
                          server.receive(milliseconds(20));
                      server.send(data(block, block < 4 ? 512 : 1));
                  }
              }),
              0);
    EXPECT_EQ(fs::file_size(local / "here"), 3 * 512 + 1U);
}

TEST_F(TftpTimed, ATransferThatMovesForeverEndsAtItsTotalLimitAndTheServerIsTold) {
    ruma::tftp::limits().total = milliseconds(500);
    Bytes last;
    const double took = seconds_of([&] {
        EXPECT_EQ(get_from([&](Played &server) {
                      server.request();
                      uint16_t block = 1;
                      for (last = server.exchange(data(1, 512)); last == ack(block);
                           last = server.exchange(data(block, 512)))
                          ++block;
                  }),
                  -ETIMEDOUT);
    });
    EXPECT_THAT(last, IsError(0));
    EXPECT_GE(took, 0.5);
    EXPECT_LT(took, 2.0);
    EXPECT_STREQ(tftp_strerror(-ETIMEDOUT), "The transfer took too long");
}

TEST_F(TftpTimed, TheTotalLimitHoldsForBothRequestsTogether) {
    ruma::tftp::limits() = {.silence = milliseconds(3000),
                            .total = milliseconds(300),
                            .retransmission = milliseconds(50)};
    EXPECT_LT(seconds_of([&] {
                  EXPECT_EQ(get_from([](Played &server) {
                                server.request();
                                server.send(error(8));
                            }),
                            -ETIMEDOUT);
              }),
              2.0);
}

TEST(TftpLimits, Are20SecondsOfSilenceAnd50MinutesInAll) {
    const ruma::tftp::Limits limits;
    EXPECT_EQ(limits.silence, std::chrono::seconds(20));
    EXPECT_EQ(limits.total, std::chrono::seconds(3000));
}

} // namespace

// The TFTP client in mid-transfer: loss and doubling, sizes.
#include "failing_fsync.h"
#include "tftp_played.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

using namespace tftp_test;

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

TEST_F(TftpPlayed, OnlyTheAcknowledgementOfTheBlockSentBringsTheNext) {
    write_file(local / "sent", content(3 * std::size_t{512}));
    EXPECT_EQ(put_to([](Played &server) {
                  server.request();
                  server.exchange(ack(0));
                  EXPECT_EQ(block_of(server.exchange(ack(1))), 2);
                  for (const uint16_t block : std::initializer_list<uint16_t>{0, 1, 3, 65535})
                      server.send(ack(block));
                  // Answered when all of those have been seen.
                  Socket foreign(own_address());
                  foreign.send(ack(2), server.client);
                  EXPECT_THAT(foreign.receive(), IsError(5));
                  EXPECT_EQ(server.waiting(), 0);
                  EXPECT_EQ(block_of(server.exchange(ack(2))), 3);
                  EXPECT_EQ(block_of(server.exchange(ack(3))), 4);
                  server.send(ack(4));
              }),
              0);
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

} // namespace

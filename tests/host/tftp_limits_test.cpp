// The TFTP client in mid-transfer: failures of this side, the last acknowledgement, limits of time.
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

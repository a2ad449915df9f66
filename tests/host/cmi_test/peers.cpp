// Whose daemons are asked.
#include "fake_daemon.h"

#include "base/peer.h"

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace cmi;

// Whether a client of the user 11, in a process of its own, asks a daemon of that user.
bool asks_daemon_of(uid_t user) {
    const std::string path = RunDirectory::socket();
    const pid_t child = fork();
    if (child == 0) {
        chmod(RunDirectory::path.c_str(), 0755);
        if (chmod(RunDirectory::daemon().c_str(), 0777) != 0 || setresuid(user, user, 0) != 0) {
            _exit(2);
        }
        unlink(path.c_str());
        FakeDaemon *const daemon = new FakeDaemon(good);
        if (chmod(path.c_str(), 0777) != 0 || seteuid(0) != 0 || setresuid(11, 11, 0) != 0) {
            _exit(3);
        }
        const bool answered = ask().result == 0;
        _exit(answered && !daemon->seen().empty() ? 0 : daemon->seen().empty() ? 1 : 4);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2) << status;
    return status == 0;
}

TEST(Cmi, OnlyADaemonOfRootTheClientOrTheConfiguredUserIsAsked) {
    ASSERT_EQ(geteuid(), 0U) << "only root can play two users";
    EXPECT_TRUE(asks_daemon_of(0));
    EXPECT_TRUE(asks_daemon_of(11));
    EXPECT_TRUE(asks_daemon_of(*ruma::user_number("daemon")));
    EXPECT_FALSE(asks_daemon_of(*ruma::user_number("sys"))) << "the agent's user is another";
    EXPECT_FALSE(asks_daemon_of(10));
}

TEST(Peer, RootOneselfAndTheConfiguredUserAreTrustedAndNobodyElse) {
    const uid_t other = geteuid() + 1000;
    EXPECT_TRUE(ruma::is_trusted(0, std::nullopt));
    EXPECT_TRUE(ruma::is_trusted(geteuid(), std::nullopt));
    EXPECT_FALSE(ruma::is_trusted(other, std::nullopt));
    EXPECT_FALSE(ruma::is_trusted(other, other + 1));
    EXPECT_TRUE(ruma::is_trusted(other, other));
}

TEST(Peer, UsersAreFoundByName) {
    EXPECT_EQ(ruma::user_number("root"), uid_t{0});
    EXPECT_EQ(ruma::user_number("no such user here"), std::nullopt);
}

TEST(Peer, TheKernelTellsTheUserOfASocketAndOfNothingElse) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(ruma::peer_user(ends[0]), geteuid());
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(ruma::peer_user(-1), std::nullopt);
}

} // namespace

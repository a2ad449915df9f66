// The daemon's start, end and restart, by hand and by a service manager.
#include "daemon.h"

#include "cmi/cmi_wire.h"
#include "provoked.h"
#include "ruma/cmi.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using namespace fs_daemon;

// ---- Life

TEST_F(FsDaemon, ItEndsWithResult0AndRemovesItsSocket) {
    for (const int signal : {SIGTERM, SIGINT}) {
        start();
        EXPECT_EQ(stop(signal), 0) << signal;
        EXPECT_FALSE(fs::exists(socket_path())) << signal;
    }
    EXPECT_EQ(errors(), "");
}

TEST_F(FsDaemon, AtSighupItAsksToBeStartedAgainByItsResult) {
    start();
    EXPECT_EQ(WEXITSTATUS(stop(SIGHUP)), EX_TEMPFAIL);
    EXPECT_FALSE(fs::exists(socket_path()));
    EXPECT_EQ(errors(), "");
}

TEST_F(FsDaemon, AtSighupWithAConfigurationThatCannotBeUsedItServesOn) {
    start();
    write_file(base / "platform.toml", "nonsense = 1\n");
    kill(daemon, SIGHUP);
    EXPECT_TRUE(eventually([this] { return !errors().empty(); }));
    EXPECT_PROVOKED(errors(), "fs_daemon: not started again: …");
    EXPECT_NE(errors().find("platform.toml:1: unknown key"), std::string::npos) << errors();
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0));
}

TEST_F(FsDaemon, ASocketThatWasTakenAwayIsMadeAgain) {
    start();
    Client client(socket_path());
    const auto take_away = [&](const std::string &what) {
        fs::remove_all(what);
        return eventually([this] { return Client(socket_path()).connected(); });
    };
    EXPECT_TRUE(take_away(socket_path()));
    if (confined()) {
        return; // to the directory that it started with
    }
    EXPECT_TRUE(take_away(daemon_dir()));
    EXPECT_TRUE(take_away(run_dir()));
    EXPECT_TRUE(client.device(CMI_NEXT, 0)) << "who is connected stays so";
    EXPECT_PROVOKED(errors(), "fs_daemon: … had gone and has been made again");
    // And it is this daemon's alone.
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
}

TEST_F(FsDaemon, ASocketThatCannotBeMadeAgainIsReportedOnce) {
    start();
    Client client(socket_path());
    fs::remove(socket_path());
    write_file(socket_path(), "precious");
    ASSERT_TRUE(eventually([this] { return !errors().empty(); }));
    const std::string said = errors();
    EXPECT_NE(said.find("has gone: " + socket_path() + " is not a socket"), std::string::npos);
    EXPECT_PROVOKED(said, "fs_daemon: … has gone: …");
    EXPECT_TRUE(client.device(CMI_NEXT, 0));
    fs::remove(socket_path());
    EXPECT_TRUE(eventually([this] { return Client(socket_path()).connected(); }));
    EXPECT_EQ(errors(),
              said + "fs_daemon: " + socket_path() + " had gone and has been made again\n");
}

TEST_F(FsDaemon, TheSocketOfASuccessorIsLeftAlone) {
    start();
    kill(daemon, SIGSTOP);
    fs::rename(run_dir(), base / "former");
    const pid_t former = std::exchange(daemon, 0);
    start();
    kill(former, SIGTERM);
    kill(former, SIGCONT);
    wait_for(former);
    EXPECT_TRUE(Client(socket_path()).connected());
}

TEST_F(FsDaemon, ASecondDaemonRefusesToStartAndDisturbsNothing) {
    start();
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_PROVOKED(errors(), "fs_daemon: another daemon serves …");
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0));
    // Not even when its lock file has been taken away.
    fs::remove(daemon_dir() + "/fs_daemon.lock");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0));
}

TEST_F(FsDaemon, TheSocketOfADeadDaemonIsReplaced) {
    start();
    stop(SIGKILL);
    ASSERT_TRUE(fs::exists(socket_path()));
    start();
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0));
}

TEST_F(FsDaemon, WhatIsNotASocketIsNotReplaced) {
    fs::create_directories(daemon_dir());
    write_file(socket_path(), "precious");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_EQ(slurp(socket_path()), "precious");
    EXPECT_PROVOKED(errors(), "fs_daemon: … is not a socket");
}

TEST_F(FsDaemon, TheRunDirectoryIsMadeAndAnybodyMayConnect) {
    ASSERT_FALSE(fs::exists(run_dir()));
    start();
    EXPECT_EQ(fs::status(socket_path()).permissions(), fs::perms(0666));
}

TEST_F(FsDaemon, TheDirectoriesAreTheUsersWhoWriteThem) {
    ASSERT_EQ(geteuid(), 0U) << "only root makes directories for others";
    configure("[agent]\nuser = \"nobody\"\n[fs_daemon]\nuser = \"daemon\"\n");
    const auto owner = [](const std::string &path) {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? status.st_uid : 99999;
    };
    start();
    EXPECT_EQ(owner(run_dir()), getpwnam("nobody")->pw_uid);
    EXPECT_EQ(owner(daemon_dir()), getpwnam("daemon")->pw_uid);
    EXPECT_EQ(fs::status(daemon_dir()).permissions(), fs::perms(0755));
}

TEST_F(FsDaemon, ADirectoryOfTheDaemonsThatIsTheAgentsIsAnError) {
    configure("[agent]\nuser = \"nobody\"\n[fs_daemon]\nuser = \"daemon\"\n");
    fs::create_directories(daemon_dir());
    ASSERT_EQ(chown(daemon_dir().c_str(), getpwnam("nobody")->pw_uid, 0), 0);
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_EQ(errors(), "fs_daemon: " + daemon_dir() + " belongs to another user\n");
}

TEST_F(FsDaemon, AUserOfTheDaemonWhoDoesNotExistIsAnError) {
    configure("[fs_daemon]\nuser = \"no-such-user\"\n");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_EQ(errors(), "fs_daemon: there is no user no-such-user\n");
    EXPECT_PROVOKED(errors(), "there is no user …");
}

TEST_F(FsDaemon, ARunDirectoryThatIsALinkIsAnError) {
    fs::create_directory(base / "elsewhere");
    fs::create_symlink("elsewhere", run_dir());
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_NE(errors().find("is a symbolic link"), std::string::npos) << errors();
    EXPECT_TRUE(fs::is_empty(base / "elsewhere"));
}

TEST_F(FsDaemon, AConfigurationThatCannotBeUsedIsAnError) {
    write_file(base / "platform.toml", "nonsense = 1\n");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_NE(errors().find("platform.toml:1: unknown key"), std::string::npos);
    fs::remove(base / "platform.toml");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_FALSE(fs::exists(socket_path()));
}

TEST_F(FsDaemon, AnAgentUserWhoDoesNotExistIsAnError) {
    configure("[agent]\nuser = \"no-such-user\"\n");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_EQ(errors(), "fs_daemon: there is no user no-such-user\n");
    EXPECT_PROVOKED(errors(), "there is no user …");
}

TEST_F(FsDaemon, ARunDirectoryWithTooLongANameIsAnError) {
    const std::string longest = base / std::string(120, 'r');
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn({"--run-dir", longest}))) != 0, true);
    EXPECT_FALSE(fs::exists(socket_path()));
}

TEST_F(FsDaemon, HelpAndVersionAreShown) {
    EXPECT_EQ(wait_for(spawn({"--help"})), 0);
    EXPECT_NE(errors().find("--run-dir"), std::string::npos);
    EXPECT_EQ(wait_for(spawn({"--version"})), 0);
    EXPECT_NE(errors().find("fs_daemon 0."), std::string::npos);
    EXPECT_NE(wait_for(spawn({"--no-such-option"})), 0);
}

// ---- With a service manager

// The end that a service manager listens on.
class Manager {
  public:
    explicit Manager(const std::string &path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.c_str(), path.size() + 1);
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~Manager() {
        unsetenv("NOTIFY_SOCKET");
        close(socket_);
    }

    // The next message; empty when there is none yet.
    std::string next() const {
        char text[256] = {};
        return recv(socket_, text, sizeof text - 1, 0) > 0 ? text : "";
    }
    bool hears(const std::string &expected) const {
        return eventually([&] { return next() == expected; });
    }

  private:
    int socket_;
};

TEST_F(FsDaemon, ItIsReadyWhenItServesAndThenSaysThatItIsAlive) {
    const Manager manager(base / "notify");
    daemon = spawn();
    ASSERT_TRUE(manager.hears("STATUS=Scanning the file systems"));
    std::string said;
    ASSERT_TRUE(eventually([&] { return (said = manager.next()).starts_with("READY=1\n"); }));
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0)) << "at once";
    EXPECT_EQ(said, "READY=1\nSTATUS=Serving the inventory");
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(manager.hears("STOPPING=1"));
}

TEST_F(FsDaemon, WhileItHangsItDoesNotSayThatItIsAlive) {
    const Manager manager(base / "notify");
    start();
    ASSERT_TRUE(manager.hears("WATCHDOG=1"));
    kill(daemon, SIGSTOP);
    int status = 0;
    ASSERT_EQ(waitpid(daemon, &status, WUNTRACED), daemon);
    while (!manager.next().empty()) {
    }
    // A turn of its loop takes a second at most.
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(manager.next(), "");
    kill(daemon, SIGCONT);
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
}

} // namespace

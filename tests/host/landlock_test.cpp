// Processes that confine themselves, and what they may do then. These tests need a kernel with
// Landlock and fail without.
#include "sandbox/landlock.h"

#include "idle_thread.h"
#include "kernel.h"
#include "temporary_directory.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// The version that the kernel names by itself.
long kernels_landlock() {
    return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
}

using ruma::Confinement;
using ruma::ConfinementState;
using Kind = ConfinementState::Kind;

constexpr int could_not_be_confined = 200;

// 0 or the errno of what a call has returned.
int error_of(long result) { return result >= 0 ? 0 : errno; }

int result_of(const std::function<int()> &procedure) {
    const pid_t child = fork();
    if (child == 0)
        _exit(procedure());
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + status;
}

// What a probe returns in a process that has confined itself.
int confined(const Confinement &confinement, const std::function<int()> &probe) {
    return result_of([&] {
        const ConfinementState &state = ruma::confine(confinement);
        return state.kind == Kind::confined ? probe() : could_not_be_confined;
    });
}

int open_for_writing(const std::string &path, int flags = 0) {
    return error_of(open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0600));
}

class Landlock : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_GT(ruma::landlock_abi(), 0) << "this kernel has no Landlock";
        fs::create_directories(directory / "in/sub");
        write_file(directory / "in/file", "content");
        write_file(directory / "out", "content");
    }

    // Writing nowhere but in "in".
    Confinement writing_in(uint64_t rights = ruma::write_rights) const {
        return {{ruma::write_rights, 0, 0}, {{directory / "in", rights}}};
    }

    TemporaryDirectory directory;
};

TEST_F(Landlock, FileInAnAllowedDirectoryCanBeWritten) {
    EXPECT_EQ(confined(writing_in(), [&] { return open_for_writing(directory / "in/file"); }), 0);
    EXPECT_EQ(
        confined(writing_in(), [&] { return open_for_writing(directory / "in/sub/new", O_CREAT); }),
        0);
}

TEST_F(Landlock, FileElsewhereCannotBeWrittenMadeRemovedOrTruncated) {
    const std::string out = directory / "out";
    const std::string made = directory / "made";
    EXPECT_EQ(confined(writing_in(), [&] { return open_for_writing(out); }), EACCES);
    EXPECT_EQ(confined(writing_in(), [&] { return open_for_writing(made, O_CREAT); }), EACCES);
    EXPECT_EQ(confined(writing_in(), [&] { return error_of(unlink(out.c_str())); }), EACCES);
    EXPECT_EQ(confined(writing_in(), [&] { return error_of(mkdir(made.c_str(), 0700)); }), EACCES);
    if (kernels_landlock() >= 3) {
        EXPECT_EQ(confined(writing_in(), [&] { return error_of(truncate(out.c_str(), 0)); }),
                  EACCES);
    }
    EXPECT_EQ(read_file(out), "content");
}

TEST_F(Landlock, FileElsewhereCanBeRead) {
    const auto probe = [&] { return error_of(open((directory / "out").c_str(), O_RDONLY)); };
    EXPECT_EQ(confined(writing_in(), probe), 0);
}

TEST_F(Landlock, AbsentRightsOfARuleAreDenied) {
    const Confinement writing = writing_in(LANDLOCK_ACCESS_FS_WRITE_FILE);
    EXPECT_EQ(confined(writing, [&] { return open_for_writing(directory / "in/file"); }), 0);
    EXPECT_EQ(confined(writing, [&] { return open_for_writing(directory / "in/new", O_CREAT); }),
              EACCES);
}

TEST_F(Landlock, WhatIsOpenAlreadyStaysUsable) {
    const int out = open((directory / "out").c_str(), O_WRONLY | O_APPEND);
    EXPECT_EQ(confined(writing_in(), [&] { return error_of(write(out, "!", 1)); }), 0);
    close(out);
    EXPECT_EQ(read_file(directory / "out"), "content!");
}

TEST_F(Landlock, RuleForAFileNeedsNoRightsOfDirectoriesTakenOut) {
    const Confinement one{{ruma::write_rights, 0, 0}, {{directory / "out", ruma::write_rights}}};
    EXPECT_EQ(confined(one, [&] { return open_for_writing(directory / "out"); }), 0);
    EXPECT_EQ(confined(one, [&] { return open_for_writing(directory / "in/file"); }), EACCES);
}

TEST_F(Landlock, RuleFollowsALink) {
    fs::create_symlink("in", directory / "link");
    const Confinement linked{{ruma::write_rights, 0, 0},
                             {{directory / "link", ruma::write_rights}}};
    EXPECT_EQ(confined(linked, [&] { return open_for_writing(directory / "in/file"); }), 0);
}

TEST_F(Landlock, RuleForNothingIsLeftOut) {
    Confinement confinement = writing_in();
    confinement.rules.push_back({directory / "missing", ruma::write_rights});
    confinement.rules.push_back({directory / "out", LANDLOCK_ACCESS_FS_EXECUTE}); // not denied
    EXPECT_EQ(confined(confinement, [&] { return open_for_writing(directory / "in/file"); }), 0);
}

TEST_F(Landlock, RuleForTheRootDirectoryIsSkippedAndTold) {
    const Confinement whole{{ruma::write_rights, 0, 0}, {{"//", ruma::write_rights}}};
    EXPECT_EQ(confined(whole, [&] { return open_for_writing(directory / "out"); }), EACCES);
    EXPECT_EQ(confined(whole,
                       [] {
                           const auto &skipped = ruma::confinement_state().skipped;
                           return skipped == std::vector<std::string>{"//"} ? 0 : 1;
                       }),
              0);
}

// A rule holds for a directory, not for what is mounted on it later; one for a directory above
// does.
TEST_F(Landlock, FileSystemMountedLaterIsReachedFromAboveItsMountPointOnly) {
    ASSERT_EQ(geteuid(), 0U) << "mounts: run as root";
    const std::string point = directory / "in/sub";
    const auto write_after_mount = [&](const std::string &allowed) {
        // The mount is another's: a confined process may not mount.
        int begin[2], done[2];
        EXPECT_EQ(pipe(begin) | pipe(done), 0);
        const pid_t child = fork();
        if (child == 0) {
            char byte = 0;
            ruma::confine({{ruma::write_rights, 0, 0}, {{allowed, ruma::write_rights}}});
            _exit(write(begin[1], "x", 1) == 1 && read(done[0], &byte, 1) == 1
                      ? open_for_writing(point + "/new", O_CREAT)
                      : could_not_be_confined);
        }
        char byte = 0;
        EXPECT_EQ(read(begin[0], &byte, 1), 1);
        EXPECT_EQ(mount("tmpfs", point.c_str(), "tmpfs", 0, "size=64k"), 0);
        EXPECT_EQ(write(done[1], "x", 1), 1);
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(umount(point.c_str()), 0);
        for (const int fd : {begin[0], begin[1], done[0], done[1]})
            close(fd);
        return WEXITSTATUS(status);
    };
    EXPECT_EQ(write_after_mount(point), EACCES);
    EXPECT_EQ(write_after_mount(directory / "in"), 0);
}

TEST_F(Landlock, OnlyAllowedProgramsStartAndLibrariesNeedNoRight) {
    const auto runs = [&](const char *program, const std::vector<ruma::PathRule> &rules) {
        return confined({{LANDLOCK_ACCESS_FS_EXECUTE, 0, 0}, rules}, [program] {
            execl(program, program, nullptr);
            return errno;
        });
    };
    constexpr uint64_t execute = LANDLOCK_ACCESS_FS_EXECUTE;
    std::vector<ruma::PathRule> rules = {{"/bin/true", execute}};
    EXPECT_EQ(runs("/bin/true", rules), EACCES); // its loader
    // Of either word size; a rule for what is missing is left out.
    rules.push_back({"/lib64/ld-linux-x86-64.so.2", execute});
    rules.push_back({"/lib/ld-linux.so.2", execute});
    EXPECT_EQ(runs("/bin/true", rules), 0);
    EXPECT_EQ(runs("/bin/id", rules), EACCES);
}

TEST_F(Landlock, StartedProgramsGainNoRights) {
    EXPECT_EQ(confined(writing_in(), [] { return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0); }), 1);
}

TEST_F(Landlock, SecondConfinementNarrowsTheFirst) {
    const Confinement nowhere{{ruma::write_rights, 0, 0}, {}};
    const auto probe = [&] {
        ruma::confine(writing_in());
        return open_for_writing(directory / "in/file");
    };
    EXPECT_EQ(confined(nowhere, probe), EACCES);
    EXPECT_EQ(confined(writing_in(), probe), 0);
}

TEST_F(Landlock, SignalsReachOnlyWhatIsConfinedWithTheSender) {
    const int refused = kernels_landlock() < 6 ? 0 : EPERM; // older ones leave signals open
    const Confinement alone{{0, 0, LANDLOCK_SCOPE_SIGNAL}, {}};
    EXPECT_EQ(confined(alone, [] { return error_of(kill(getppid(), 0)); }), refused);
    EXPECT_EQ(confined(alone, [] { return error_of(kill(getpid(), 0)); }), 0);
    EXPECT_EQ(confined(alone,
                       [] {
                           const pid_t child = fork();
                           if (child == 0)
                               for (;;)
                                   pause();
                           const int error = error_of(kill(child, SIGKILL));
                           waitpid(child, nullptr, 0);
                           return error;
                       }),
              0);
}

TEST_F(Landlock, StateTellsTheAbiAndThatNothingWasAskedForBefore) {
    EXPECT_EQ(ruma::landlock_abi(), kernels_landlock());
    EXPECT_EQ(ruma::confinement_state().kind, Kind::none);
    EXPECT_EQ(confined(writing_in(),
                       [] {
                           const ConfinementState &state = ruma::confinement_state();
                           return state.abi == ruma::landlock_abi() && state.skipped.empty() &&
                                          !state.threads
                                      ? 0
                                      : 1;
                       }),
              0);
}

TEST_F(Landlock, StateTellsOfOtherThreads) {
    EXPECT_EQ(result_of([&] {
                  start_idle_thread();
                  return ruma::confine(writing_in()).threads ? 0 : 1;
              }),
              0);
}

TEST_F(Landlock, RefusedConfinementIsAnErrorAndNamesTheCall) {
    EXPECT_EQ(
        result_of([&] {
            take_away(SYS_landlock_restrict_self, E2BIG);
            try {
                ruma::confine(writing_in());
            } catch (const std::system_error &error) {
                return error.code().value() == E2BIG &&
                               std::string(error.what()).starts_with("landlock_restrict_self: ") &&
                               ruma::confinement_state().kind == Kind::failed
                           ? 0
                           : 1;
            }
            return 2;
        }),
        0);
}

TEST_F(Landlock, SeventeenthConfinementIsRefused) {
    EXPECT_EQ(result_of([&] {
                  for (int done = 0; done < 17; ++done) {
                      try {
                          ruma::confine(writing_in());
                      } catch (const std::system_error &) {
                          return done;
                      }
                  }
                  return 17;
              }),
              16);
}

// Without Landlock nothing is confined, and no error either.
class NoLandlock : public testing::TestWithParam<int> {};

TEST_P(NoLandlock, LeavesTheProcessAsItIsAndTellsWhatIsOpen) {
    EXPECT_EQ(result_of([] {
                  take_away(SYS_landlock_create_ruleset, GetParam());
                  const ConfinementState &state =
                      ruma::confine({{LANDLOCK_ACCESS_FS_TRUNCATE, 0, 0}, {}});
                  return ruma::landlock_abi() == 0 && state.kind == Kind::unavailable &&
                                 state.open == "truncating files"
                             ? 0
                             : 1;
              }),
              0);
}

INSTANTIATE_TEST_SUITE_P(Errors, NoLandlock, testing::Values(ENOSYS, EOPNOTSUPP, EPERM));

} // namespace

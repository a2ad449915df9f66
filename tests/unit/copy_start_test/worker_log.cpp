// The worker and the agent's log files.
#include "request.h"
#include "worker.h"

#include "flash_trace.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace copy_start;

// How an agent opens its log file: afresh, or with -A behind what it holds.
enum LogMode { truncating = 0, appending = 1 };

// The agent's log in a file.
class WorkerWithLogFileTest : public WorkerTest, public testing::WithParamInterface<LogMode> {
  protected:
    void SetUp() override {
        WorkerTest::SetUp();
        std::string name = (fs::temp_directory_path() / "copy_start_test.XXXXXX").string();
        const int descriptor = mkstemp(name.data());
        ASSERT_GE(descriptor, 0);
        ::close(descriptor);
        path_ = name;
        std::ofstream(path_) << "of a former run\n";
        snmp_enable_filelog(path_.c_str(), GetParam());
    }
    void TearDown() override {
        snmp_disable_filelog();
        fs::remove(path_);
        WorkerTest::TearDown();
    }
    Lines log() const {
        Lines lines;
        std::ifstream file(path_);
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }
    // What the log holds of a former run, and these lines.
    static Lines with_former(Lines lines) {
        if (GetParam() == appending)
            lines.insert(lines.begin(), "of a former run");
        return lines;
    }
    std::string path_;
};

INSTANTIATE_TEST_SUITE_P(Modes, WorkerWithLogFileTest, testing::Values(truncating, appending),
                         [](const auto &mode) {
                             return std::string(mode.param == appending ? "Appending"
                                                                        : "Truncating");
                         });

TEST_P(WorkerWithLogFileTest, LinesOfAgentAndWorkerStandInTheFileInTheirOrder) {
    platform().tftp_get2.does([this](const char *, const char *, int) {
        __real_snmp_log(LOG_ERR, "from the worker\n");
        ++shared->reached;
        await([this] { return shared->messages == 1; }); // the agent's sign to go on
        __real_snmp_log(LOG_ERR, "from the worker again\n");
        return 0;
    });
    __real_snmp_log(LOG_ERR, "from the agent before\n");
    flashCopyEntry row = request(1);
    start_flash_copy(&row);
    ASSERT_TRUE(await([this] { return shared->reached == 1; }));
    __real_snmp_log(LOG_ERR, "from the agent meanwhile\n");
    ++shared->messages;
    reap(flash_copy_pid);
    __real_snmp_log(LOG_ERR, "from the agent after\n");
    __real_snmp_log(LOG_ERR, "from the agent at last\n");
    EXPECT_EQ(log(), with_former({"from the agent before", "from the worker",
                                  "from the agent meanwhile", "from the worker again",
                                  "from the agent after", "from the agent at last"}));
}

TEST_P(WorkerWithLogFileTest, LinesOfSeveralWorkersAreAllKept) {
    platform().tftp_get2.does([](const char *, const char *, int) {
        __real_snmp_log(LOG_ERR, "from a worker\n");
        return 0;
    });
    Lines expected;
    for (int i = 0; i < 3; ++i) {
        run(request(1));
        __real_snmp_log(LOG_ERR, "from the agent\n");
        expected.insert(expected.end(), {"from a worker", "from the agent"});
    }
    EXPECT_EQ(log(), with_former(expected));
}

TEST_P(WorkerWithLogFileTest, TheAgentsOwnDescriptorIsLeftAsItWas) {
    run(request(1));
    ASSERT_EQ(shared->reached, 1);
    int logs = 0;
    for (int i = 0; i < shared->open_count; ++i)
        if (shared->target[i] == path_) {
            EXPECT_EQ(fcntl(shared->open[i], F_GETFD), 0) << "descriptor " << shared->open[i];
            ++logs;
        }
    EXPECT_EQ(logs, 1);
}

TEST_P(WorkerWithLogFileTest, TheFileIsClosedAtExec) {
    run(request(1));
    ASSERT_EQ(shared->reached, 1);
    int logs = 0;
    for (int i = 0; i < shared->open_count; ++i) {
        if (shared->open[i] == mypipe[0] || shared->open[i] == mypipe[1])
            continue;
        EXPECT_EQ(shared->target[i], path_) << "descriptor " << shared->open[i];
        EXPECT_TRUE(shared->closed_at_exec[i]) << "descriptor " << shared->open[i];
        ++logs;
    }
    EXPECT_EQ(logs, 1);
}

TEST_P(WorkerWithLogFileTest, LogLinesAreNotWrittenIntoWhatTheWorkerOpens) {
    const std::string opened = path_ + ".opened";
    platform().tftp_get2.does([&opened](const char *, const char *, int) {
        // As many files as the worker closed descriptors, and more.
        for (int i = 0; i < 8; ++i)
            open(opened.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        __real_snmp_log(LOG_ERR, "from the worker\n");
        return 0;
    });
    run(request(1));
    ASSERT_TRUE(fs::exists(opened));
    EXPECT_EQ(fs::file_size(opened), 0U);
    fs::remove(opened);
}

// More log files than the worker keeps.
TEST_F(WorkerTest, WritesIntoNothingItOpensHoweverManyLogFilesTheAgentHas) {
    constexpr size_t kept = 16;
    constexpr size_t all = kept + 4;
    std::string directory = (fs::temp_directory_path() / "copy_start_test.XXXXXX").string();
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const auto log = [&](size_t n) { return directory + "/" + std::to_string(n); };
    for (size_t n = 0; n < all; ++n)
        snmp_enable_filelog(log(n).c_str(), truncating);
    const std::string opened = directory + "/opened";
    platform().tftp_get2.does([&](const char *, const char *, int) {
        for (size_t n = 0; n < 2 * all; ++n)
            open(opened.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        __real_snmp_log(LOG_ERR, "from the worker\n");
        return 0;
    });
    const int status = run(request(1));
    EXPECT_TRUE(WIFEXITED(status));
    __real_snmp_log(LOG_ERR, "from the agent\n");
    size_t with_worker = 0;
    for (size_t n = 0; n < all; ++n) {
        std::ifstream file(log(n));
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        const bool has_worker = text == "from the worker\nfrom the agent\n";
        EXPECT_TRUE(has_worker || text == "from the agent\n") << text;
        with_worker += has_worker ? 1 : 0;
    }
    snmp_disable_filelog();
    EXPECT_EQ(with_worker, kept);
    ASSERT_TRUE(fs::exists(opened));
    EXPECT_EQ(fs::file_size(opened), 0U);
    fs::remove_all(directory);
}

} // namespace

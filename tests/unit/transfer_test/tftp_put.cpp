// TFTP puts: the staging copy is made for real, in a working directory of the test's own.
#include "transfer.h"

#include "fakes/staging.h"

#include "flash_trace.h"

#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace transfers;

// TFTP: put. The staging copy is made for real, in a working directory of the test's own.

class TftpPutTest : public fakes::StagingTest {
  protected:
    void SetUp() override {
        StagingTest::SetUp();
        fs::create_directory(root_ / "flash");
        source_ = (root_ / "flash" / "image.bin").string();
        for (int i = 0; i < 3000; ++i)
            content_ += static_cast<char>(i % 256); // zero bytes and 0xff among them
        fakes::write(source_, content_);
    }
    flashCopyEntry put_request(const std::string &destination_name) const {
        return request(1, [&](flashCopyEntry &r) {
            fakes::put(r.sourcePath, source_);
            fakes::put(r.destinationName, destination_name);
        });
    }
    // Has the put keep what it was given to send.
    void watch_put(int result) {
        platform().tftp_put.does([this, result](const char *file, int) {
            existed_ = fs::exists(file);
            sent_ = fakes::content_of(file);
            return result;
        });
    }

    std::string source_;
    std::string content_;
    std::string sent_;
    bool existed_ = false;
};

TEST_F(TftpPutTest, SendsACopyOfTheSourceFileNamedAfterTheDestination) {
    flashCopyEntry row = put_request("backup.bin");
    watch_put(0);
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_EQ(row.copyStatus, untouched_status);
    EXPECT_TRUE(existed_);
    EXPECT_EQ(sent_, content_);
    EXPECT_THAT(tftp_calls(),
                ElementsAre("tftp_timeout_set seconds=20", "tftp_connect server=10.1.2.3 port=-1",
                            "tftp_put file=backup.bin flags=0"));
    EXPECT_THAT(fakes::calls("system"), IsEmpty());
    EXPECT_THAT(fakes::calls("chmod"), IsEmpty());
    EXPECT_THAT(os().agent_log, IsEmpty());
}

TEST_F(TftpPutTest, SendsAnEmptyFile) {
    fakes::write(source_, "");
    flashCopyEntry row = put_request("backup.bin");
    watch_put(0);
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_TRUE(existed_);
    EXPECT_EQ(sent_, "");
}

TEST_F(TftpPutTest, TheCopyReplacesAnOlderFileOfItsName) {
    fakes::write("backup.bin", std::string(10000, 'x'));
    flashCopyEntry row = put_request("backup.bin");
    watch_put(0);
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_EQ(sent_, content_);
}

TEST_F(TftpPutTest, TheCopyIsRemovedAfterASuccess) {
    flashCopyEntry row = put_request("backup.bin");
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_TRUE(fs::is_empty(fs::current_path()));
    EXPECT_EQ(fakes::content_of(source_), content_);
}

TEST_F(TftpPutTest, TheCopyIsLeftAfterAFailure) {
    flashCopyEntry row = put_request("backup.bin");
    platform().tftp_put.returns(-113);
    EXPECT_EQ(transfer(put_direction, row), flash::failure);
    EXPECT_EQ(fakes::content_of("backup.bin"), content_);
}

TEST_F(TftpPutTest, TracesASuccessfulPut) {
    flashCopyEntry row = put_request("backup.bin");
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    Traces expected = beginning();
    const Traces put = {
        {debug_level,
         "DEBUG : do_flash_upload_download : Putting the file (" + source_ + ")to the server\n"},
        {debug_level, "strlen of entry->flashCopyDestinationName is 10\n"},
        {debug_level, "The file to be copied is backup.bin\n"},
        {debug_level, "do_flash_upload_download : file to be copied is backup.bin\n"},
        {debug_level, "do_flash_upload_download : DEBUG File backup.bin is uploaded\n"}};
    expected.insert(expected.end(), put.begin(), put.end());
    EXPECT_EQ(fakes::traces(), expected);
}

TEST_F(TftpPutTest, EveryFailedPutIsATransferError) {
    for (int result : {-1, -2, -12, -16, -28, -101, -102, -112, -116, -128}) {
        SCOPED_TRACE(result);
        fakes::forget();
        flashCopyEntry row = put_request("backup.bin");
        platform().tftp_put.returns(result);
        EXPECT_EQ(transfer(put_direction, row), flash::failure);
        EXPECT_EQ(row.copyStatus, 14);
    }
}

TEST_F(TftpPutTest, TracesAFailedPut) {
    flashCopyEntry row = put_request("backup.bin");
    platform().tftp_put.returns(-113);
    EXPECT_EQ(transfer(put_direction, row), flash::failure);
    const Traces all = fakes::traces();
    ASSERT_GE(all.size(), 3U);
    EXPECT_EQ(Traces(all.end() - 3, all.end()),
              (Traces{{debug_level, "The file which was tried to be copied is backup.bin\n"},
                      {debug_level, "ERROR : do_flash_upload_download : Putting to  the tftp "
                                    "server failed : tftp text -113\n"},
                      {error_level, "do_flash_upload_download : Putting to  the tftp server "
                                    "failed : tftp text -113\n"}}));
    EXPECT_THAT(os().agent_log, IsEmpty());
}

TEST_F(TftpPutTest, ACopyThatCannotBeRemovedIsStillASuccess) {
    flashCopyEntry row = put_request("backup.bin");
    platform().tftp_put.does([](const char *file, int) {
        fs::remove(file);
        fs::create_directory(file);
        fakes::write(fs::path(file) / "occupied", "x");
        return 0;
    });
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_EQ(row.copyStatus, untouched_status);
    EXPECT_TRUE(
        fakes::traced(error_level, "do_flash_upload_download : temporary file NOT removed!!!!\n"));
}

TEST_F(TftpPutTest, NothingIsSaidOfTheCopyThatWasRemoved) {
    flashCopyEntry row = put_request("backup.bin");
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_THAT(fakes::trace_texts(error_level), IsEmpty());
}

// A staging copy that fails, with its destination name.
void expect_staging_failure(flashCopyEntry row) {
    const std::string source = row.sourcePath;
    // Should it be sent after all, a failure leaves the file in place.
    platform().tftp_put.always(-1);
    EXPECT_EQ(transfer(put_direction, row), flash::failure);
    EXPECT_EQ(row.copyStatus, 14);
    EXPECT_THAT(fakes::calls("tftp_put"), IsEmpty());
    EXPECT_EQ(fakes::last_trace(),
              (Trace{debug_level,
                     "do_flash_upload_download : STATUS_FILE_TRANSFERERR for " + source + "\n"}));
}

TEST_F(TftpPutTest, ASourceThatCannotBeOpenedIsATransferError) {
    fs::remove(source_);
    expect_staging_failure(put_request("backup.bin"));
}

TEST_F(TftpPutTest, ACopyThatCannotBeOpenedIsATransferError) {
    expect_staging_failure(put_request("no-such-directory/backup.bin"));
}

// The descriptors of this process that lead to a file.
std::vector<int> open_on(const fs::path &path) {
    std::vector<int> result;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry.path(), gone) == path)
            result.push_back(std::stoi(entry.path().filename()));
    }
    return result;
}

TEST_F(TftpPutTest, TheSourceIsLeftOpenWhenTheCopyCannotBeOpened) {
    expect_staging_failure(put_request("no-such-directory/backup.bin"));
    const std::vector<int> left = open_on(fs::canonical(source_));
    EXPECT_EQ(left.size(), 1U);
    for (const int descriptor : left)
        ::close(descriptor);
}

TEST_F(TftpPutTest, NothingIsLeftOpenOtherwise) {
    const std::string copy = (fs::current_path() / "backup.bin").string();
    for (const int result : {0, -113}) {
        SCOPED_TRACE(result);
        flashCopyEntry row = put_request("backup.bin");
        platform().tftp_put.returns(result);
        transfer(put_direction, row);
        EXPECT_THAT(open_on(fs::canonical(source_)), IsEmpty());
        EXPECT_THAT(open_on(copy), IsEmpty());
    }
}

TEST_F(TftpPutTest, ADirectoryOfTheDestinationNameIsATransferError) {
    fs::create_directory("backup.bin");
    expect_staging_failure(put_request("backup.bin"));
}

TEST_F(TftpPutTest, AFifoInTheCopysPlaceIsATransferErrorAndNoWaitBothWays) {
    os().system.passes_through();
    ASSERT_EQ(mkfifo("backup.bin", 0600), 0);
    ASSERT_EQ(mkfifo("image.bin", 0600), 0);
    for (const char *name : {"backup.bin", ""})
        expect_staging_failure(put_request(name));
}

TEST_F(TftpPutTest, ADeviceInTheCopysPlaceIsNotWrittenTo) {
    fs::create_symlink("/dev/null", "backup.bin");
    for (const char *name : {"/dev/null", "backup.bin"})
        expect_staging_failure(put_request(name));
}

// No file may become larger while it lives: to the writer that is a disk without space.
class FullDisk {
  public:
    explicit FullDisk(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &former_);
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{bytes, former_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        setrlimit(RLIMIT_FSIZE, &former_);
        std::signal(SIGXFSZ, handler_);
    }
    FullDisk(const FullDisk &) = delete;
    FullDisk &operator=(const FullDisk &) = delete;

  private:
    rlimit former_{};
    void (*handler_)(int) = SIG_DFL;
};

TEST_F(TftpPutTest, AFullDiskIsATransferError) {
    const FullDisk disk(1000);
    expect_staging_failure(put_request("backup.bin"));
}

TEST_F(TftpPutTest, AFullDiskIsNoticedForAFileSmallerThanABuffer) {
    fakes::write(source_, "x");
    const FullDisk disk(0);
    expect_staging_failure(put_request("backup.bin"));
}

TEST_F(TftpPutTest, WithoutADestinationNameTheSourceFileIsCopiedByTheShell) {
    flashCopyEntry row = put_request("");
    os().system.passes_through();
    watch_put(0);
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_EQ(sent_, content_);
    EXPECT_THAT(fakes::calls("system"), ElementsAre("system command=cp " + source_ + " ."));
    EXPECT_THAT(fakes::calls("tftp_put"), ElementsAre("tftp_put file=image.bin flags=0"));
    EXPECT_TRUE(fs::is_empty(fs::current_path()));
}

TEST_F(TftpPutTest, ANewCopyIsForItsOwnerAloneBothWays) {
    ASSERT_EQ(::chmod(source_.c_str(), 0666), 0);
    os().system.passes_through();
    fs::perms staged = fs::perms::none;
    platform().tftp_put.does([&](const char *file, int) {
        staged = fs::status(file).permissions();
        return 0;
    });
    for (const char *name : {"backup.bin", ""}) {
        flashCopyEntry row = put_request(name);
        const mode_t mask = umask(0);
        EXPECT_EQ(transfer(put_direction, row), flash::success);
        EXPECT_EQ(umask(mask), 0U) << "the umask is as it was";
        EXPECT_EQ(staged, fs::perms(0600)) << name;
    }
}

TEST_F(TftpPutTest, TheShellsCopyIsLeftAfterAFailure) {
    flashCopyEntry row = put_request("");
    os().system.passes_through();
    platform().tftp_put.returns(-113);
    EXPECT_EQ(transfer(put_direction, row), flash::failure);
    EXPECT_EQ(fakes::content_of("image.bin"), content_);
}

TEST_F(TftpPutTest, TracesAPutWithoutADestinationName) {
    flashCopyEntry row = put_request("");
    transfer(put_direction, row);
    const Traces expected = {
        {debug_level,
         "DEBUG : do_flash_upload_download : Putting the file (" + source_ + ")to the server\n"},
        {debug_level, "strlen of entry->flashCopyDestinationName is 0\n"},
        {debug_level, "No destination file specified..........\n"},
        {debug_level, "expanded source files is " + source_ + "\n"},
        {debug_level, "The file to be copied is image.bin\n"},
        {debug_level, "do_flash_upload_download : file to be copied is image.bin\n"}};
    EXPECT_EQ(picked(expected), expected);
}

TEST_F(TftpPutTest, AShellThatCannotBeRunIsATransferError) {
    os().system.returns(-1);
    expect_staging_failure(put_request(""));
}

TEST_F(TftpPutTest, AShellCopyThatFailsIsNotNoticed) {
    flashCopyEntry row = put_request("");
    os().system.returns(exited(1));
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_EQ(fakes::calls("tftp_put").size(), 1U);
}

TEST_F(TftpPutTest, WithoutADestinationNameTheSourcePathNeedsASlash) {
    flashCopyEntry row = put_request("");
    fakes::put(row.sourcePath, "image.bin");
    EXPECT_EQ(transfer(put_direction, row), flash::failure);
    EXPECT_EQ(row.copyStatus, 5);
    EXPECT_THAT(fakes::calls("system"), ElementsAre("system command=cp image.bin ."));
    EXPECT_THAT(fakes::calls("tftp_put"), IsEmpty());
    const Traces expected = {{debug_level, "No destination file specified..........\n"},
                             {debug_level, "expanded source files is image.bin\n"},
                             {debug_level, "No file specified\n"}};
    EXPECT_EQ(picked(expected), expected);
}

TEST_F(TftpPutTest, ADestinationNameOfTheLongestLengthIsStaged) {
    // 255 characters: a directory of 100 and a name of 154.
    const std::string directory(100, 'd');
    fs::create_directory(directory);
    const std::string name = directory + "/" + std::string(154, 'n');
    flashCopyEntry row = put_request(name);
    watch_put(0);
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_EQ(sent_, content_);
    EXPECT_THAT(fakes::calls("tftp_put"), ElementsAre("tftp_put file=" + name + " flags=0"));
    EXPECT_TRUE(fs::is_empty(directory));
}

TEST_F(TftpPutTest, TheLongestSourcePathIsCopiedByTheShell) {
    const std::string path = std::string("/").append(253, 'p');
    flashCopyEntry row = put_request("");
    fakes::put(row.sourcePath, path);
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_THAT(fakes::calls("system"), ElementsAre("system command=cp " + path + " ."));
    EXPECT_THAT(fakes::calls("tftp_put"),
                ElementsAre("tftp_put file=" + std::string(253, 'p') + " flags=0"));
}

} // namespace

// Transfers: what each protocol does in each direction, and what becomes of each outcome.
#include "fakes/fixture.h"
#include "fakes/staging.h"

#include "flash_trace.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <csignal>
#include <filesystem>
#include <ostream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

extern "C" int __real_system(const char *command);

namespace {

using namespace fakes;
namespace fs = std::filesystem;

constexpr int32_t get_direction = 1;
constexpr int32_t put_direction = 2;
constexpr int32_t untouched_status = 1;

// What `system` returns for a script that ended with an exit code.
constexpr int exited(int code) { return code << 8; }

int32_t transfer(int32_t direction, flashCopyEntry &row) {
    return do_flash_upload_download(direction, ".", &row);
}

flashCopyEntry request(int32_t protocol, const std::function<void(flashCopyEntry &)> &change = {}) {
    flashCopyEntry row = fakes::copy_row([&](flashCopyEntry &r) {
        r.protocol = protocol;
        r.serverAddress = inet_addr("10.1.2.3");
        r.copyStatus = untouched_status;
        fakes::put(r.sourceName, "remote.bin");
        fakes::put(r.destinationPath, "/bootflash/local.bin");
        fakes::put(r.sourcePath, "/bootflash/image.bin");
        fakes::put(r.remoteUserName, "bob");
        fakes::put(r.password, "secret");
    });
    if (change)
        change(row);
    return row;
}

// The messages with which every transfer begins.
Traces beginning(const std::string &source_name = "remote.bin",
                 const std::string &destination_path = "/bootflash/local.bin") {
    return {{debug_level, "do_flash_upload_download : Entering \n"},
            {debug_level, "In do_flash_upload_download trying to print the source file.\n"},
            {debug_level, "source file =" + source_name + "\n"},
            {debug_level, "In do_flash_upload_download trying to print the destination file.\n"},
            {debug_level, "destination file =" + destination_path + "\n"}};
}

Traces after_beginning(const Traces &more) {
    Traces all = beginning();
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

Lines tftp_calls() {
    Lines result = fakes::calls("tftp_");
    std::erase_if(result,
                  [](const std::string &line) { return line.starts_with("tftp_strerror"); });
    return result;
}

using TransferTest = fakes::FlashTest;

// Common beginning

TEST_F(TransferTest, EveryTransferBeginsWithTheSameMessages) {
    for (int32_t protocol : {1, 4, 5, 6, 9}) {
        SCOPED_TRACE(protocol);
        fakes::forget();
        flashCopyEntry row = request(protocol);
        transfer(get_direction, row);
        const Traces all = fakes::traces();
        ASSERT_GE(all.size(), 5U);
        EXPECT_EQ(Traces(all.begin(), all.begin() + 5), beginning());
    }
}

TEST_F(TransferTest, TheServerAddressIsTakenInNetworkOrder) {
    flashCopyEntry row = request(1, [](flashCopyEntry &r) {
        const uint8_t bytes[4] = {192, 0, 2, 254};
        std::memcpy(&r.serverAddress, bytes, sizeof bytes);
    });
    transfer(get_direction, row);
    EXPECT_EQ(fakes::calls("tftp_connect"), (Lines{"tftp_connect server=192.0.2.254 port=-1"}));
}

TEST_F(TransferTest, TheDirectoryIsIgnored) {
    flashCopyEntry row = request(4);
    do_flash_upload_download(get_direction, ".", &row);
    const Lines with_dot = fakes::everything();
    fakes::forget();
    do_flash_upload_download(get_direction, "/elsewhere", &row);
    EXPECT_EQ(fakes::everything(), with_dot);
}

TEST_F(TransferTest, AnUnknownProtocolIsATransferError) {
    for (int32_t protocol : {0, 2, 3, 7, -1, INT_MAX, INT_MIN})
        for (int32_t direction : {get_direction, put_direction}) {
            SCOPED_TRACE(protocol);
            fakes::forget();
            flashCopyEntry row = request(protocol);
            EXPECT_EQ(transfer(direction, row), flash::failure);
            EXPECT_EQ(row.copyStatus, 14);
            EXPECT_EQ(fakes::traces(),
                      after_beginning(
                          {{error_level, "do_flash_upload_download : Protocol not supported\n"}}));
            EXPECT_THAT(fakes::calls(), IsEmpty());
        }
}

// TFTP: set-up

TEST_F(TransferTest, ATftpTimeoutThatCannotBeSetIsATransferError) {
    flashCopyEntry row = request(1);
    platform().tftp_timeout_set.returns(-22);
    EXPECT_EQ(transfer(get_direction, row), flash::failure);
    EXPECT_EQ(row.copyStatus, 14);
    EXPECT_THAT(tftp_calls(), ElementsAre("tftp_timeout_set seconds=20"));
    EXPECT_EQ(fakes::traces(),
              after_beginning({{debug_level, "ERROR : do_flash_upload_download : Setting timeout "
                                             "failed : tftp text -22\n"}}));
    EXPECT_THAT(os().agent_log, IsEmpty());
}

TEST_F(TransferTest, ATftpServerThatCannotBeConnectedIsATransferError) {
    flashCopyEntry row = request(1);
    platform().tftp_connect.returns(-101);
    EXPECT_EQ(transfer(get_direction, row), flash::failure);
    EXPECT_EQ(row.copyStatus, 14);
    EXPECT_THAT(tftp_calls(),
                ElementsAre("tftp_timeout_set seconds=20", "tftp_connect server=10.1.2.3 port=-1"));
    EXPECT_EQ(fakes::traces(),
              after_beginning({{debug_level, "ERROR : do_flash_upload_download : Connecting to the "
                                             "tftp server failed : tftp text -101\n"}}));
}

TEST_F(TransferTest, TftpSetUpFailsOnNegativeResultsOnly) {
    flashCopyEntry row = request(1);
    platform().tftp_timeout_set.returns(1);
    platform().tftp_connect.returns(5);
    EXPECT_EQ(transfer(get_direction, row), flash::success);
    EXPECT_EQ(fakes::calls("tftp_get2").size(), 1U);
}

TEST_F(TransferTest, TftpInAnotherDirectionTransfersNothing) {
    for (int32_t direction : {0, 3, -1}) {
        SCOPED_TRACE(direction);
        fakes::forget();
        flashCopyEntry row = request(1);
        EXPECT_EQ(transfer(direction, row), flash::success);
        EXPECT_EQ(row.copyStatus, untouched_status);
        EXPECT_EQ(fakes::calls(),
                  (Lines{"tftp_timeout_set seconds=20", "tftp_connect server=10.1.2.3 port=-1"}));
        EXPECT_EQ(fakes::traces(), beginning());
    }
}

// TFTP: get

TEST_F(TransferTest, ATftpGetFetchesTheSourceNameIntoTheDestinationPath) {
    flashCopyEntry row = request(1);
    EXPECT_EQ(transfer(get_direction, row), flash::success);
    EXPECT_EQ(row.copyStatus, untouched_status);
    EXPECT_EQ(fakes::calls(),
              (Lines{"tftp_timeout_set seconds=20", "tftp_connect server=10.1.2.3 port=-1",
                     "tftp_get2 remote=remote.bin local=/bootflash/local.bin flags=0",
                     "snmp_log priority=7 text=DEBUG: file:remote.bin downloaded. \n",
                     "chmod path=/bootflash/local.bin mode=0666"}));
    EXPECT_EQ(
        fakes::traces(),
        after_beginning({{debug_level, "DEBUG :do_flash_upload_download :  File remote.bin is "
                                       "downloaded\n"}}));
}

TEST_F(TransferTest, ATftpGetAsksForTheWholeSourceName) {
    flashCopyEntry row =
        request(1, [](flashCopyEntry &r) { fakes::put(r.sourceName, "images/v2/remote.bin"); });
    EXPECT_EQ(transfer(get_direction, row), flash::success);
    EXPECT_THAT(fakes::calls("tftp_get2"),
                ElementsAre("tftp_get2 remote=images/v2/remote.bin local=/bootflash/local.bin "
                            "flags=0"));
    EXPECT_THAT(os().agent_log, ElementsAre(AgentLogLine{
                                    LOG_DEBUG, "DEBUG: file:images/v2/remote.bin downloaded. \n"}));
}

TEST_F(TransferTest, ATftpGetWhoseModeCannotBeSetStillSucceeds) {
    flashCopyEntry row = request(1);
    os().chmod.returns(-1, EPERM);
    EXPECT_EQ(transfer(get_direction, row), flash::success);
    EXPECT_EQ(row.copyStatus, untouched_status);
    EXPECT_EQ(
        fakes::last_trace(),
        (Trace{error_level, "do_flash_upload_download : Could not change the file "
                            "permissions to 666 after successful tftp copy. ret_code1=-1\n"}));
}

struct TftpError {
    int result;
    int32_t status;
};

TEST_F(TransferTest, TftpGetErrorsBecomeCopyStatuses) {
    const TftpError errors[] = {
        {-2, 5},    {-102, 5},   {-12, 16},  {-112, 16},        {-16, 8},      {-116, 8},
        {-28, 12},  {-128, 12},  {-1, 14},   {-101, 14},        {-100, 14},    {-3, 14},
        {-5, 14},   {-13, 14},   {-99, 14},  {-103, 14},        {-110, 14},    {-113, 14},
        {-200, 14}, {-201, 14},  {-202, 14}, {-212, 14},        {-216, 14},    {-228, 14},
        {-82, 14},  {-1000, 14}, {-256, 14}, {-2147483647, 14}, {INT_MIN, 14},
    };
    for (const TftpError &error : errors) {
        SCOPED_TRACE(error.result);
        fakes::forget();
        flashCopyEntry row = request(1);
        platform().tftp_get2.returns(error.result);
        EXPECT_EQ(transfer(get_direction, row), flash::failure);
        EXPECT_EQ(row.copyStatus, error.status);
    }
}

TEST_F(TransferTest, AFailedTftpGetIsTracedAndLogged) {
    flashCopyEntry row =
        request(1, [](flashCopyEntry &r) { fakes::put(r.sourceName, "images/remote.bin"); });
    platform().tftp_get2.returns(-102);
    EXPECT_EQ(transfer(get_direction, row), flash::failure);
    Traces expected = beginning("images/remote.bin");
    expected.push_back({debug_level, "ERROR : do_flash_upload_download : Getting from tftp server "
                                     "failed : tftp text -102\n"});
    EXPECT_EQ(fakes::traces(), expected);
    EXPECT_THAT(
        os().agent_log,
        ElementsAre(AgentLogLine{LOG_ERR, "ERROR: Getting file:images/remote.bin from tftp server "
                                          "failed Error=-102\n"},
                    AgentLogLine{LOG_ERR, "ERROR: Getting file to:remote.bin failed \n"}));
    EXPECT_THAT(fakes::calls("chmod"), IsEmpty());
}

TEST_F(TransferTest, AFailedTftpGetOfANameWithoutASlashNamesAllOfIt) {
    flashCopyEntry row = request(1);
    platform().tftp_get2.returns(-2);
    transfer(get_direction, row);
    ASSERT_EQ(os().agent_log.size(), 2U);
    EXPECT_EQ(os().agent_log[1].text, "ERROR: Getting file to:remote.bin failed \n");
}

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

// FTP, SCP, SFTP: one script each

struct Script {
    const char *name;
    int32_t protocol;
    const char *get_command;
    const char *put_command; // for the destination name "kept.bin"
    const char *command_before_remote_name;
    const char *command_after_remote_name;
    Traces get_messages; // between the common beginning and the command
    Traces put_messages;
    const char *command_message;
    const char *exit_message;
    const char *mode_message; // of a mode that cannot be set; null for a script whose mode is not
    uint32_t mode_level;
    int32_t status_of_exit_4;
};
std::ostream &operator<<(std::ostream &out, const Script &script) { return out << script.name; }

const Script scripts[] = {
    {"Ftp",
     4,
     "/ruma/bin/snmp.ftp.expect 10.1.2.3 remote.bin  /bootflash/local.bin bob \"secret\" get 3000",
     "/ruma/bin/snmp.ftp.expect 10.1.2.3 /bootflash/image.bin  kept.bin bob \"secret\" put 3000",
     "/ruma/bin/snmp.ftp.expect 10.1.2.3 /bootflash/image.bin  ",
     " bob \"secret\" put 3000",
     {{debug_level, "do_flash_upload_download : Getting file remote.bin to local file "
                    "/bootflash/local.bin \n"}},
     {{debug_level, "do_flash_upload_download : Putting the file (/bootflash/image.bin)to the "
                    "server (10.1.2.3)\n"}},
     "do_flash_upload_download : Command being executed for FTP: ",
     "do_flash_upload_download : Return code from ftp.expect is  ",
     nullptr,
     0,
     14},
    {"Scp",
     5,
     "/ruma/bin/scp.expect bob@10.1.2.3:remote.bin /bootflash/local.bin \"secret\" 2 600",
     "/ruma/bin/scp.expect /bootflash/image.bin bob@10.1.2.3:kept.bin \"secret\" 2 600",
     "/ruma/bin/scp.expect /bootflash/image.bin bob@10.1.2.3:",
     " \"secret\" 2 600",
     {{debug_level, "do_flash_upload_download : Copying thorugh SCP......\n"},
      {debug_level, "do_flash_upload_download : Getting file /bootflash/local.bin to local file "
                    "remote.bin \n"}},
     {{debug_level, "do_flash_upload_download : Copying thorugh SCP......\n"},
      {debug_level, "do_flash_upload_download : SCP: Putting the file (/bootflash/image.bin)to "
                    "the server (10.1.2.3)\n"}},
     "do_flash_upload_download : Command being executed for FTP: ",
     "do_flash_upload_download : Return code from scp.expect is  ",
     "do_flash_upload_download : Could not change the file permissions to 666 after successful "
     "scp copy. ret_code1=-1\n",
     error_level,
     18},
    {"Sftp",
     6,
     "/ruma/bin/sftp.expect 10.1.2.3 bob \"secret\"  get remote.bin /bootflash/local.bin 720",
     "/ruma/bin/sftp.expect 10.1.2.3 bob \"secret\"  put /bootflash/image.bin kept.bin 720",
     "/ruma/bin/sftp.expect 10.1.2.3 bob \"secret\"  put /bootflash/image.bin ",
     " 720",
     {{debug_level, "do_flash_upload_download : Getting file remote.bin to local file "
                    "/bootflash/local.bin \n"}},
     {{debug_level, "do_flash_upload_download : Putting the file (/bootflash/image.bin)to the "
                    "server (10.1.2.3)\n"}},
     "do_flash_upload_download : Command being executed for SFTP: ",
     "do_flash_upload_download : Return code from sftp.expect is  ",
     "do_flash_upload_download : Could not change the file permissions to 666 after successful "
     "sftp copy. ret_code1=-1\n",
     debug_level,
     14},
};

class ScriptTest : public fakes::FlashTest, public testing::WithParamInterface<Script> {
  protected:
    const Script &script = GetParam();

    flashCopyEntry get_request() const { return request(script.protocol); }
    flashCopyEntry put_request(const char *destination_name = "kept.bin") const {
        return request(script.protocol,
                       [&](flashCopyEntry &r) { fakes::put(r.destinationName, destination_name); });
    }
    Traces whole(const Traces &messages, const char *command, int exit_code) const {
        Traces all = after_beginning(messages);
        all.push_back({debug_level, std::string(script.command_message) + command + "\n"});
        all.push_back(
            {debug_level, std::string(script.exit_message) + std::to_string(exit_code) + "\n"});
        return all;
    }
    // The calls of a success after the script.
    Lines mode_change() const {
        return script.mode_message == nullptr ? Lines{}
                                              : Lines{"chmod path=/bootflash/local.bin mode=0666"};
    }
};

INSTANTIATE_TEST_SUITE_P(Scripts, ScriptTest, testing::ValuesIn(scripts),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(ScriptTest, AGetRunsTheScriptOnTheSourceNameAndTheDestinationPath) {
    flashCopyEntry row = get_request();
    EXPECT_EQ(transfer(get_direction, row), flash::success);
    EXPECT_EQ(row.copyStatus, untouched_status);
    EXPECT_THAT(fakes::calls("system"),
                ElementsAre(std::string("system command=") + script.get_command));
    EXPECT_EQ(fakes::traces(), whole(script.get_messages, script.get_command, 0));
    EXPECT_THAT(os().agent_log, IsEmpty());
    EXPECT_THAT(tftp_calls(), IsEmpty());
}

TEST_P(ScriptTest, APutRunsTheScriptOnTheSourcePathAndTheDestinationName) {
    flashCopyEntry row = put_request();
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_EQ(row.copyStatus, untouched_status);
    EXPECT_THAT(fakes::calls("system"),
                ElementsAre(std::string("system command=") + script.put_command));
    EXPECT_EQ(fakes::traces(), whole(script.put_messages, script.put_command, 0));
}

TEST_P(ScriptTest, AGetDoesNotUseTheDestinationName) {
    flashCopyEntry row = get_request();
    fakes::put(row.destinationName, "bootflash:local.bin");
    transfer(get_direction, row);
    EXPECT_THAT(fakes::calls("system"),
                ElementsAre(std::string("system command=") + script.get_command));
}

TEST_P(ScriptTest, APutWithoutADestinationNameUsesTheLastComponentOfTheSourcePath) {
    flashCopyEntry row = put_request("");
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_THAT(fakes::calls("system"),
                ElementsAre(std::string("system command=") + script.command_before_remote_name +
                            "image.bin" + script.command_after_remote_name));
    const Traces expected = {
        {debug_level, "do_flash_upload_download : No destination file specified\n"},
        {debug_level, "do_flash_upload_download :expanded source file is /bootflash/image.bin\n"},
        {debug_level, "tmp AFTER the strrchr is /image.bin\n"},
        {debug_level, "tmp_file should be picked from here and is  image.bin\n"},
        {debug_level, "do_flash_upload_download :tmp_file isimage.bin\n"}};
    EXPECT_EQ(picked(expected), expected);
}

TEST_P(ScriptTest, APutWithoutADestinationNameNeedsASlashInTheSourcePath) {
    flashCopyEntry row = put_request("");
    fakes::put(row.sourcePath, "image.bin");
    EXPECT_EQ(transfer(put_direction, row), flash::failure);
    EXPECT_EQ(row.copyStatus, 5);
    EXPECT_THAT(fakes::calls(), IsEmpty());
    const Traces expected = {
        {debug_level, "do_flash_upload_download : No destination file specified\n"},
        {debug_level, "do_flash_upload_download :expanded source file is image.bin\n"},
        {debug_level, "No file specified\n"},
        {error_level, "do_flash_upload_download :No file specified\n"}};
    EXPECT_EQ(picked(expected), expected);
}

TEST_P(ScriptTest, APutWithADestinationNameTakesASourcePathWithoutASlash) {
    flashCopyEntry row = put_request();
    fakes::put(row.sourcePath, "image.bin");
    EXPECT_EQ(transfer(put_direction, row), flash::success);
}

TEST_P(ScriptTest, AGetDoesNotNeedASlashAnywhere) {
    flashCopyEntry row = get_request();
    fakes::put(row.sourcePath, "");
    fakes::put(row.destinationPath, "local.bin");
    EXPECT_EQ(transfer(get_direction, row), flash::success);
}

TEST_P(ScriptTest, ExitCodesBecomeCopyStatuses) {
    const struct {
        int code;
        int32_t status;
    } outcomes[] = {{1, 8},    {2, 5},    {3, 16},   {4, script.status_of_exit_4},
                    {5, 14},   {6, 14},   {12, 14},  {126, 14},
                    {127, 14}, {128, 14}, {254, 14}, {255, 14}};
    for (const auto &outcome : outcomes)
        for (int32_t direction : {get_direction, put_direction}) {
            SCOPED_TRACE(outcome.code);
            fakes::forget();
            flashCopyEntry row = put_request();
            os().system.returns(exited(outcome.code));
            EXPECT_EQ(transfer(direction, row), flash::failure);
            EXPECT_EQ(row.copyStatus, outcome.status);
            EXPECT_EQ(
                fakes::last_trace(),
                (Trace{debug_level, script.exit_message + std::to_string(outcome.code) + "\n"}));
            EXPECT_THAT(fakes::calls("chmod"), IsEmpty());
        }
}

TEST_P(ScriptTest, ExitCodeZeroIsSuccessAndSetsTheModeInBothDirections) {
    for (int32_t direction : {get_direction, put_direction}) {
        SCOPED_TRACE(direction);
        fakes::forget();
        flashCopyEntry row = put_request();
        EXPECT_EQ(transfer(direction, row), flash::success);
        EXPECT_EQ(row.copyStatus, untouched_status);
        EXPECT_EQ(fakes::calls("chmod"), mode_change());
    }
}

TEST_P(ScriptTest, AScriptKilledByASignalCountsAsSuccess) {
    for (int signal : {9, 15, 0x80 | 11}) {
        SCOPED_TRACE(signal);
        fakes::forget();
        flashCopyEntry row = get_request();
        os().system.returns(signal);
        EXPECT_EQ(transfer(get_direction, row), flash::success);
        EXPECT_EQ(row.copyStatus, untouched_status);
        EXPECT_EQ(fakes::traces(), whole(script.get_messages, script.get_command, 0));
        EXPECT_EQ(fakes::calls("chmod"), mode_change());
    }
}

TEST_P(ScriptTest, ExitCodesOfARealShellAreRead) {
    flashCopyEntry row = get_request();
    os().system.does([](const char *) { return __real_system("exit 3"); });
    EXPECT_EQ(transfer(get_direction, row), flash::failure);
    EXPECT_EQ(row.copyStatus, 16);
}

TEST_P(ScriptTest, AScriptThatCannotBeRunIsATransferError) {
    for (int32_t direction : {get_direction, put_direction}) {
        SCOPED_TRACE(direction);
        const bool get = direction == get_direction;
        fakes::forget();
        flashCopyEntry row = put_request();
        os().system.returns(-1, EAGAIN);
        EXPECT_EQ(transfer(direction, row), flash::failure);
        EXPECT_EQ(row.copyStatus, 14);
        Traces expected = after_beginning(get ? script.get_messages : script.put_messages);
        expected.push_back({debug_level, std::string(script.command_message) +
                                             (get ? script.get_command : script.put_command) +
                                             "\n"});
        if (script.protocol == flash::protocolScp)
            expected.push_back({error_level, "do_flash_upload_download : Command executed for SCP "
                                             "returned error=-1\n"});
        EXPECT_EQ(fakes::traces(), expected);
        EXPECT_THAT(fakes::calls("chmod"), IsEmpty());
    }
}

TEST_P(ScriptTest, AModeThatCannotBeSetNeverFailsTheCopy) {
    for (int32_t direction : {get_direction, put_direction}) {
        SCOPED_TRACE(direction);
        fakes::forget();
        flashCopyEntry row = put_request();
        os().chmod.always(-1, ENOENT);
        EXPECT_EQ(transfer(direction, row), flash::success);
        EXPECT_EQ(row.copyStatus, untouched_status);
        const Trace exit_trace{debug_level, std::string(script.exit_message) + "0\n"};
        const Trace last = script.mode_message == nullptr
                               ? exit_trace
                               : Trace{script.mode_level, script.mode_message};
        EXPECT_EQ(fakes::last_trace(), last);
        EXPECT_EQ(fakes::trace_texts(error_level),
                  script.mode_level == error_level ? Lines{script.mode_message} : Lines{});
    }
}

TEST_P(ScriptTest, TheLongestFieldsAreRunWhole) {
    const std::string source_name(255, 's');
    const std::string source_path = std::string("/").append(253, 'p');
    const std::string destination_name(255, 'd');
    const std::string destination_path(254, 'l');
    const std::string user(255, 'u');
    std::string password;
    for (int i = 0; i < 40; ++i)
        password += "\\$";
    flashCopyEntry row = request(script.protocol, [&](flashCopyEntry &r) {
        r.serverAddress = inet_addr("255.255.255.255");
        fakes::put(r.sourceName, source_name);
        fakes::put(r.sourcePath, source_path);
        fakes::put(r.destinationName, destination_name);
        fakes::put(r.destinationPath, destination_path);
        fakes::put(r.remoteUserName, user);
        fakes::put(r.password, password);
    });
    std::string get;
    std::string put;
    const std::string quoted = std::string(1, '"').append(password).append(1, '"');
    const std::string server = "255.255.255.255";
    if (script.protocol == flash::protocolFtp) {
        const std::string begin = "/ruma/bin/snmp.ftp.expect " + server + " ";
        const std::string end = " " + user + " " + quoted + " ";
        get = begin + source_name + "  " + destination_path + end + "get 3000";
        put = begin + source_path + "  " + destination_name + end + "put 3000";
    } else if (script.protocol == flash::protocolScp) {
        const std::string begin = "/ruma/bin/scp.expect ";
        const std::string account = user + "@" + server + ":";
        get = begin + account + source_name + " " + destination_path + " " + quoted + " 2 600";
        put = begin + source_path + " " + account + destination_name + " " + quoted + " 2 600";
    } else {
        const std::string begin =
            "/ruma/bin/sftp.expect " + server + " " + user + " " + quoted + "  ";
        get = begin + "get " + source_name + " " + destination_path + " 720";
        put = begin + "put " + source_path + " " + destination_name + " 720";
    }
    EXPECT_EQ(transfer(get_direction, row), flash::success);
    EXPECT_EQ(transfer(put_direction, row), flash::success);
    EXPECT_EQ(fakes::calls("system"), (Lines{"system command=" + get, "system command=" + put}));
}

TEST_P(ScriptTest, ThePasswordIsPassedAsTheRowHoldsIt) {
    flashCopyEntry row = get_request();
    fakes::put(row.password, "a\\\"b\\$c\\\\d");
    transfer(get_direction, row);
    const Lines run = fakes::calls("system");
    ASSERT_EQ(run.size(), 1U);
    EXPECT_NE(run[0].find(" \"a\\\"b\\$c\\\\d\" "), std::string::npos) << run[0];
}

TEST_P(ScriptTest, AnEmptyUserAndPasswordKeepTheirPlaces) {
    flashCopyEntry row = get_request();
    fakes::put(row.remoteUserName, "");
    fakes::put(row.password, "");
    transfer(get_direction, row);
    std::string expected = script.get_command;
    expected.replace(expected.find("\"secret\""), 8, "\"\"");
    expected.erase(expected.find("bob"), 3);
    EXPECT_THAT(fakes::calls("system"), ElementsAre("system command=" + expected));
}

} // namespace

// Transfers in the strict build: resolved paths that it refuses, and how it stages a file.
#include "fakes/fixture.h"
#include "fakes/staging.h"

#include <arpa/inet.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace fakes;
namespace fs = std::filesystem;

constexpr int32_t get_direction = 1;
constexpr int32_t put_direction = 2;

constexpr int32_t scripted[] = {flash::protocolFtp, flash::protocolScp, flash::protocolSftp};

// Paths that no shell should see: each is that of a file in a directory of an unusual name.
const char *const refused[] = {"/flash/x;touch marker;true /image",
                               "/flash/two words/image",
                               "/flash/$(true)/image",
                               "/flash/`true`/image",
                               "/flash/a&b/image",
                               "/flash/a|b/image",
                               "/flash/a>b/image",
                               "/flash/it's/image",
                               "/flash/a\nb/image",
                               "/flash/a\\b/image",
                               "/flash/a*/image",
                               "/flash/~/image",
                               "/flash/a:b/image",
                               "/flash/\xc3\xa4/image"};

flashCopyEntry row(int32_t protocol, const char *source_path, const char *destination_path) {
    return fakes::copy_row([&](flashCopyEntry &r) {
        r.protocol = protocol;
        r.serverAddress = inet_addr("10.1.2.3");
        r.copyStatus = flash::copyInProgress;
        fakes::put(r.sourceName, "remote.bin");
        fakes::put(r.sourcePath, source_path);
        fakes::put(r.destinationPath, destination_path);
        fakes::put(r.remoteUserName, "bob");
        fakes::put(r.password, "secret");
    });
}

using StrictTransferTest = fakes::FlashTest;

TEST_F(StrictTransferTest, AScriptIsNotRunForARefusedDestinationPath) {
    for (const int32_t protocol : scripted)
        for (const char *path : refused) {
            SCOPED_TRACE(std::to_string(protocol) + " " + path);
            flashCopyEntry entry = row(protocol, "", path);
            EXPECT_EQ(do_flash_upload_download(get_direction, ".", &entry), flash::failure);
            EXPECT_EQ(entry.copyStatus, 14);
            EXPECT_THAT(fakes::calls("system"), IsEmpty());
        }
}

TEST_F(StrictTransferTest, AScriptIsNotRunForARefusedSourcePath) {
    for (const int32_t protocol : scripted)
        for (const char *path : refused)
            for (const char *destination_name : {"", "sent.bin"}) {
                SCOPED_TRACE(std::to_string(protocol) + " " + path);
                flashCopyEntry entry = row(protocol, path, "");
                fakes::put(entry.destinationName, destination_name);
                EXPECT_EQ(do_flash_upload_download(put_direction, ".", &entry), flash::failure);
                EXPECT_EQ(entry.copyStatus, 14);
                EXPECT_THAT(fakes::calls("system"), IsEmpty());
            }
}

TEST_F(StrictTransferTest, AScriptIsRunForAnOrdinaryPathWhateverTheUnusedOneIs) {
    for (const int32_t protocol : scripted) {
        SCOPED_TRACE(protocol);
        fakes::forget();
        flashCopyEntry get = row(protocol, "/of/an earlier copy", "/flash/dir-1/a_b+c.bin");
        EXPECT_EQ(do_flash_upload_download(get_direction, ".", &get), flash::success);
        flashCopyEntry put = row(protocol, "/flash/dir-1/a_b+c.bin", "/of/an earlier copy");
        EXPECT_EQ(do_flash_upload_download(put_direction, ".", &put), flash::success);
        EXPECT_EQ(fakes::calls("system").size(), 2U);
    }
}

TEST_F(StrictTransferTest, ATftpGetTakesAnyPathForNoShellSeesIt) {
    for (const char *path : refused) {
        flashCopyEntry entry = row(flash::protocolTftp, "", path);
        EXPECT_EQ(do_flash_upload_download(get_direction, ".", &entry), flash::success) << path;
    }
}

// Staging is done for real, in a working directory of the test's own.
class StrictStagingTest : public fakes::StagingTest {
  protected:
    void SetUp() override {
        StagingTest::SetUp();
        fs::create_directories(root_ / "flash/two words");
        for (const char *directory : {"flash", "flash/two words"})
            fakes::write(root_ / directory / "image.bin", "content");
        platform().tftp_put.does([this](const char *file, int) {
            sent_ = fakes::content_of(file);
            struct stat status {};
            mode_ = ::stat(file, &status) == 0 ? status.st_mode & 07777 : 0;
            return result_;
        });
    }

    // Sends a file of the flash directory by TFTP: the copy's status, or 0 after a success.
    int32_t send(const char *destination_name, const char *source = "image.bin") {
        sent_.clear();
        flashCopyEntry entry = row(flash::protocolTftp, (root_ / "flash" / source).c_str(), "");
        fakes::put(entry.destinationName, destination_name);
        const int32_t result = do_flash_upload_download(put_direction, ".", &entry);
        return result == flash::success ? 0 : entry.copyStatus;
    }

    std::string sent_; // empty when nothing was
    mode_t mode_ = 0;  // of the staged file
    int result_ = 0;
};

constexpr const char *own_name = ""; // staged under the source's own name, else under this one
const char *const both_ways[] = {own_name, "image.bin"};

TEST_F(StrictStagingTest, AFileIsSentFromACopyForItsOwnerAlone) {
    for (const char *name : both_ways) {
        const mode_t mask = umask(0);
        EXPECT_EQ(send(name), 0);
        EXPECT_EQ(umask(mask), 0U) << "the umask is as it was";
        EXPECT_EQ(sent_, "content");
        EXPECT_EQ(mode_, 0600U);
        EXPECT_TRUE(fs::is_empty(root_ / "work"));
    }
    EXPECT_THAT(fakes::calls("system"), IsEmpty());
    EXPECT_THAT(fakes::calls("tftp_put"),
                ElementsAre("tftp_put file=image.bin flags=0", "tftp_put file=image.bin flags=0"));
}

TEST_F(StrictStagingTest, AFileThatStandsThereIsNotReplaced) {
    for (const char *name : both_ways) {
        fakes::write("image.bin", "precious");
        EXPECT_EQ(send(name), 14);
        EXPECT_EQ(sent_, "");
        EXPECT_EQ(fakes::content_of("image.bin"), "precious");
    }
}

TEST_F(StrictStagingTest, ALinkThatStandsThereIsNotFollowed) {
    fakes::write(root_ / "victim", "victim");
    for (const char *target : {"../victim", "../nothing"})
        for (const char *name : both_ways) {
            fs::remove("image.bin");
            fs::create_symlink(target, "image.bin");
            EXPECT_EQ(send(name), 14);
            EXPECT_EQ(sent_, "");
            EXPECT_TRUE(fs::is_symlink("image.bin"));
        }
    EXPECT_EQ(fakes::content_of(root_ / "victim"), "victim");
    EXPECT_FALSE(fs::exists(root_ / "nothing"));
}

TEST_F(StrictStagingTest, AFifoThatStandsThereHoldsNothingUp) {
    ASSERT_EQ(mkfifo("image.bin", 0666), 0);
    for (const char *name : both_ways)
        EXPECT_EQ(send(name), 14);
}

TEST_F(StrictStagingTest, AFailedSendLeavesItsCopyWhichBlocksTheNextOfThatName) {
    for (const char *name : both_ways) {
        result_ = -1;
        EXPECT_EQ(send(name), 14);
        EXPECT_EQ(fakes::content_of("image.bin"), "content");
        result_ = 0;
        EXPECT_EQ(send(name), 14);
        fs::remove("image.bin");
        EXPECT_EQ(send(name), 0);
    }
}

TEST_F(StrictStagingTest, ARefusedPathIsNotStagedUnderItsOwnName) {
    EXPECT_EQ(send(own_name, "two words/image.bin"), 14);
    EXPECT_TRUE(fs::is_empty(root_ / "work"));
    EXPECT_THAT(fakes::calls("tftp_put"), IsEmpty());
}

TEST_F(StrictStagingTest, UnderAnotherNameNoShellSeesThePath) {
    EXPECT_EQ(send("sent.bin", "two words/image.bin"), 0);
    EXPECT_EQ(sent_, "content");
}

TEST_F(StrictStagingTest, AnotherDirectoryIsNoPlaceToStage) {
    EXPECT_EQ(send("../sent.bin"), 14);
    EXPECT_FALSE(fs::exists(root_ / "sent.bin"));
}

TEST_F(StrictStagingTest, ASourceThatIsNotThereIsNoticed) {
    for (const char *name : both_ways)
        EXPECT_EQ(send(name, "missing"), 14);
}

TEST_F(StrictStagingTest, APathWithoutASlashHasNoNameOfItsOwn) {
    flashCopyEntry entry = row(flash::protocolTftp, "image.bin", "");
    EXPECT_EQ(do_flash_upload_download(put_direction, ".", &entry), flash::failure);
    EXPECT_EQ(entry.copyStatus, 5);
}

} // namespace

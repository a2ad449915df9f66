// What a TFTP send leaves in the working directory when it cannot be staged.
#include "fakes/staging.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

using Staging = fakes::StagingTest;

TEST_F(Staging, ASourceThatCannotBeOpenedLeavesNothing) {
    flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) {
        r.protocol = flash::protocolTftp;
        fakes::put(r.sourcePath, "missing/image.bin");
        fakes::put(r.destinationName, "staged.bin");
    });
    EXPECT_EQ(do_flash_upload_download(flash::directionFromFlash, ".", &row), flash::failure);
    EXPECT_EQ(row.copyStatus, flash::STATUS_FILE_TRANSFERERR);
    EXPECT_TRUE(fs::is_empty("."));
}

TEST_F(Staging, ADestinationNameOfOneCharacterIsANameAsAnyOther) {
    fakes::write("source", "content");
    flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) {
        fakes::put(r.sourcePath, "source");
        fakes::put(r.destinationName, "x");
    });
    row.protocol = flash::protocolTftp;
    EXPECT_EQ(do_flash_upload_download(flash::directionFromFlash, ".", &row), flash::success);
    EXPECT_EQ(fakes::calls("tftp_put"), (fakes::Lines{"tftp_put file=x flags=0"}));
    EXPECT_TRUE(fakes::calls("system").empty());

    row.protocol = flash::protocolScp;
    EXPECT_EQ(do_flash_upload_download(flash::directionFromFlash, ".", &row), flash::success);
    EXPECT_THAT(fakes::calls("system"), testing::ElementsAre(testing::HasSubstr(":x ")));
}

TEST_F(Staging, AFifoUnderADestinationNameOfOneCharacterIsRefused) {
    ASSERT_EQ(mkfifo("x", 0600), 0);
    const int reader = open("x", O_RDONLY | O_NONBLOCK); // opening it for writing would not block
    fakes::write("source", "content");
    flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) {
        r.protocol = flash::protocolTftp;
        fakes::put(r.sourcePath, "source");
        fakes::put(r.destinationName, "x");
    });
    EXPECT_EQ(do_flash_upload_download(flash::directionFromFlash, ".", &row), flash::failure);
    EXPECT_EQ(row.copyStatus, flash::STATUS_FILE_TRANSFERERR);
    ::close(reader);
}

TEST_F(Staging, ARefusalLeavesTheMaskOfNewFilesAsItWas) {
    ASSERT_EQ(mkfifo("staged.bin", 0600), 0);
    flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) {
        r.protocol = flash::protocolTftp;
        fakes::put(r.sourcePath, "source");
        fakes::put(r.destinationName, "staged.bin");
    });
    const mode_t former = umask(022);
    EXPECT_EQ(do_flash_upload_download(flash::directionFromFlash, ".", &row), flash::failure);
    EXPECT_EQ(umask(former), 022U);
}

} // namespace

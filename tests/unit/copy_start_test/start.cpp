// Start of a copy: the agent's side, and the worker's job within this process.
#include "request.h"

#include "flash_trace.h"

#include <algorithm>
#include <climits>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace copy_start;

using CopyStartTest = fakes::FlashTest;

// The agent's side

TEST_F(CopyStartTest, TheAgentReturnsTheCopyStatus) {
    for (int32_t status : {1, 3, 14, 17}) {
        SCOPED_TRACE(status);
        flashCopyEntry row = request(1);
        row.copyStatus = status;
        EXPECT_EQ(start_flash_copy(&row), status);
        EXPECT_EQ(row.copyStatus, status);
    }
}

TEST_F(CopyStartTest, TheAgentReturnsZeroWhenTheCopyStatusIsSuccess) {
    flashCopyEntry row = request(1);
    row.copyStatus = 2;
    EXPECT_EQ(start_flash_copy(&row), 0);
}

TEST_F(CopyStartTest, TheAgentTracesTheStart) {
    flashCopyEntry row = request(1);
    start_flash_copy(&row);
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "Entered start_flash_copy()...\n"},
                      {debug_level, "DEBUG : start_flash_copy : Done starting the copy\n"},
                      {debug_level, "DEBUG : start_flash_copy : Copy returned with status 1\n"}}));
}

TEST_F(CopyStartTest, TheAgentForksOnceAndTransfersNothingItself) {
    flashCopyEntry row = request(1);
    start_flash_copy(&row);
    EXPECT_EQ(fakes::calls(), (Lines{"fork"}));
}

TEST_F(CopyStartTest, TheWorkersProcessIdIsKept) {
    flashCopyEntry row = request(1);
    os().fork.returns(5001).returns(5002);
    start_flash_copy(&row);
    EXPECT_EQ(flash_copy_pid, 5001);
    start_flash_copy(&row);
    EXPECT_EQ(flash_copy_pid, 5002);
}

TEST_F(CopyStartTest, AFailedForkIsKeptAsMinusOneAndNotReported) {
    flashCopyEntry row = request(1);
    flash_copy_pid = 5001;
    os().fork.returns(-1, EAGAIN);
    EXPECT_EQ(start_flash_copy(&row), 1);
    EXPECT_EQ(flash_copy_pid, -1);
    EXPECT_EQ(row.copyStatus, 1);
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "Entered start_flash_copy()...\n"},
                      {debug_level, "DEBUG : start_flash_copy : Done starting the copy\n"},
                      {debug_level, "DEBUG : start_flash_copy : Copy returned with status 1\n"}}));
    EXPECT_THAT(platform().sent, IsEmpty());
}

// The worker's job

// The status messages sent, as {status, row}.
std::vector<std::pair<int32_t, int32_t>> sent() {
    std::vector<std::pair<int32_t, int32_t>> result;
    for (const fakes::SentMessage &message : platform().sent)
        result.emplace_back(message.word(0), message.word(1));
    return result;
}

// A failing transfer of each status.
struct Failure {
    int32_t protocol;
    int result; // of the TFTP client or of `system`
    int32_t status;
};
const Failure failures[] = {
    {flash::protocolTftp, -2, 5},     {flash::protocolTftp, -16, 8},
    {flash::protocolTftp, -28, 12},   {flash::protocolTftp, -1, 14},
    {flash::protocolTftp, -12, 16},   {flash::protocolFtp, 1 << 8, 8},
    {flash::protocolFtp, 2 << 8, 5},  {flash::protocolFtp, 3 << 8, 16},
    {flash::protocolFtp, 9 << 8, 14}, {flash::protocolScp, 4 << 8, 18},
    {flash::protocolSftp, -1, 14},
};

TEST_F(CopyStartTest, ACopyToFlashThatSucceedsSendsStatus2) {
    for (int32_t command : {1, 2}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = request(command);
        flash_copy_function(&row);
        EXPECT_THAT(sent(), ElementsAre(std::pair(2, 7)));
        EXPECT_THAT(fakes::calls("tftp_get2"),
                    ElementsAre("tftp_get2 remote=remote.bin local=/bootflash/local.bin flags=0"));
    }
}

TEST_F(CopyStartTest, ACopyToFlashThatFailsSendsTheTransfersStatus) {
    for (int32_t command : {1, 2})
        for (const Failure &failure : failures) {
            SCOPED_TRACE(failure.status);
            fakes::forget();
            flashCopyEntry row = request(command, failure.protocol);
            platform().tftp_get2.always(failure.result);
            os().system.always(failure.result);
            flash_copy_function(&row);
            EXPECT_THAT(sent(), ElementsAre(std::pair(failure.status, 7)));
        }
}

TEST_F(CopyStartTest, ACopyToFlashThatSucceedsIsTraced) {
    for (int32_t command : {1, 2}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = request(command);
        flash_copy_function(&row);
        const Traces all = fakes::traces();
        ASSERT_GE(all.size(), 2U);
        EXPECT_EQ(all.front(),
                  (Trace{debug_level, "DEBUG  flash_copy_function : Copy TO flash\n"}));
        EXPECT_EQ(all.back(), (Trace{debug_level, "sending a FAILURE message to proc=" +
                                                      std::to_string(getppid()) + "\n"}));
        for (const Trace &trace : all)
            EXPECT_EQ(trace.text.find("calling write_to_pipe"), std::string::npos) << trace.text;
    }
}

TEST_F(CopyStartTest, ACopyToFlashThatFailsIsTraced) {
    for (int32_t command : {1, 2}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = request(command);
        platform().tftp_get2.always(-28);
        flash_copy_function(&row);
        const Traces expected = {
            {debug_level, "DEBUG  flash_copy_function : Copy TO flash\n"},
            {debug_level, "ERROR : do_flash_upload_download : Getting from tftp server failed : "
                          "tftp text -28\n"},
            {debug_level, "DEBUG : flash_copy_function : Download of file remote.bin to FLASH "
                          "failed.\n"},
            {debug_level, "calling write_to_pipe with status =12\n"},
            {debug_level, "sending a FAILURE message to proc=" + std::to_string(getppid()) + "\n"}};
        EXPECT_EQ(picked(expected), expected);
    }
}

TEST_F(CopyStartTest, TheParentIsNamedAfterTheMessageWasSent) {
    for (int result : {0, -2}) {
        SCOPED_TRACE(result);
        fakes::forget();
        flashCopyEntry row = request(1);
        platform().tftp_get2.always(result);
        flash_copy_function(&row);
        const Lines all = fakes::everything();
        const auto begins = [&all](const char *with) {
            return std::find_if(all.begin(), all.end(),
                                [&](const std::string &line) { return line.starts_with(with); });
        };
        const auto message = begins("pmb_send ");
        const auto named = begins("trace 101 sending a FAILURE message to proc=");
        ASSERT_NE(message, all.end());
        ASSERT_NE(named, all.end());
        EXPECT_LT(message - all.begin(), named - all.begin());
    }
}

TEST_F(CopyStartTest, ACopyFromFlashThatSucceedsSendsStatus2) {
    flashCopyEntry row = request(3, flash::protocolSftp);
    flash_copy_function(&row);
    EXPECT_THAT(sent(), ElementsAre(std::pair(2, 7)));
    const Lines run = fakes::calls("system");
    ASSERT_EQ(run.size(), 1U);
    EXPECT_NE(run[0].find(" put /bootflash/image.bin kept.bin "), std::string::npos) << run[0];
}

TEST_F(CopyStartTest, ACopyFromFlashThatFailsSendsTheTransfersStatus) {
    for (const Failure &failure : failures) {
        if (failure.protocol == flash::protocolTftp)
            continue;
        SCOPED_TRACE(failure.status);
        fakes::forget();
        flashCopyEntry row = request(3, failure.protocol);
        os().system.always(failure.result);
        flash_copy_function(&row);
        EXPECT_THAT(sent(), ElementsAre(std::pair(failure.status, 7)));
    }
}

TEST_F(CopyStartTest, ACopyFromFlashThatFailsIsTraced) {
    flashCopyEntry row = request(3, flash::protocolFtp);
    os().system.always(2 << 8);
    flash_copy_function(&row);
    const Traces expected = {
        {debug_level, "do_flash_upload_download : Return code from ftp.expect is  2\n"},
        {debug_level, "DEBUG : flash_copy_function : Upload of file remote.bin from FLASH "
                      "failed.\n"},
        {debug_level, "flash_copy_function : Upload of file remote.bin from FLASH failed.\n"}};
    EXPECT_EQ(picked(expected), expected);
}

TEST_F(CopyStartTest, ACopyFromFlashDoesNotNameTheParent) {
    for (int result : {0, 2 << 8}) {
        SCOPED_TRACE(result);
        fakes::forget();
        flashCopyEntry row = request(3, flash::protocolFtp);
        os().system.always(result);
        flash_copy_function(&row);
        for (const Trace &trace : fakes::traces()) {
            EXPECT_FALSE(trace.text.starts_with("sending a FAILURE message")) << trace.text;
            EXPECT_FALSE(trace.text.ends_with("Copy TO flash\n")) << trace.text;
        }
    }
}

TEST_F(CopyStartTest, AnyOtherCommandSendsTheRowsStatusWithoutATransfer) {
    for (int32_t command : {0, 4, 5, -1, INT_MAX})
        for (int32_t status : {1, 17}) {
            SCOPED_TRACE(command);
            fakes::forget();
            flashCopyEntry row = request(command);
            row.copyStatus = status;
            flash_copy_function(&row);
            EXPECT_THAT(sent(), ElementsAre(std::pair(status, 7)));
            EXPECT_THAT(fakes::calls("tftp_"), IsEmpty());
            EXPECT_THAT(fakes::calls("system"), IsEmpty());
        }
}

// The worker as the child of the fork, in this process

TEST_F(CopyStartTest, TheWorkerExitsWithZeroWhateverTheOutcome) {
    for (int32_t command : {1, 2, 3, 4})
        for (int result : {0, -2}) {
            SCOPED_TRACE(command);
            fakes::forget();
            flashCopyEntry row = request(command);
            fakes::put(row.sourcePath, "/dev/null");
            fakes::put(row.destinationName, "/dev/null");
            os().unlink.always(-1, EPERM); // /dev/null is the staging copy
            platform().tftp_get2.always(result);
            platform().tftp_put.always(-2);
            const auto code = fakes::run_as_child([&row] { start_flash_copy(&row); });
            EXPECT_EQ(code, 0);
            EXPECT_EQ(platform().sent.size(), 1U);
        }
}

TEST_F(CopyStartTest, TheWorkerIsNoWorkersParent) {
    flashCopyEntry row = request(1);
    int32_t seen = -2;
    platform().tftp_get2.does([&seen](const char *, const char *, int) {
        seen = flash_copy_pid;
        return 0;
    });
    fakes::run_as_child([&row] { start_flash_copy(&row); });
    EXPECT_EQ(seen, 0);
}

TEST_F(CopyStartTest, TheWorkerDoesNotTraceTheAgentsSide) {
    flashCopyEntry row = request(1);
    fakes::run_as_child([&row] { start_flash_copy(&row); });
    EXPECT_TRUE(fakes::traced(debug_level, "Entered start_flash_copy()...\n"));
    EXPECT_FALSE(fakes::traced(debug_level, "DEBUG : start_flash_copy : Done starting the copy\n"));
}

} // namespace

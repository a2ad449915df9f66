// Transfers: their common beginning, and what TFTP does to get a file.
#include "transfer.h"

#include "flash_trace.h"

#include <climits>
#include <sys/stat.h>
#include <syslog.h>

namespace {

using namespace transfers;

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

} // namespace

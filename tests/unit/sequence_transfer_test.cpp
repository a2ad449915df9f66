// Transfers, outcome by outcome: everything that each does, in its order.
#include "fakes/fixture.h"
#include "fakes/sequence.h"
#include "fakes/staging.h"

#include <arpa/inet.h>
#include <cerrno>
#include <filesystem>

namespace {

using namespace fakes;
namespace fs = std::filesystem;

constexpr int32_t get = 1;
constexpr int32_t put = 2;

constexpr int exited(int code) { return code << 8; } // what `system` returns

flashCopyEntry request(int32_t protocol, const char *destination_name) {
    return fakes::copy_row([&](flashCopyEntry &r) {
        r.protocol = protocol;
        r.serverAddress = inet_addr("10.1.2.3");
        r.copyStatus = flash::copyInProgress;
        fakes::put(r.sourceName, "images/remote.bin");
        fakes::put(r.destinationName, destination_name);
        fakes::put(r.sourcePath, "/bootflash/image.bin");
        fakes::put(r.destinationPath, "/bootflash/local.bin");
        fakes::put(r.remoteUserName, "bob");
        fakes::put(r.password, "secret");
    });
}

const Lines beginning = {
    D("do_flash_upload_download : Entering \n"),
    D("In do_flash_upload_download trying to print the source file.\n"),
    D("source file =images/remote.bin\n"),
    D("In do_flash_upload_download trying to print the destination file.\n"),
    D("destination file =/bootflash/local.bin\n"),
};

// Carries a transfer out: what it must come to, 1 for a success, which leaves the status alone.
void expect_transfer(int32_t direction, flashCopyEntry row, int32_t status) {
    fakes::forget();
    const bool succeeds = status == flash::copyInProgress;
    EXPECT_EQ(do_flash_upload_download(direction, ".", &row),
              succeeds ? flash::success : flash::failure);
    EXPECT_EQ(row.copyStatus, status);
}

using TransferSequenceTest = fakes::FlashTest;

TEST_F(TransferSequenceTest, AnUnknownProtocol) {
    for (int32_t direction : {get, put}) {
        expect_transfer(direction, request(7, "kept.bin"), 14);
        expect_sequence({beginning, {E("do_flash_upload_download : Protocol not supported\n")}});
    }
}

// TFTP

const Lines connected = {"tftp_timeout_set seconds=20", "tftp_connect server=10.1.2.3 port=-1"};
const Lines fetched = {"tftp_get2 remote=images/remote.bin local=/bootflash/local.bin flags=0"};
const Lines downloaded = {
    D("DEBUG :do_flash_upload_download :  File images/remote.bin is downloaded\n"),
    "snmp_log priority=7 text=DEBUG: file:images/remote.bin downloaded. \n",
    "chmod path=/bootflash/local.bin mode=0666",
};

TEST_F(TransferSequenceTest, ATftpTimeoutThatCannotBeSet) {
    for (int32_t direction : {get, put}) {
        platform().tftp_timeout_set.returns(-22);
        expect_transfer(direction, request(1, "kept.bin"), 14);
        expect_sequence({beginning,
                         {"tftp_timeout_set seconds=20", "tftp_strerror result=-22",
                          D("ERROR : do_flash_upload_download : Setting timeout failed : tftp text "
                            "-22\n")}});
    }
}

TEST_F(TransferSequenceTest, ATftpServerThatCannotBeConnected) {
    for (int32_t direction : {get, put}) {
        platform().tftp_connect.returns(-111);
        expect_transfer(direction, request(1, "kept.bin"), 14);
        expect_sequence({beginning,
                         connected,
                         {"tftp_strerror result=-111",
                          D("ERROR : do_flash_upload_download : Connecting to the tftp server "
                            "failed : tftp text -111\n")}});
    }
}

TEST_F(TransferSequenceTest, TftpInAnotherDirection) {
    for (int32_t direction : {0, 3, -1}) {
        expect_transfer(direction, request(1, "kept.bin"), 1);
        expect_sequence({beginning, connected});
    }
}

TEST_F(TransferSequenceTest, ATftpGet) {
    expect_transfer(get, request(1, ""), 1);
    expect_sequence({beginning, connected, fetched, downloaded});
}

TEST_F(TransferSequenceTest, ATftpGetWhoseModeCannotBeSet) {
    os().chmod.returns(-1, EPERM);
    expect_transfer(get, request(1, ""), 1);
    expect_sequence({beginning,
                     connected,
                     fetched,
                     downloaded,
                     {E("do_flash_upload_download : Could not change the file permissions to 666 "
                        "after successful tftp copy. ret_code1=-1\n")}});
}

TEST_F(TransferSequenceTest, ATftpGetThatFails) {
    const struct {
        int result;
        int32_t status;
    } failures[] = {{-2, 5},   {-102, 5}, {-12, 16},  {-112, 16}, {-16, 8},
                    {-116, 8}, {-28, 12}, {-128, 12}, {-1, 14},   {-105, 14}};
    for (const auto &[result, status] : failures) {
        const std::string number = std::to_string(result);
        SCOPED_TRACE(number);
        platform().tftp_get2.returns(result);
        expect_transfer(get, request(1, ""), status);
        expect_sequence({beginning,
                         connected,
                         fetched,
                         {"tftp_strerror result=" + number,
                          D("ERROR : do_flash_upload_download : Getting from tftp server failed : "
                            "tftp text " +
                            number + "\n"),
                          "snmp_log priority=3 text=ERROR: Getting file:images/remote.bin from "
                          "tftp server failed Error=" +
                              number + "\n",
                          "snmp_log priority=3 text=ERROR: Getting file to:remote.bin failed \n"}});
    }
}

// The working directory holds the staged file.
class TftpPutSequenceTest : public fakes::StagingTest {
  protected:
    void SetUp() override {
        StagingTest::SetUp();
        source_ = (root_ / "image.bin").string();
        fakes::write(source_, "content");
    }
    flashCopyEntry put_request(const char *destination_name) const {
        flashCopyEntry row = request(1, destination_name);
        fakes::put(row.sourcePath, source_);
        return row;
    }
    Lines putting(const char *length) const {
        return {D("DEBUG : do_flash_upload_download : Putting the file (" + source_ +
                  ")to the server\n"),
                D(std::string("strlen of entry->flashCopyDestinationName is ") + length + "\n")};
    }
    Lines not_staged() const {
        return {D("do_flash_upload_download : STATUS_FILE_TRANSFERERR for " + source_ + "\n")};
    }
    // Without a destination name: the shell's copy, and the name taken from the path.
    Lines shell_copy() const { return {"system command=cp " + source_ + " ."}; }
    Lines name_taken() const {
        return {D("No destination file specified..........\n"),
                D("expanded source files is " + source_ + "\n")};
    }
    static Lines staged(const std::string &name) {
        return {D("The file to be copied is " + name + "\n"),
                D("do_flash_upload_download : file to be copied is " + name + "\n"),
                "tftp_put file=" + name + " flags=0"};
    }
    static Lines uploaded(const std::string &name) {
        return {D("do_flash_upload_download : DEBUG File " + name + " is uploaded\n"),
                "unlink path=" + name};
    }
    static Lines not_uploaded(const std::string &name) {
        return {
            "tftp_strerror result=-113",
            D("The file which was tried to be copied is " + name + "\n"),
            D("ERROR : do_flash_upload_download : Putting to  the tftp server failed : tftp text "
              "-113\n"),
            E("do_flash_upload_download : Putting to  the tftp server failed : tftp text -113\n")};
    }

    std::string source_;

  private:
};

const Lines not_removed = {E("do_flash_upload_download : temporary file NOT removed!!!!\n")};

TEST_F(TftpPutSequenceTest, APut) {
    expect_transfer(put, put_request("kept.bin"), 1);
    expect_sequence({beginning, connected, putting("8"), staged("kept.bin"), uploaded("kept.bin")});
}

TEST_F(TftpPutSequenceTest, APutWithoutADestinationName) {
    expect_transfer(put, put_request(""), 1);
    // There is no copy to remove: the shell of these tests does nothing.
    expect_sequence({beginning, connected, putting("0"), shell_copy(), name_taken(),
                     staged("image.bin"), uploaded("image.bin"), not_removed});
}

TEST_F(TftpPutSequenceTest, AStagedFileThatCannotBeRemoved) {
    os().unlink.returns(-1, EPERM);
    expect_transfer(put, put_request("kept.bin"), 1);
    expect_sequence({beginning, connected, putting("8"), staged("kept.bin"), uploaded("kept.bin"),
                     not_removed});
}

TEST_F(TftpPutSequenceTest, APutThatFails) {
    platform().tftp_put.always(-113);
    expect_transfer(put, put_request("kept.bin"), 14);
    expect_sequence(
        {beginning, connected, putting("8"), staged("kept.bin"), not_uploaded("kept.bin")});
    expect_transfer(put, put_request(""), 14);
    expect_sequence({beginning, connected, putting("0"), shell_copy(), name_taken(),
                     staged("image.bin"), not_uploaded("image.bin")});
}

TEST_F(TftpPutSequenceTest, ASourceThatCannotBeOpened) {
    fs::remove(source_);
    expect_transfer(put, put_request("kept.bin"), 14);
    expect_sequence({beginning, connected, putting("8"), not_staged()});
}

TEST_F(TftpPutSequenceTest, AStagedFileThatCannotBeOpened) {
    expect_transfer(put, put_request("missing/kept.bin"), 14);
    expect_sequence({beginning, connected, putting("16"), not_staged()});
}

TEST_F(TftpPutSequenceTest, AShellThatCannotBeRun) {
    os().system.returns(-1, EAGAIN);
    expect_transfer(put, put_request(""), 14);
    expect_sequence({beginning, connected, putting("0"), shell_copy(), not_staged()});
}

TEST_F(TftpPutSequenceTest, ASourcePathWithoutASlash) {
    source_ = "image.bin";
    expect_transfer(put, put_request(""), 5);
    expect_sequence({beginning, connected, putting("0"), shell_copy(), name_taken(),
                     Lines{D("No file specified\n")}});
}

// FTP, SCP, SFTP

struct Script {
    const char *name;
    int32_t protocol;
    Lines first; // before anything else
    std::string getting;
    std::string putting;
    std::string get_command;
    std::string put_command; // "@" for the remote name
    std::string running;     // before the command in its trace
    std::string returned;    // before the exit code in its trace
    Lines not_run;           // when the shell cannot be run
    Lines mode_set;
    Lines mode_not_set;
    int32_t status_of_exit_4;
};
std::ostream &operator<<(std::ostream &out, const Script &script) { return out << script.name; }

const Lines mode_set = {"chmod path=/bootflash/local.bin mode=0666"};

const Script scripts[] = {
    {"Ftp",
     4,
     {},
     D("do_flash_upload_download : Getting file images/remote.bin to local file "
       "/bootflash/local.bin \n"),
     D("do_flash_upload_download : Putting the file (/bootflash/image.bin)to the server "
       "(10.1.2.3)\n"),
     "/ruma/bin/snmp.ftp.expect 10.1.2.3 images/remote.bin  /bootflash/local.bin bob \"secret\" "
     "get 3000",
     "/ruma/bin/snmp.ftp.expect 10.1.2.3 /bootflash/image.bin  @ bob \"secret\" put 3000",
     "do_flash_upload_download : Command being executed for FTP: ",
     "do_flash_upload_download : Return code from ftp.expect is  ",
     {},
     {},
     {},
     14},
    {"Scp",
     5,
     {D("do_flash_upload_download : Copying thorugh SCP......\n")},
     D("do_flash_upload_download : Getting file /bootflash/local.bin to local file "
       "images/remote.bin \n"),
     D("do_flash_upload_download : SCP: Putting the file (/bootflash/image.bin)to the server "
       "(10.1.2.3)\n"),
     "/ruma/bin/scp.expect bob@10.1.2.3:images/remote.bin /bootflash/local.bin \"secret\" 2 600",
     "/ruma/bin/scp.expect /bootflash/image.bin bob@10.1.2.3:@ \"secret\" 2 600",
     "do_flash_upload_download : Command being executed for FTP: ",
     "do_flash_upload_download : Return code from scp.expect is  ",
     {E("do_flash_upload_download : Command executed for SCP returned error=-1\n")},
     mode_set,
     {E("do_flash_upload_download : Could not change the file permissions to 666 after successful "
        "scp copy. ret_code1=-1\n")},
     18},
    {"Sftp",
     6,
     {},
     D("do_flash_upload_download : Getting file images/remote.bin to local file "
       "/bootflash/local.bin \n"),
     D("do_flash_upload_download : Putting the file (/bootflash/image.bin)to the server "
       "(10.1.2.3)\n"),
     "/ruma/bin/sftp.expect 10.1.2.3 bob \"secret\"  get images/remote.bin /bootflash/local.bin "
     "720",
     "/ruma/bin/sftp.expect 10.1.2.3 bob \"secret\"  put /bootflash/image.bin @ 720",
     "do_flash_upload_download : Command being executed for SFTP: ",
     "do_flash_upload_download : Return code from sftp.expect is  ",
     {},
     mode_set,
     {D("do_flash_upload_download : Could not change the file permissions to 666 after successful "
        "sftp copy. ret_code1=-1\n")},
     14},
};

class ScriptSequenceTest : public fakes::FlashTest, public testing::WithParamInterface<Script> {
  protected:
    const Script &script = GetParam();

    flashCopyEntry row(const char *destination_name = "kept.bin") const {
        return request(script.protocol, destination_name);
    }
    Lines run(const std::string &command) const {
        return {D(script.running + command + "\n"), "system command=" + command};
    }
    Lines get_run() const { return fakes::joined({{script.getting}, run(script.get_command)}); }
    Lines put_run(const std::string &remote_name = "kept.bin") const {
        std::string command = script.put_command;
        command.replace(command.rfind('@'), 1, remote_name);
        return fakes::joined({{script.putting}, run(command)});
    }
    Lines exit(int code) const { return {D(script.returned + std::to_string(code) + "\n")}; }
    Lines runs(int32_t direction) const { return direction == get ? get_run() : put_run(); }
};

INSTANTIATE_TEST_SUITE_P(Scripts, ScriptSequenceTest, testing::ValuesIn(scripts),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(ScriptSequenceTest, ASuccess) {
    for (int32_t direction : {get, put}) {
        expect_transfer(direction, row(), 1);
        expect_sequence({beginning, script.first, runs(direction), exit(0), script.mode_set});
    }
}

TEST_P(ScriptSequenceTest, AModeThatCannotBeSet) {
    os().chmod.always(-1, ENOENT);
    for (int32_t direction : {get, put}) {
        expect_transfer(direction, row(), 1);
        expect_sequence({beginning, script.first, runs(direction), exit(0), script.mode_set,
                         script.mode_not_set});
    }
}

TEST_P(ScriptSequenceTest, EachExitCode) {
    const std::pair<int, int32_t> outcomes[] = {
        {1, 8}, {2, 5}, {3, 16}, {4, script.status_of_exit_4}, {5, 14}, {255, 14}};
    for (const auto &[code, status] : outcomes)
        for (int32_t direction : {get, put}) {
            SCOPED_TRACE(code);
            os().system.returns(exited(code));
            expect_transfer(direction, row(), status);
            expect_sequence({beginning, script.first, runs(direction), exit(code)});
        }
}

TEST_P(ScriptSequenceTest, AScriptThatCannotBeRun) {
    for (int32_t direction : {get, put}) {
        os().system.returns(-1, EAGAIN);
        expect_transfer(direction, row(), 14);
        expect_sequence({beginning, script.first, runs(direction), script.not_run});
    }
}

const Lines no_name = {
    D("do_flash_upload_download : No destination file specified\n"),
    D("do_flash_upload_download :expanded source file is /bootflash/image.bin\n"),
    D("tmp AFTER the strrchr is /image.bin\n"),
    D("tmp_file should be picked from here and is  image.bin\n"),
    D("do_flash_upload_download :tmp_file isimage.bin\n"),
};

TEST_P(ScriptSequenceTest, APutWithoutADestinationName) {
    expect_transfer(put, row(""), 1);
    expect_sequence(
        {beginning, script.first, no_name, put_run("image.bin"), exit(0), script.mode_set});
}

TEST_P(ScriptSequenceTest, APutWithoutADestinationNameThatFails) {
    os().system.returns(exited(3));
    expect_transfer(put, row(""), 16);
    expect_sequence({beginning, script.first, no_name, put_run("image.bin"), exit(3)});
}

TEST_P(ScriptSequenceTest, APutWithoutADestinationNameOfASourcePathWithoutASlash) {
    flashCopyEntry entry = row("");
    fakes::put(entry.sourcePath, "image.bin");
    expect_transfer(put, entry, 5);
    expect_sequence({beginning,
                     script.first,
                     {D("do_flash_upload_download : No destination file specified\n"),
                      D("do_flash_upload_download :expanded source file is image.bin\n"),
                      D("tmp AFTER the strrchr is (null)\n"), D("No file specified\n"),
                      E("do_flash_upload_download :No file specified\n")}});
}

} // namespace

// FTP, SCP, SFTP: one script each.
#include "transfer.h"

#include "flash_trace.h"

#include <arpa/inet.h>
#include <ostream>
#include <sys/stat.h>
#include <syslog.h>

extern "C" int __real_system(const char *command);

namespace {

using namespace transfers;

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

// Start, worker's job, status message and completion of a copy, path by path: everything that each
// does, in its order.
#include "fakes/fixture.h"
#include "fakes/sequence.h"

#include <arpa/inet.h>
#include <cerrno>
#include <unistd.h>

namespace {

using namespace fakes;

std::string text(int64_t number) { return std::to_string(number); }

// A copy of row 7 by FTP, the protocol with the least to say.
flashCopyEntry request(int32_t command) {
    return fakes::copy_row([&](flashCopyEntry &r) {
        r.index = 7;
        r.command = command;
        r.protocol = flash::protocolFtp;
        r.serverAddress = inet_addr("10.1.2.3");
        r.copyStatus = flash::copyInProgress;
        r.entryStatus = flash::rowActive;
        fakes::put(r.sourceName, "remote.bin");
        fakes::put(r.destinationName, "kept.bin");
        fakes::put(r.sourcePath, "/bootflash/image.bin");
        fakes::put(r.destinationPath, "/bootflash/local.bin");
        fakes::put(r.remoteUserName, "bob");
        fakes::put(r.password, "secret");
    });
}

Lines transfer(const std::string &said, const std::string &command, int exit_code) {
    return {
        D("do_flash_upload_download : Entering \n"),
        D("In do_flash_upload_download trying to print the source file.\n"),
        D("source file =remote.bin\n"),
        D("In do_flash_upload_download trying to print the destination file.\n"),
        D("destination file =/bootflash/local.bin\n"),
        D("do_flash_upload_download : " + said + "\n"),
        D("do_flash_upload_download : Command being executed for FTP: " + command + "\n"),
        "system command=" + command,
        D("do_flash_upload_download : Return code from ftp.expect is  " + text(exit_code) + "\n")};
}
Lines download(int exit_code) {
    return transfer("Getting file remote.bin to local file /bootflash/local.bin ",
                    "/ruma/bin/snmp.ftp.expect 10.1.2.3 remote.bin  /bootflash/local.bin bob "
                    "\"secret\" get 3000",
                    exit_code);
}
Lines upload(int exit_code) {
    return transfer("Putting the file (/bootflash/image.bin)to the server (10.1.2.3)",
                    "/ruma/bin/snmp.ftp.expect 10.1.2.3 /bootflash/image.bin  kept.bin bob "
                    "\"secret\" put 3000",
                    exit_code);
}

const std::string bind = "pmb_bind kind=1 sap=-1 attributes=1,0,1024,0,0,15 name=flash_copy_task";
std::string send(int32_t status, int handle = 3) {
    return "pmb_send handle=" + text(handle) +
           " node=0xfe000000 sap=28 opcode=7786 payload=" + text(status) + ",7," + text(getpid()) +
           " length=12";
}
std::string unbind(int handle = 3) { return "pmb_unbind handle=" + text(handle) + " flags=0"; }
Lines message(int32_t status) { return {bind, send(status), unbind()}; }

// flash_copy_function

using WorkersJobSequenceTest = fakes::FlashTest;

const Lines to_flash = {D("DEBUG  flash_copy_function : Copy TO flash\n")};
Lines parent_named() { return {D("sending a FAILURE message to proc=" + text(getppid()) + "\n")}; }

TEST_F(WorkersJobSequenceTest, ACopyToFlashThatSucceeds) {
    for (int32_t command : {1, 2}) {
        fakes::forget();
        flashCopyEntry row = request(command);
        flash_copy_function(&row);
        expect_sequence({to_flash, download(0), message(2), parent_named()});
    }
}

TEST_F(WorkersJobSequenceTest, ACopyToFlashThatFails) {
    for (int32_t command : {1, 2}) {
        fakes::forget();
        flashCopyEntry row = request(command);
        os().system.returns(2 << 8);
        flash_copy_function(&row);
        expect_sequence(
            {to_flash,
             download(2),
             {D("DEBUG : flash_copy_function : Download of file remote.bin to FLASH failed.\n"),
              D("calling write_to_pipe with status =5\n")},
             message(5),
             parent_named()});
    }
}

TEST_F(WorkersJobSequenceTest, ACopyFromFlashThatSucceeds) {
    flashCopyEntry row = request(3);
    flash_copy_function(&row);
    expect_sequence({upload(0), message(2)});
}

TEST_F(WorkersJobSequenceTest, ACopyFromFlashThatFails) {
    flashCopyEntry row = request(3);
    os().system.returns(1 << 8);
    flash_copy_function(&row);
    expect_sequence(
        {upload(1),
         {D("DEBUG : flash_copy_function : Upload of file remote.bin from FLASH failed.\n"),
          D("flash_copy_function : Upload of file remote.bin from FLASH failed.\n")},
         message(8)});
}

TEST_F(WorkersJobSequenceTest, AnyOtherCommand) {
    for (int32_t command : {0, 4, -1})
        for (int32_t status : {1, 17}) {
            fakes::forget();
            flashCopyEntry row = request(command);
            row.copyStatus = status;
            flash_copy_function(&row);
            expect_sequence({message(status)});
        }
}

// start_flash_copy

using StartSequenceTest = fakes::FlashTest;

TEST_F(StartSequenceTest, TheAgentsSide) {
    for (pid_t process : {4242, -1})
        for (const auto &[status, result] : {std::pair{1, 1}, {2, 0}, {14, 14}}) {
            fakes::forget();
            flashCopyEntry row = request(1);
            row.copyStatus = status;
            os().fork.returns(process, EAGAIN);
            EXPECT_EQ(start_flash_copy(&row), result);
            expect_sequence({{D("Entered start_flash_copy()...\n"), "fork",
                              D("DEBUG : start_flash_copy : Done starting the copy\n"),
                              D("DEBUG : start_flash_copy : Copy returned with status " +
                                text(status) + "\n")}});
        }
}

TEST_F(StartSequenceTest, TheWorkersSide) {
    mypipe[0] = 10;
    mypipe[1] = 11;
    flashCopyEntry row = request(3);
    EXPECT_EQ(fakes::run_as_child([&row] { start_flash_copy(&row); }), 0);
    mypipe[0] = mypipe[1] = -1;
    expect_sequence(
        {{D("Entered start_flash_copy()...\n"), "fork", "setpgid pid=0 group=0", "closelog",
          "close_range first=3 last=9 flags=0", "close_range first=12 last=2147483647 flags=0"},
         upload(0),
         message(2),
         {"_exit code=0"}});
}

// write_to_pipe

struct Bind {
    int result;
    int error;
};
struct MessageCase {
    const char *name;
    std::vector<Bind> binds; // the results of pmb_bind
    int send_error;          // 0: the send succeeds
    Lines expected;
};
std::ostream &operator<<(std::ostream &out, const MessageCase &one) { return out << one.name; }

Lines failed_attempt(int error) {
    return {bind, D("pmb_bind failed. errno " + text(error) + "\n"), "sleep seconds=2"};
}

const MessageCase message_cases[] = {
    {"Sent", {{3, 0}}, 0, {message(2)}},
    {"SentOnHandleZero", {{0, 0}}, 0, {bind, send(2, 0), unbind(0)}},
    {"BoundAtTheSecondAttempt", {{-1, 11}, {3, 0}}, 0, joined({failed_attempt(11), message(2)})},
    {"BoundAtTheThirdAttempt",
     {{-1, 11}, {-2, 12}, {3, 0}},
     0,
     joined({failed_attempt(11), failed_attempt(12), message(2)})},
    {"NeverBound",
     {{-1, 11}, {-1, 12}, {-1, 13}},
     0,
     joined({failed_attempt(11),
             failed_attempt(12),
             failed_attempt(13),
             {D("pmb_bind failed. errno 13\n")}})},
    {"LastBindNegativeButNotMinusOne",
     {{-1, 11}, {-1, 12}, {-2, 13}},
     0,
     joined(
         {failed_attempt(11), failed_attempt(12), failed_attempt(13), {send(2, -2), unbind(-2)}})},
    {"NotSent",
     {{3, 0}},
     EPIPE,
     {bind, send(2), D("pmb_send failed. errno " + text(EPIPE) + "\n"), unbind()}},
};

class MessageSequenceTest : public fakes::FlashTest,
                            public testing::WithParamInterface<MessageCase> {};

INSTANTIATE_TEST_SUITE_P(Outcomes, MessageSequenceTest, testing::ValuesIn(message_cases),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(MessageSequenceTest, IsThis) {
    for (const Bind &one : GetParam().binds)
        platform().pmb_bind.returns(one.result, one.error);
    if (GetParam().send_error != 0)
        platform().pmb_send.returns(-1, GetParam().send_error);
    write_to_pipe(11, 2, 7);
    expect_sequence({GetParam().expected});
}

// handle_flash_copy_over, with rows 3 and 7 in progress and 4242 forked last

class CopyOverSequenceTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        for (int32_t index : {3, 7})
            fakes::add_copy_row(index, [](flashCopyEntry &r) { r.copyStatus = 1; });
        flash_copy_pid = 4242;
        fakes::forget();
    }
    // Completes a copy from a stream that holds this.
    static void complete_from(const char *content) {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        ASSERT_EQ(::write(ends[1], content, strlen(content)),
                  static_cast<ssize_t>(strlen(content)));
        ::close(ends[1]);
        read_stream = ::fdopen(ends[0], "r");
        ASSERT_NE(read_stream, nullptr);
        fakes::forget();
        handle_flash_copy_over();
        std::fclose(read_stream);
        read_stream = nullptr;
    }
    static Lines split(const std::string &line, int tokens) {
        Lines lines = {D("In snmp_uri_map_str_split: str is " + line + " and delimiters is :\n")};
        if (tokens > 0)
            lines.push_back(D("was able to tokenize and found a COLON..\n"));
        lines.push_back(D("returning ctr = " + text(tokens) + "\n"));
        return lines;
    }
    static Lines converted(int32_t status, int32_t row) {
        return {D("calling atoi...\n"), D("read_from_pipe returning status =" + text(status) +
                                          " for row=" + text(row) + "\n")};
    }
    static Lines completing(int32_t status, int32_t row) {
        return {
            D("DEBUG : handle_flash_copy_done : Copy is done with status " + text(status) + "\n"),
            D("DEBUG : handle_flash_copy_done : Entering with whichRow=  " + text(row) + "\n"),
            D("looking for entry with index=" + text(row) + "\n")};
    }
};

const Lines entering = {D("Entering handle_flash_copy_over..\n"), D("calling fgets.\n")};
const Lines first_row = {"ordset_find_nth_obj n=1",
                         D("found entry after calling getnextFlashCopyEntry.\n")};
const Lines second_row = {"ordset_find_nextgreater key=3",
                          D("found entry after calling getnextFlashCopyEntry.\n")};
const Lines row_found = {D("Now checking the row\n")};
const Lines no_further_row = {"ordset_find_nextgreater key=7",
                              D("No entry in the flashCopyTable...\n"),
                              E("ERROR  handle_flash_copy_done : No copy is running... 0 \n")};
const Lines alarm_set = {"snmp_alarm_register seconds=305 flags=" + text(SA_REPEAT) +
                         " client=null"};
Lines stored(int32_t row) { return {"ordset_size", "ordset_find key=" + text(row) + " flags=0"}; }
const Lines reaped = {"waitpid pid=4242 status=null options=0", E("Waitpid status = 4242")};
const Lines success_said = {"stdout Entering handle_flash_copy_success()..",
                            D("Entering handle_flash_copy_success()..\n")};
const Lines no_colon = {E("ERROR  read_from_pipe : pipe does not contain a :\n"),
                        "snmp_log priority=3 text=ERROR:pipe does not contain a : \n"};

TEST_F(CopyOverSequenceTest, ALineOfAKnownRow) {
    for (const auto &[line, status, recorded] :
         {std::tuple{"14:7\n", 14, 14}, {"2:7", 2, 2}, {"0:7\n", 0, 14}}) {
        complete_from(line);
        expect_sequence({entering, split(line, 2), converted(status, 7), completing(status, 7),
                         first_row, second_row, row_found, alarm_set, stored(7), reaped,
                         success_said});
        EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, recorded);
    }
}

TEST_F(CopyOverSequenceTest, ALineOfAnUnknownRow) {
    complete_from("2:8\n");
    expect_sequence({entering, split("2:8\n", 2), converted(2, 8), completing(2, 8), first_row,
                     second_row, no_further_row, reaped, success_said});
}

TEST_F(CopyOverSequenceTest, ALineWithoutTwoFields) {
    for (const auto &[line, tokens] : {std::pair{"14\n", 1}, {"14:", 1}, {":", 0}}) {
        complete_from(line);
        expect_sequence({entering, split(line, tokens), no_colon, completing(17, 0), first_row,
                         second_row, no_further_row, reaped, success_said});
    }
}

TEST_F(CopyOverSequenceTest, TheEndOfTheStream) {
    complete_from("");
    expect_sequence(
        {entering, completing(0, 0), first_row, second_row, no_further_row, reaped, success_said});
}

TEST_F(CopyOverSequenceTest, AReadStreamThatNeverOpened) {
    ASSERT_EQ(read_stream, nullptr);
    handle_flash_copy_over();
    expect_sequence(
        {entering, completing(0, 0), first_row, second_row, no_further_row, reaped, success_said});
}

TEST_F(CopyOverSequenceTest, ARowThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    complete_from("2:3");
    expect_sequence({entering,
                     split("2:3", 2),
                     converted(2, 3),
                     completing(2, 3),
                     first_row,
                     row_found,
                     alarm_set,
                     stored(3),
                     {D("ERROR  handle_flash_copy_done : Set to entry (index= 3) failed \n")},
                     reaped,
                     success_said});
}

TEST_F(CopyOverSequenceTest, AWorkerThatCannotBeReaped) {
    os().waitpid.returns(-1, ECHILD);
    complete_from("2:3");
    expect_sequence({entering,
                     split("2:3", 2),
                     converted(2, 3),
                     completing(2, 3),
                     first_row,
                     row_found,
                     alarm_set,
                     stored(3),
                     {"waitpid pid=4242 status=null options=0", E("Waitpid status = -1")},
                     success_said});
}

TEST_F(CopyOverSequenceTest, NoWorker) {
    flash_copy_pid = -1; // a failed fork
    complete_from("2:3");
    expect_sequence({entering, split("2:3", 2), converted(2, 3), completing(2, 3), first_row,
                     row_found, alarm_set, stored(3), Lines{E("Waitpid status = -1")},
                     success_said});
}

// handle_flash_copy_status

TEST_F(CopyOverSequenceTest, AStatusMessage) {
    const pmb_message received = fakes::message({12, 3, 4243});
    EXPECT_EQ(handle_flash_copy_status(0, 11, const_cast<pmb_message *>(&received), nullptr), 0);
    expect_sequence(
        {{D("Entered handle_flash_copy_status\n"), "pmb_payload_get",
          D("handle_flash_copy_status: The values returned are status = 12,index = 3, pid = "
            "4243\n")},
         completing(12, 3),
         first_row,
         row_found,
         alarm_set,
         stored(3),
         {"waitpid pid=4243 status=null options=0", E("Waitpid status = 4243")}});
}

TEST_F(CopyOverSequenceTest, NoStatusMessage) {
    EXPECT_EQ(handle_flash_copy_status(0, 11, nullptr, nullptr), -1);
    expect_sequence({Lines{D("Entered handle_flash_copy_status\n")}});
}

} // namespace

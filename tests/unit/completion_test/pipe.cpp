// The module's pipe and its two streams.
#include "fakes/fixture.h"

#include "flash_trace.h"
#include "provoked.h"

#include <cstring>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace fakes;

class PipeTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        ASSERT_EQ(::pipe(ends_), 0);
        read_stream = ::fdopen(ends_[0], "r");
        ASSERT_NE(read_stream, nullptr);
        fakes::forget();
    }
    void TearDown() override {
        end();
        FlashTest::TearDown(); // closes the stream
    }
    void write(std::string_view text) {
        ASSERT_EQ(::write(ends_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void end() {
        if (ends_[1] >= 0)
            ::close(ends_[1]);
        ends_[1] = -1;
    }
    // Reads a line; the stream ends behind it, so that a wrong read does not wait for ever.
    int32_t read_only(std::string_view text) {
        write(text);
        end();
        return read_from_pipe(0, &line);
    }

    // Completes a copy from the pipe: what went to standard output.
    static std::string complete() {
        fakes::Capture output(STDOUT_FILENO);
        handle_flash_copy_over();
        return output.text();
    }

    flashPipeLine line{-111, -222};

  private:
    int ends_[2] = {-1, -1};
};

TEST_F(PipeTest, ALineOfStatusAndRowIsRead) {
    EXPECT_EQ(read_only("14:3\n"), 14);
    EXPECT_EQ(line.status, 14);
    EXPECT_EQ(line.row, 3);
}

TEST_F(PipeTest, ALineOfStatusAndRowIsTraced) {
    read_only("14:3\n");
    const Traces expected = {{debug_level, "calling fgets.\n"},
                             {debug_level, "returning ctr = 2\n"},
                             {debug_level, "calling atoi...\n"},
                             {debug_level, "read_from_pipe returning status =14 for row=3\n"}};
    EXPECT_EQ(picked(expected), expected);
    EXPECT_THAT(os().agent_log, IsEmpty());
}

TEST_F(PipeTest, LinesAreReadAsBaseTenIntegers) {
    const struct {
        const char *text;
        int32_t status;
        int32_t row;
    } lines[] = {{"2:5\n", 2, 5},     {"2:5", 2, 5},     {"010:0x3\n", 10, 0},
                 {"-1:-5\n", -1, -5}, {" 2: 5\n", 2, 5}, {"2:2147483647\n", 2, 2147483647},
                 {"2::5\n", 2, 5},    {":2:5\n", 2, 5},  {"2:5:9\n", 2, 5},
                 {"x:y\n", 0, 0},     {"2:5x\n", 2, 5},  {"1:2:3:4:5:6:7:8:9:0\n", 1, 2}};
    for (const auto &[text, status, row] : lines) {
        SCOPED_TRACE(text);
        TearDown();
        SetUp();
        EXPECT_EQ(read_only(text), status);
        EXPECT_EQ(line.status, status);
        EXPECT_EQ(line.row, row);
    }
}

TEST_F(PipeTest, ALineWithoutAColonIsRefused) {
    EXPECT_EQ(read_only("143\n"), 17);
    EXPECT_EQ(line.status, -111);
    EXPECT_EQ(line.row, -222);
    EXPECT_TRUE(fakes::traced(error_level, "ERROR  read_from_pipe : pipe does not contain a :\n"));
    EXPECT_THAT(os().agent_log,
                ElementsAre(AgentLogLine{LOG_ERR, "ERROR:pipe does not contain a : \n"}));
    EXPECT_PROVOKED(os().agent_log.at(0).text, "ERROR:pipe does not contain a :");
    EXPECT_FALSE(fakes::traced(debug_level, "calling atoi...\n"));
}

TEST_F(PipeTest, ALineWithFewerThanTwoFieldsIsRefused) {
    for (const char *text : {"\n", ":\n", "14:", ":14", "::::"}) {
        SCOPED_TRACE(text);
        TearDown();
        SetUp();
        EXPECT_EQ(read_only(text), 17);
        EXPECT_EQ(line.status, -111);
        EXPECT_EQ(line.row, -222);
    }
}

TEST_F(PipeTest, TheEndOfTheStreamReadsAsZeroAndNothingElse) {
    EXPECT_EQ(read_only(""), 0);
    EXPECT_EQ(line.status, -111);
    EXPECT_EQ(line.row, -222);
    EXPECT_EQ(fakes::traces(), (Traces{{debug_level, "calling fgets.\n"}}));
    EXPECT_THAT(os().agent_log, IsEmpty());
}

TEST_F(PipeTest, LinesAreReadOneAtATime) {
    write("2:5\n14:6\n");
    end();
    EXPECT_EQ(read_from_pipe(0, &line), 2);
    EXPECT_EQ(line.row, 5);
    EXPECT_EQ(read_from_pipe(0, &line), 14);
    EXPECT_EQ(line.row, 6);
    EXPECT_EQ(read_from_pipe(0, &line), 0);
}

TEST_F(PipeTest, ALineIsReadUpToNineteenCharacters) {
    write("2:00000000000000005678:9\n"); // the 19th character is the 5
    end();
    EXPECT_EQ(read_from_pipe(0, &line), 2);
    EXPECT_EQ(line.row, 5);
    EXPECT_EQ(read_from_pipe(0, &line), 678);
    EXPECT_EQ(line.row, 9);
}

TEST_F(PipeTest, TheDescriptorDoesNotMatter) {
    write("2:5\n");
    EXPECT_EQ(read_from_pipe(-1, &line), 2);
}

TEST_F(PipeTest, TheModulesOwnPipeIsRead) {
    init_orvex_flash_mib();
    ASSERT_EQ(pipe_status, flash::pipeCreated);
    ASSERT_EQ(::write(mypipe[1], "14:3\n", 5), 5);
    EXPECT_EQ(read_from_pipe(mypipe[0], &line), 14);
    EXPECT_EQ(line.status, 14);
    EXPECT_EQ(line.row, 3);
}

TEST_F(PipeTest, ALineCompletesItsRowAndReapsTheLastWorker) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    flash_copy_pid = 4242;
    write("5:7\n");
    end();
    complete();
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 5);
    EXPECT_EQ(os().alarms.size(), 1U);
    EXPECT_THAT(fakes::calls("waitpid"), ElementsAre("waitpid pid=4242 status=null options=0"));
}

TEST_F(PipeTest, CompletionFromThePipeIsTraced) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    flash_copy_pid = 4242;
    fakes::forget();
    write("2:7\n");
    end();
    complete();
    const Traces all = fakes::traces();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.front(), (Trace{debug_level, "Entering handle_flash_copy_over..\n"}));
    EXPECT_EQ(all.back(), (Trace{debug_level, "Entering handle_flash_copy_success()..\n"}));
    const Traces expected = {
        {debug_level, "Entering handle_flash_copy_over..\n"},
        {debug_level, "calling fgets.\n"},
        {debug_level, "read_from_pipe returning status =2 for row=7\n"},
        {debug_level, "DEBUG : handle_flash_copy_done : Copy is done with status 2\n"},
        {debug_level, "DEBUG : handle_flash_copy_done : Entering with whichRow=  7\n"},
        {error_level, "Waitpid status = 4242"},
        {debug_level, "Entering handle_flash_copy_success()..\n"}};
    EXPECT_EQ(picked(expected), expected);
}

TEST_F(PipeTest, CompletionFromThePipeIsPrinted) {
    write("2:7\n");
    end();
    EXPECT_EQ(complete(), "Entering handle_flash_copy_success()..");
}

TEST_F(PipeTest, CompletionAtTheEndOfTheStreamTouchesNoRow) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    flash_copy_pid = 4242;
    end();
    complete();
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 1);
    EXPECT_THAT(os().alarms, IsEmpty());
    EXPECT_THAT(fakes::calls("waitpid"), ElementsAre("waitpid pid=4242 status=null options=0"));
}

} // namespace

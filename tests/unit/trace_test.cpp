// The module's trace: the event history and the debug printer.
#include "fakes/fixture.h"
#include "flash_trace.h"

#include <cerrno>

namespace {

using namespace fakes;
using flash::flash_trace;
using flash::traceDebug;
using flash::traceError;

using TraceTest = fakes::FlashTest;

TEST_F(TraceTest, SubtypesAre100ForErrorsAnd101ForDebugMessages) {
    EXPECT_EQ(traceError, 100);
    EXPECT_EQ(traceDebug, 101);
}

TEST_F(TraceTest, ARecordIsTheSubtypeTheTextAndItsTerminatingZero) {
    flash_trace(traceError, "row %d", 7);

    ASSERT_EQ(platform().records.size(), 1U);
    const uint32_t subtype = 100;
    fakes::Bytes expected = fakes::bytes_of(subtype);
    for (const char c : std::string("row 7"))
        expected.push_back(static_cast<uint8_t>(c));
    expected.push_back(0);
    EXPECT_EQ(platform().records[0].bytes, expected);
}

TEST_F(TraceTest, ARecordIsFiveBytesLongerThanItsText) {
    for (const std::string &text :
         {std::string(), std::string("x"), std::string(510, 'a'), std::string(511, 'a')}) {
        fakes::forget();
        flash_trace(traceDebug, "%s", text.c_str());
        ASSERT_EQ(platform().records.size(), 1U);
        EXPECT_EQ(platform().records[0].bytes.size(), text.size() + 5);
    }
}

TEST_F(TraceTest, ATextIsCutAt511Characters) {
    std::string text;
    for (int i = 0; i < 700; ++i)
        text += static_cast<char>('a' + i % 26);
    flash_trace(traceDebug, "%s", text.c_str());

    EXPECT_EQ(fakes::traces(), (Traces{{101, text.substr(0, 511)}}));
    ASSERT_EQ(platform().records.size(), 1U);
    EXPECT_EQ(platform().records[0].bytes.size(), 516U);
    EXPECT_EQ(platform().records[0].bytes.back(), 0);
}

TEST_F(TraceTest, ATextOf512CharactersIsCutByOne) {
    flash_trace(traceDebug, "%s", std::string(512, 'z').c_str());
    EXPECT_EQ(fakes::traces(), (Traces{{101, std::string(511, 'z')}}));
}

TEST_F(TraceTest, TheHistoryIsAskedAndFilledUnderTheModulesTraceId) {
    flash_trace(traceDebug, "text");
    EXPECT_EQ(fakes::trace_calls("evwrap_hist_event"),
              (fakes::Lines{"evwrap_hist_event_subtype_check id=0x730000 subtype=101",
                            "evwrap_hist_event id=0x730000 length=9"}));
}

TEST_F(TraceTest, TheHistoryIsAskedForTheMessagesSubtype) {
    flash_trace(traceError, "text");
    EXPECT_EQ(fakes::trace_calls("evwrap_hist_event_subtype_check"),
              (fakes::Lines{"evwrap_hist_event_subtype_check id=0x730000 subtype=100"}));
}

TEST_F(TraceTest, DebugPrintingIsAskedWithTheSubtypeAndTwoZerosAndOne) {
    flash_trace(traceDebug, "text");
    flash_trace(traceError, "text");
    EXPECT_EQ(
        fakes::trace_calls("evwrap_chk_int"),
        (fakes::Lines{"evwrap_chk_int subtype=101 0 0 1", "evwrap_chk_int subtype=100 0 0 1"}));
}

TEST_F(TraceTest, TheDebugPrinterGetsLevelOneTheModuleNameAndTheText) {
    platform().debug_on = true;
    flash_trace(traceError, "row %d of %s\n", 7, "table");
    EXPECT_EQ(platform().debug,
              (std::vector<fakes::DebugLine>{{1, evwrap_dbg_modname, "row 7 of table\n"}}));
}

TEST_F(TraceTest, TheDebugPrinterGetsTheWholeText) {
    platform().debug_on = true;
    const std::string text(2000, 'q');
    flash_trace(traceDebug, "<%s>", text.c_str());
    ASSERT_EQ(platform().debug.size(), 1U);
    EXPECT_EQ(platform().debug[0].text, "<" + text + ">");
}

TEST_F(TraceTest, HistoryAndDebugPrinterAreSwitchedIndependently) {
    for (const bool history : {false, true})
        for (const bool debug : {false, true}) {
            fakes::forget();
            platform().history_on = history;
            platform().debug_on = debug;
            flash_trace(traceDebug, "both %s %s", "arguments", "twice");
            EXPECT_EQ(platform().records.size(), history ? 1U : 0U);
            EXPECT_EQ(platform().debug.size(), debug ? 1U : 0U);
            if (history) {
                EXPECT_EQ(fakes::traces()[0].text, "both arguments twice");
            }
            if (debug) {
                EXPECT_EQ(platform().debug[0].text, "both arguments twice");
            }
        }
}

TEST_F(TraceTest, TheHistoryTakesOnlyTheSubtypesOfItsFilter) {
    platform().evwrap_hist_event_subtype_check.does(
        [](uint32_t, uint32_t subtype) { return subtype == 100 ? 1 : 0; });
    flash_trace(traceDebug, "debug");
    flash_trace(traceError, "error");
    EXPECT_EQ(fakes::traces(), (Traces{{100, "error"}}));
}

TEST_F(TraceTest, NothingIsFormattedWhenBothAreOff) {
    platform().history_on = false;
    // Formatting would read this text, which is nowhere.
    const char *nowhere = reinterpret_cast<const char *>(uintptr_t{8});
    flash_trace(traceDebug, "%s", nowhere);
    EXPECT_TRUE(platform().records.empty());
    EXPECT_TRUE(platform().debug.empty());
}

TEST_F(TraceTest, ErrnoIsKept) {
    platform().debug_on = true;
    platform().evwrap_chk_int.always(1, EIO);
    platform().evwrap_hist_event_subtype_check.always(1, EIO);
    errno = ENOSPC;
    flash_trace(traceDebug, "text");
    EXPECT_EQ(errno, ENOSPC);
}

} // namespace

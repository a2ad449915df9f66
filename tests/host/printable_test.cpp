// Foreign text on one line.
#include "base/printable.h"

#include <gtest/gtest.h>

namespace {

TEST(PrintableTest, DropsNewlinesAtTheEndAndShowsThoseInside) {
    EXPECT_EQ(ruma::printable("plain"), "plain");
    EXPECT_EQ(ruma::printable("line\n"), "line");
    EXPECT_EQ(ruma::printable("line\r\n\n"), "line");
    EXPECT_EQ(ruma::printable("two\nlines\n"), "two\\nlines");
    EXPECT_EQ(ruma::printable("\n"), "");
    EXPECT_EQ(ruma::printable(""), "");
}

TEST(PrintableTest, EscapesWhatATerminalCouldObeyAndTheEscapeItself) {
    EXPECT_EQ(ruma::printable("\x1b[2J"), "\\x1b[2J");
    EXPECT_EQ(ruma::printable("a\tb\rc"), "a\\x09b\\x0dc");
    EXPECT_EQ(ruma::printable("\xc2\x9b\x7f"), "\\xc2\\x9b\\x7f");
    EXPECT_EQ(ruma::printable("a\\nb"), "a\\\\nb");
    EXPECT_EQ(ruma::printable(std::string_view("a\0b", 3)), "a\\x00b");
}

TEST(PrintableTest, EscapesTheSeparatorsThatItIsGiven) {
    EXPECT_EQ(ruma::printable("a, b", ","), "a\\x2c b");
    EXPECT_EQ(ruma::printable("a, b"), "a, b");
}

} // namespace

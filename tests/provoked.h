// The messages of docs/troubleshoot.md, in which "…" stands for what varies, and the tests that
// provoke them. tests/docs finds each EXPECT_PROVOKED by its last string literal.
#ifndef RUMA_TESTS_PROVOKED_H
#define RUMA_TESTS_PROVOKED_H

#include <gtest/gtest.h>
#include <string>
#include <string_view>

// Whether one line of `said` holds `message`.
inline testing::AssertionResult holds_message(const std::string &said, std::string_view message) {
    constexpr std::string_view varies = "…";
    for (size_t begin = 0; begin < said.size();) {
        const size_t end = std::min(said.find('\n', begin), said.size());
        const std::string_view line = std::string_view(said).substr(begin, end - begin);
        size_t place = 0;
        for (std::string_view rest = message; place != line.npos && !rest.empty();) {
            const std::string_view part = rest.substr(0, rest.find(varies));
            rest.remove_prefix(std::min(part.size() + varies.size(), rest.size()));
            place = line.find(part, place);
            if (place != line.npos)
                place += part.size();
        }
        if (place != line.npos)
            return testing::AssertionSuccess();
        begin = end + 1;
    }
    return testing::AssertionFailure() << "nothing like \"" << message << "\" in\n" << said;
}

#define EXPECT_PROVOKED(said, message) EXPECT_TRUE(holds_message(said, message))

#endif

// Golden lists: all that a path does, in one order. Traces (D: debug, E: error), calls, lines of
// the agent's log, standard output and standard error, the container's calls.
//
//     write_to_pipe(0, 2, 7);
//     fakes::expect_sequence({{D("..."), "pmb_bind ..."}, common_end(), {...}});
#ifndef FAKES_SEQUENCE_H
#define FAKES_SEQUENCE_H

#include "fakes/platform.h"

#include "flash_trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace fakes {

inline std::string D(const std::string &text) {
    return "trace " + std::to_string(flash::traceDebug) + ' ' + text;
}
inline std::string E(const std::string &text) {
    return "trace " + std::to_string(flash::traceError) + ' ' + text;
}

inline Lines joined(const std::vector<Lines> &parts) {
    Lines all;
    for (const Lines &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// What differs, with the lines around it: "-" what was expected, "+" what happened.
inline std::string difference(const Lines &expected, const Lines &happened) {
    const auto [first, other] =
        std::mismatch(expected.begin(), expected.end(), happened.begin(), happened.end());
    const auto begin = static_cast<std::size_t>(first - expected.begin());
    std::size_t same_end = 0;
    while (same_end < expected.size() - begin && same_end < happened.size() - begin &&
           expected[expected.size() - 1 - same_end] == happened[happened.size() - 1 - same_end])
        ++same_end;

    std::string text;
    const auto add = [&text](const char *mark, const Lines &lines, std::size_t from,
                             std::size_t to) {
        for (std::size_t at = from; at < to; ++at)
            text += mark + testing::PrintToString(lines[at]) + "\n";
    };
    constexpr std::size_t around = 3;
    add("  ", expected, begin - std::min(begin, around), begin);
    add("- ", expected, begin, expected.size() - same_end);
    add("+ ", happened, begin, happened.size() - same_end);
    const std::size_t behind = expected.size() - same_end;
    add("  ", expected, behind, behind + std::min(same_end, around));
    return text;
}

// Everything that has happened since the reset, or since forget().
inline void expect_sequence(const std::vector<Lines> &parts, const char *file = __builtin_FILE(),
                            int line = __builtin_LINE()) {
    const Lines expected = joined(parts);
    const Lines happened = sequence();
    if (happened != expected)
        ADD_FAILURE_AT(file, line) << "The sequence differs:\n" << difference(expected, happened);
}

} // namespace fakes

#endif

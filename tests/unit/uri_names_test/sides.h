// The sides of a copy, and a row with a name on one of them.
#ifndef UNIT_URI_NAMES_SIDES_H
#define UNIT_URI_NAMES_SIDES_H

#include "fakes/fixture.h"

#include "flash_trace.h"

#include <climits>

namespace uri_names {

using namespace fakes;

constexpr int32_t destination = 1;
constexpr int32_t source = 2;

// Values that choose the source: every one but 1.
constexpr int32_t source_sides[] = {2, 0, 3, -1, INT_MAX};

// A row with a name on one side, "unused" on the other.
inline flashCopyEntry with_name(int32_t side, std::string_view name) {
    return fakes::copy_row([&](flashCopyEntry &r) {
        fakes::put(side == destination ? r.destinationName : r.sourceName, name);
        fakes::put(side == destination ? r.sourceName : r.destinationName, "unused");
        fakes::put(r.schemeName, "before");
    });
}

} // namespace uri_names

#endif

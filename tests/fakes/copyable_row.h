// For tests of the refusal rules: a row that passes them, and their verdict on one.
#ifndef FAKES_COPYABLE_ROW_H
#define FAKES_COPYABLE_ROW_H

#include "fakes/fixture.h"

#include "flash_validate.h"

#include <arpa/inet.h>
#include <cstdint>
#include <ostream>

namespace fakes {

constexpr int32_t initial = flash::copyStatusInitial;
constexpr int32_t active = flash::rowActive;
constexpr int32_t not_ready = flash::rowNotReady;
constexpr int32_t waiting = flash::rowCreateAndWait;

// A row that may be copied, once "bootflash:new" and "bootflash:old" resolve.
inline flashCopyEntry copyable_row(int32_t command, int32_t protocol, int32_t state) {
    return copy_row([&](flashCopyEntry &r) {
        r.index = 7;
        r.command = command;
        r.protocol = protocol;
        r.serverAddress = inet_addr("10.1.2.3");
        r.entryStatus = state;
        put(r.sourceName, command == 3 ? "bootflash:old" : "remote.bin");
        put(r.destinationName, command == 3 ? "kept.bin" : "bootflash:new");
    });
}

// What the rules make of a row.
struct Verdict {
    int32_t result;
    int32_t error;
    int32_t copy_status;
    int32_t entry_status;
    bool operator==(const Verdict &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const Verdict &v) {
    return out << "{result " << v.result << ", error " << v.error << ", copy status "
               << v.copy_status << ", entry status " << v.entry_status << "}";
}

inline Verdict judge(flashCopyEntry &row) {
    int32_t error = 4711;
    const int32_t result = validate_flash_entry(&row, &error);
    return {result, error, row.copyStatus, row.entryStatus};
}

} // namespace fakes

#endif

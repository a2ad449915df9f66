// The file of the event history: found, made and replaced by those who may.
#ifndef RUMA_HOST_HISTORY_FILE_H
#define RUMA_HOST_HISTORY_FILE_H

#include "base/unique_fd.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>

namespace ruma {

// A history that cannot be used; what() says why.
class HistoryError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class HistoryAccess {
    record,  // make the file when there is none, write records and switches
    control, // existing file, write switches
    view,    // existing file, read
};

// Opens the history of a run directory, which must be a regular file, of this process's user and
// closed to others; root may also control and view those of other users. An agent that begins as
// root makes the file for the `user` that it is going to have, and records in that user's. Who
// records replaces a file of another layout or version that it could have made, records and all;
// others refuse it. Throws HistoryError.
UniqueFd open_history(const std::string &directory, HistoryAccess access,
                      std::optional<uid_t> user = {});

// Whether the run directory's history is this file, and not another by now.
bool is_history_of(const std::string &directory, const UniqueFd &file) noexcept;

// The path of a run directory's history.
std::string history_path(const std::string &directory);

// A number for this boot of the machine; 0 when it cannot be had.
uint32_t this_boot();

// Seconds since this boot, those of a suspended machine included: no clock that is set changes
// them.
uint32_t uptime() noexcept;

} // namespace ruma

#endif

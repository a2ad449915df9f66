// The directory of the platform's sockets, event history and logs, as a thing to be made.
#ifndef RUMA_HOST_BASE_RUN_DIRECTORY_H
#define RUMA_HOST_BASE_RUN_DIRECTORY_H

#include <optional>
#include <string>
#include <sys/types.h>

namespace ruma {

// Makes the run directory, or one in it, at `path` when nothing is there: with mode 0755 and, when
// this process is root, owned by `user`, who keeps files there. Whichever process of the platform
// comes first makes it; its parent must exist.
//
// Throws std::runtime_error with the reason when that fails or when what is there is not to be
// trusted: a link, no directory, or a directory that belongs to somebody else than root, this
// process's user and `user`, or that its group or others can write.
void prepare_run_dir(const std::string &path, std::optional<uid_t> user);

} // namespace ruma

#endif

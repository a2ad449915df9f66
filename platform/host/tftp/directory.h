// Opening a directory by a path that others may change meanwhile.
#ifndef RUMA_HOST_TFTP_DIRECTORY_H
#define RUMA_HOST_TFTP_DIRECTORY_H

#include "base/unique_fd.h"

#include <string>

namespace ruma {

// Each opens a directory as a place to look names up in (O_PATH), only if no component of `path` is
// a symbolic link. No descriptor with errno set: ELOOP for a link.

// By the kernel (openat2) where it can; else by walking.
UniqueFd open_directory(const std::string &path);

// Component by component, for kernels that cannot do it and sandboxes that do not let them.
UniqueFd walk_to_directory(const std::string &path);

} // namespace ruma

#endif

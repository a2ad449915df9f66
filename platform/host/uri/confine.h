// Names below a directory, looked up so that no link leads out of it.
#ifndef RUMA_HOST_CONFINE_H
#define RUMA_HOST_CONFINE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace ruma {

// What a name below a directory stands for.
struct Confined {
    std::string path;                  // local path, free of links up to its last component
    std::optional<struct stat> status; // of the file, its last link followed; absent without a file
    int error = 0;                     // the errno behind a failure, 0 when there was none
};

// How to look names up. Portable walks component by component and follows no link at all; it is
// what remains where the kernel cannot confine a look-up itself.
enum class Lookup { kernel, portable };

// Looks up `name`, components separated by "/", below `directory`; an empty name is the directory
// itself. The last component need not exist; its parent must. Returns 0 with `*result` filled, or a
// platform error code with nothing but `error` set in it. Throws std::bad_alloc.
int32_t confine(const std::string &directory, std::string_view name, Confined *result,
                Lookup lookup = Lookup::kernel);

} // namespace ruma

#endif

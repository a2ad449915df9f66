// Calls of fsync that fail on demand. For one source of a program.
#ifndef FAILING_FSYNC_H
#define FAILING_FSYNC_H

#include <cerrno>
#include <dlfcn.h>
#include <unistd.h>
#include <vector>

// What the next calls fail with; 0 lets one through.
inline std::vector<int> fsync_errors;

// Stands before the C library's own.
extern "C" int fsync(int descriptor) {
    static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
    if (!fsync_errors.empty()) {
        errno = fsync_errors.front();
        fsync_errors.erase(fsync_errors.begin());
        if (errno != 0)
            return -1;
    }
    return real(descriptor);
}

#endif

// What the strict build refuses over and above the standard one, which accepts every name.
#ifndef FLASH_STRICT_H
#define FLASH_STRICT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/types.h>

namespace flash {

#ifdef ORVEX_FLASH_STRICT
constexpr bool strict = true;
#else
constexpr bool strict = false;
#endif

// Whether a name or password of `length` bytes is refused: control characters, and what a shell
// gives a meaning to.
inline bool strict_refuses_name(const u_char *bytes, std::size_t length) {
    if constexpr (!strict)
        return false;
    for (std::size_t i = 0; i < length; i++)
        if (bytes[i] < ' ' || bytes[i] == 0x7F || std::strchr(" `$\"'\\|&;<>()*?[]{}~!#", bytes[i]))
            return true;
    return false;
}

// Whether a resolved local path is refused: one with anything but what no shell and no script gives
// a meaning to. A directory may be called what no name may be.
inline bool strict_refuses_path(const char *path) {
    return strict && path[std::strspn(path, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                            "0123456789._+,=@%/-")] != '\0';
}

// Whether a row index is refused: one above 2^31 - 1, which many managers cannot handle.
inline bool strict_refuses_index(int32_t index) { return strict && index < 0; }

// Whether a file may not be staged under this name in the working directory.
inline bool strict_refuses_staging(const char *name) {
    return strict && std::strchr(name, '/') != nullptr;
}

} // namespace flash

#endif

// How a GET handler answers a column: the value's address, with its length in bytes in `var_len`.
#ifndef FLASH_ANSWER_H
#define FLASH_ANSWER_H

#include "flash_agent.h"

#include <cstddef>
#include <cstring>
#include <sys/types.h>

namespace flash {

// A 32-bit value: 4 bytes at every word size of the agent.
template <typename Word>
u_char *answer_word(Word &value, std::size_t *var_len) {
    static_assert(sizeof value == 4);
    *var_len = sizeof value;
    return reinterpret_cast<u_char *>(&value);
}

// A text up to its terminator or the end of its field.
template <std::size_t Size>
u_char *answer_text(char (&value)[Size], std::size_t *var_len) {
    *var_len = strnlen(value, Size);
    return reinterpret_cast<u_char *>(value);
}

// The answer to a magic that the handler does not serve.
inline u_char *answer_unserved() {
    snmp_set_detail("");
    return nullptr;
}

} // namespace flash

#endif

#include "base/printable.h"

#include <cstdio>

namespace ruma {

std::string printable(std::string_view text, std::string_view separators) {
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    std::string line;
    line.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\\') {
            line += "\\\\";
        } else if (byte < 0x20 || byte > 0x7e || separators.find(c) != separators.npos) {
            char escaped[5];
            std::snprintf(escaped, sizeof(escaped), "\\x%02x", unsigned{byte});
            line += escaped;
        } else {
            line += c;
        }
    }
    return line;
}

} // namespace ruma

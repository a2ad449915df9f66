// Foreign text on one line of a log.
#ifndef RUMA_HOST_BASE_PRINTABLE_H
#define RUMA_HOST_BASE_PRINTABLE_H

#include <string>
#include <string_view>

namespace ruma {

// A text as one line of printable ASCII, which drives no terminal that shows it: newlines at its
// end are dropped; control characters, bytes above 0x7e, backslashes and the characters of
// `separators` are escaped. Throws std::bad_alloc.
std::string printable(std::string_view text, std::string_view separators = {});

} // namespace ruma

#endif

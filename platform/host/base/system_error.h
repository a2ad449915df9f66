// What the system says of an error, as part of a sentence.
#ifndef RUMA_HOST_BASE_SYSTEM_ERROR_H
#define RUMA_HOST_BASE_SYSTEM_ERROR_H

#include <string>

namespace ruma {

// An errno's text and the path it is about, if any: "No such file or directory: /run/ruma".
// Printable and free of ", ", which separates the fields of the error log. May throw
// std::bad_alloc.
std::string system_error_text(int error, const std::string &path);

} // namespace ruma

#endif

#include "base/system_error.h"

#include "base/printable.h"

#include <system_error>

namespace ruma {

std::string system_error_text(int error, const std::string &path) {
    const std::string text = printable(std::generic_category().message(error), ",");
    return path.empty() ? text : text + ": " + printable(path, ",");
}

} // namespace ruma

// The agent's error log, as a place for other records than those of log_snmp_error.
#ifndef RUMA_HOST_AGENT_ERROR_LOG_H
#define RUMA_HOST_AGENT_ERROR_LOG_H

#include <cstdint>
#include <string>

namespace ruma {

// Appends "TIME, CODE, TEXT". The text is one printable line without ", ". Returns 0, or -1 when
// it could not be entered. Throws std::bad_alloc.
int append_to_error_log(int32_t code, const std::string &text);

} // namespace ruma

#endif

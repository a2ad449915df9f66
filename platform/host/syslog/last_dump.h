// How the last dump of the system log ended.
#ifndef RUMA_HOST_SYSLOG_LAST_DUMP_H
#define RUMA_HOST_SYSLOG_LAST_DUMP_H

#include <cstdint>

namespace ruma {

// The result of this process's last syslog_disp_logfile; 0 before the first.
int32_t last_dump_result();

} // namespace ruma

#endif

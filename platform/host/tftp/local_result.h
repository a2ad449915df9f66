// This side's errors as results of the TFTP client.
#ifndef RUMA_HOST_TFTP_LOCAL_RESULT_H
#define RUMA_HOST_TFTP_LOCAL_RESULT_H

#include <cerrno>

namespace ruma {

// Results below its negative are the server's errors.
constexpr int tftp_server_error = 100;

// The result for an errno of this side, 0 for 0. The few above 100 would read as errors of the
// server, so they become others, except for the time-out, which no server reports.
constexpr int local_result(int error) {
    if (error <= tftp_server_error || error == ETIMEDOUT)
        return -error;
    return error == EDQUOT ? -ENOSPC : -EIO;
}

} // namespace ruma

#endif

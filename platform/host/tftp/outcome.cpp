#include "tftp/outcome.h"

#include "base/printable.h"
#include "tftp/local_result.h"

#include <cerrno>
#include <system_error>

namespace ruma::tftp {
namespace {

constexpr std::size_t max_server_text = 64;

struct ServerError {
    ErrorCode code;
    int error;
    const char *text;
};

constexpr const char *refusal = "The server refuses the request";

constexpr ServerError server_errors[] = {
    {ErrorCode::undefined, EPROTO, refusal},
    {ErrorCode::no_such_file, ENOENT, "The server has no such file"},
    {ErrorCode::no_access, EACCES, "The server refuses access"},
    {ErrorCode::disk_full, ENOSPC, "The server's disk is full"},
    {ErrorCode::illegal_operation, EPROTO, refusal},
    {ErrorCode::unknown_port, EPROTO, refusal},
    {ErrorCode::file_exists, EEXIST, "The server has the file already"},
    {ErrorCode::no_such_user, EPERM, "The server knows no such user"},
    {ErrorCode::options_refused, EPROTO, refusal},
};

constexpr int result_of(const ServerError &error) { return -(tftp_server_error + error.error); }

} // namespace

const char *sentence(int result) {
    if (result >= 0)
        return "Success";
    if (result == -ETIMEDOUT)
        return "The server did not answer in time";
    for (const ServerError &error : server_errors) {
        if (result_of(error) == result)
            return error.text;
    }
    return result < -tftp_server_error ? "Unknown error" : nullptr;
}

Outcome failed_here(int error) {
    Outcome outcome;
    outcome.result = local_result(error);
    outcome.text = std::generic_category().message(error);
    return outcome;
}

Outcome failed_at_file(int error) {
    Outcome outcome = failed_here(error);
    outcome.about_file = true;
    return outcome;
}

Outcome failed_there(uint16_t code, std::string_view text) {
    const ServerError *found = &server_errors[0]; // codes that nobody defined included
    for (const ServerError &error : server_errors) {
        if (static_cast<uint16_t>(error.code) == code)
            found = &error;
    }
    Outcome outcome;
    outcome.result = result_of(*found);
    outcome.text = found->text;
    outcome.server_code = code;
    outcome.server_text = text;
    if (!text.empty())
        outcome.text += ": " + printable(text.substr(0, max_server_text));
    return outcome;
}

ErrorCode told_to_server(int error) {
    switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return ErrorCode::disk_full;
    case EACCES:
    case EPERM:
    case EROFS:
        return ErrorCode::no_access;
    default:
        return ErrorCode::undefined;
    }
}

} // namespace ruma::tftp

// The C interface of the TFTP client.
#include <ruma/tftp.h>

#include "base/unique_fd.h"
#include "report/transfer_report.h"
#include "tftp/incoming_file.h"
#include "tftp/local_result.h"
#include "tftp/outcome.h"
#include "tftp/session.h"
#include "tftp/transfer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ruma::tftp::Outcome;

constexpr int tftp_port = 69;

sockaddr_in server; // all zero until tftp_connect
Outcome last;       // of the last transfer

bool connected() { return server.sin_family == AF_INET; }

Outcome get(const char *remote, const char *local) {
    ruma::IncomingFile file;
    if (const int error = file.open(local))
        return ruma::tftp::failed_at_file(error);
    return ruma::tftp::fetch(server, ruma::tftp::limits(), remote, &file);
}

Outcome put(const char *path) {
    // Without a wait for the other end of what is no file.
    const ruma::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0)
        return ruma::tftp::failed_at_file(errno);
    if (!S_ISREG(status.st_mode))
        return ruma::tftp::failed_at_file(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    return ruma::tftp::send(server, ruma::tftp::limits(), path, file.get(),
                            static_cast<uint64_t>(status.st_size));
}

// Tells the agent why the transfer of a local file failed.
void report(const Outcome &outcome, const char *file) {
    using ruma::CauseKind;
    if (outcome.about_file)
        ruma::report_cause({CauseKind::local, -outcome.result, {}, file});
    else if (outcome.server_code >= 0)
        ruma::report_cause({CauseKind::server, outcome.server_code, {}, outcome.server_text});
    else
        ruma::report_cause({CauseKind::verdict, 0, tftp_strerror(outcome.result), {}});
}

// Runs a transfer of a local file and keeps how it ended.
template <typename Transfer>
int run(const char *file, const Transfer &transfer) {
    if (!connected())
        return -EDESTADDRREQ;
    try {
        last = transfer();
        if (last.result < 0)
            report(last, file);
    } catch (const std::bad_alloc &) {
        last = {};
        last.result = -ENOMEM;
        ruma::report_cause({ruma::CauseKind::verdict, 0, "out of memory", {}});
    }
    return last.result;
}

bool missing(const char *name) { return name == nullptr || name[0] == '\0'; }

} // namespace

ruma::tftp::Limits &ruma::tftp::limits() {
    static Limits limits;
    return limits;
}

extern "C" {

int tftp_timeout_set(int seconds) {
    if (seconds <= 0)
        return -EINVAL;
    ruma::tftp::limits().silence = std::chrono::seconds(seconds);
    return 0;
}

int tftp_connect(const char *address, int port) {
    sockaddr_in wanted{};
    wanted.sin_family = AF_INET;
    if (address == nullptr || inet_pton(AF_INET, address, &wanted.sin_addr) != 1)
        return -EINVAL;
    if (port != -1 && (port < 1 || port > 65535))
        return -EINVAL;
    wanted.sin_port = htons(static_cast<uint16_t>(port == -1 ? tftp_port : port));
    server = wanted;
    return 0;
}

int tftp_get2(const char *remote, const char *local, int flags) {
    if (missing(remote) || missing(local) || flags != 0)
        return -EINVAL;
    return run(local, [&] { return get(remote, local); });
}

int tftp_put(const char *file, int flags) {
    if (missing(file) || flags != 0)
        return -EINVAL;
    return run(file, [&] { return put(file); });
}

const char *tftp_strerror(int result) {
    static char text[128];
    if (result == last.result && !last.text.empty())
        return last.text.c_str();
    const char *general = ruma::tftp::sentence(result);
    return general != nullptr ? general : strerror_r(-result, text, sizeof text);
}
}

#include "report/sentence.h"

#include "base/printable.h"
#include "base/system_error.h"
#include "flash_codes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <iterator>

namespace ruma {
namespace {

struct Name {
    int32_t number;
    const char *name;
};

constexpr Name copy_statuses[] = {
    {flash::copyInProgress, "inProgress"},
    {flash::copySuccess, "success"},
    {flash::copyInvalidCommand, "invalidCommand"},
    {flash::copyInvalidProtocol, "invalidProtocol"},
    {flash::copyInvalidSourceName, "invalidSourceName"},
    {flash::copyInvalidDestinationName, "invalidDestinationName"},
    {flash::copyBusy, "busy"},
    {flash::copyDeviceFull, "deviceFull"},
    {flash::STATUS_FILE_TRANSFERERR, "transferError"},
    {flash::copyNoMemory, "noMemory"},
    {flash::copyStatusInitial, "notStarted"},
    {flash::copyScpFailure, "scpFailure"},
};

constexpr Name delete_statuses[] = {
    {flash::miscOpInProgress, "inProgress"},
    {flash::miscOpSuccess, "success"},
    {flash::miscOpFailed, "failed"},
    {flash::miscOpStatusInitial, "notStarted"},
};

constexpr Name protocols[] = {
    {flash::protocolTftp, "TFTP"}, {flash::protocolRcp, "rcp"}, {flash::protocolLex, "lex"},
    {flash::protocolFtp, "FTP"},   {flash::protocolScp, "SCP"}, {flash::protocolSftp, "SFTP"},
};

template <std::size_t size>
const char *find(const Name (&names)[size], int32_t number) {
    const auto *const found = std::find_if(std::begin(names), std::end(names),
                                           [number](auto &each) { return each.number == number; });
    return found == std::end(names) ? nullptr : found->name;
}

template <std::size_t size>
std::string status_name(const Name (&names)[size], int32_t status) {
    const char *name = find(names, status);
    const std::string number = std::to_string(status);
    return name == nullptr ? number : name + ("(" + number + ")");
}

template <std::size_t size>
std::string_view text_of(const char (&field)[size]) {
    return std::string_view(field, size).substr(0, std::string_view(field, size).find('\0'));
}

std::string line(std::string_view text) { return printable(text, ","); }

std::string whose(const std::string &user) {
    return user.empty() ? "" : " of user " + quoted(user);
}

// Rows are numbered as OIDs are.
std::string number(int32_t index) { return std::to_string(static_cast<uint32_t>(index)); }

} // namespace

std::string quoted(std::string_view text) { return '"' + printable(text, "\",") + '"'; }

std::string describe(const flashCopyEntry &row, const std::string &user) {
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &row.serverAddress, address, sizeof address);
    const std::string source = quoted(text_of(row.sourceName));
    const std::string destination = quoted(text_of(row.destinationName));
    const bool from_flash = row.command == flash::commandFromFlash;
    return "copy " + number(row.index) + whose(user) + " (" + source +
           (from_flash ? " to " + destination + " at " + address
                       : std::string(" from ") + address + " to " + destination) +
           " by " + protocol_name(row.protocol) + ")";
}

std::string describe(const flashMiscOpEntry &row, const std::string &user) {
    return "delete " + number(row.index) + whose(user) + " (" +
           quoted(text_of(row.destinationName)) + ")";
}

std::string copy_status_name(int32_t status) { return status_name(copy_statuses, status); }

std::string delete_status_name(int32_t status) { return status_name(delete_statuses, status); }

std::string protocol_name(int32_t protocol) {
    const char *name = find(protocols, protocol);
    return name == nullptr ? "protocol " + std::to_string(protocol) : name;
}

std::string describe(const TransferCause &cause) {
    std::string said;
    switch (cause.kind) {
    case CauseKind::none:
        return {};
    case CauseKind::local:
        said = cause.number > 0 ? system_error_text(cause.number, cause.words) : line(cause.words);
        break;
    case CauseKind::server:
    case CauseKind::client:
        if (cause.words.empty() && cause.number <= 0)
            break;
        said = cause.kind == CauseKind::server ? "the server says " : "the client says ";
        said += quoted(cause.words);
        if (cause.number > 0)
            said += " (" + std::to_string(cause.number) + ")";
        break;
    case CauseKind::verdict:
        break;
    }
    std::string text = line(cause.verdict);
    if (!text.empty() && !said.empty())
        text += ": ";
    return text + said;
}

} // namespace ruma

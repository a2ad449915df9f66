// Copies and deletes in words, for the agent's logs.
#ifndef RUMA_HOST_REPORT_SENTENCE_H
#define RUMA_HOST_REPORT_SENTENCE_H

#include "report/transfer_report.h"

#include <flash_records.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace ruma {

// All sentences are printable and free of ", ", which separates the fields of the error log. Each
// may throw std::bad_alloc.

// A foreign text in quotes, which hold no other quote.
std::string quoted(std::string_view text);

// `copy 7 of user "flashadmin" ("image.bin" from 192.0.2.9 to "bootflash:image.bin" by TFTP)`, with
// the names of a row and never its password. An empty user is left out: requests of SNMPv1 and
// SNMPv2c have none.
std::string describe(const flashCopyEntry &row, const std::string &user);

// `delete 3 of user "flashadmin" ("bootflash:image.bin")`.
std::string describe(const flashMiscOpEntry &row, const std::string &user);

// A status as the MIB names it: "transferError(14)". The number alone for one that it does not
// name.
std::string copy_status_name(int32_t status);
std::string delete_status_name(int32_t status);

// The name of a copy protocol; "protocol 9" for one that has none.
std::string protocol_name(int32_t protocol);

// A cause in words; empty when there is none.
std::string describe(const TransferCause &cause);

} // namespace ruma

#endif

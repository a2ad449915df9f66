// Causes that nobody reported, found by looking once more at what the module has looked at: at the
// row, and at the files that it names. What has changed since shows as it is now.
#ifndef RUMA_HOST_REPORT_EXPLAIN_H
#define RUMA_HOST_REPORT_EXPLAIN_H

#include <flash_records.h>

#include <string>

namespace ruma {

// Each returns a cause in words, empty when nothing is found that would be one, may throw
// std::bad_alloc and blocks no longer than the file system does.

// Why a row was refused that was to be activated.
std::string explain_refusal(const flashCopyEntry &row);

// Why a worker's transfer could not even begin on this side: staging of a file to send by TFTP, the
// script of the protocol.
std::string explain_transfer(const flashCopyEntry &row);

// Why the file of a row could not be deleted.
std::string explain_delete(const flashMiscOpEntry &row);

// Whether the name of a row to be deleted resolves.
bool delete_name_resolves(const flashMiscOpEntry &row);

// What keeps the agent from writing into a directory: an errno's text and the path. Empty when
// nothing does.
std::string explain_directory(const std::string &path);

} // namespace ruma

#endif

// A row that may be copied, and the messages of the rules.
#ifndef UNIT_COPY_VALIDATION_VALIDATION_H
#define UNIT_COPY_VALIDATION_VALIDATION_H

#include "fakes/copyable_row.h"

#include "flash_trace.h"

namespace copy_validation {

using namespace fakes;

// Row states other than active: as far as the rules go they are all one.
constexpr int32_t inactive_states[] = {0, 2, 3, 4, 5};

// A row that may be copied: its destination resolves, and its source for command 3.
inline flashCopyEntry good_row(int32_t command = 1, int32_t protocol = 1, int32_t state = waiting) {
    platform().paths["bootflash:new"] = "/bootflash/new";
    platform().paths["bootflash:old"] = "/bootflash/old";
    return copyable_row(command, protocol, state);
}

// The messages of the rules alone, without those of the name resolution.
inline Traces rule_traces() {
    Traces all = fakes::traces();
    std::erase_if(all, [](const Trace &trace) {
        return trace.text.find("uriutil_uri_to_path") != std::string::npos ||
               trace.text.starts_with("validate_filename: ") ||
               trace.text.find("svcmgrcmi_core_uri_to_path") != std::string::npos ||
               trace.text == "Adding a new file.\n" ||
               trace.text == "destination cannot be directory.\n";
    });
    return all;
}

const Trace entering{debug_level, "Entering validate_flash_entry()...\n"};
const Traces protocol_refusal = {
    {error_level, "ERROR  validate_flash_entry : lex and rcp protocols not supported. \n"},
    {error_level, "flashCopyProtocol:rcp and lex not supported. ...\n"}};
const Traces log_refusal = {
    {error_level, "ERROR  validate_flash_entry : copyFromFlhLog command is not supported\n"},
    {error_level, "flashCopyCommand:COPY_FROM_FLHLOG not supported. ...\n"}};
const Traces erase_refusal = {
    {error_level, "ERROR  validate_flash_entry : Copy without ERASE NOT supported\n"},
    {error_level, "flashCopyCommand:Copy without ERASE NOT supported. ...\n"}};
const Traces lex_refusal = {
    {error_level, "ERROR  validate_flash_entry : Only allowed protocol are TFTP and RCP \n"},
    {error_level, "flashCopyProtocol:COPY_PROT_LEX not supported. ...\n"}};
const Traces mandatory_refusal = {
    {error_level, "ERROR  validate_flash_entry : Protocol,Server addr and source name are "
                  "MANDATORY objects\n"}};

inline Traces joined(std::initializer_list<Traces> parts) {
    Traces all = {entering};
    for (const Traces &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

} // namespace copy_validation

#endif

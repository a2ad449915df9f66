// Validation and delete: device URIs and their schemes, the validation of a copy request, the
// delete operation.
#ifndef FLASH_VALIDATE_H
#define FLASH_VALIDATE_H

#include "flash_export.h"
#include "flash_records.h"

#include <cstddef>
#include <cstdint>

// One slot of the string splitter's result.
constexpr std::size_t flashTokenSize = 255;
typedef char flashToken[flashTokenSize];

// Slots that a name of 255 characters can fill.
constexpr std::size_t flashNameTokens = 128;

// Splits `text` in place at every run of characters of `delimiters` and copies the tokens into
// consecutive slots. A token that does not fit its slot is dropped, but for the first, which runs
// on into the following slots: `slots` holds flashNameTokens. Returns the number of tokens stored.
FLASH_API int32_t snmp_uri_map_str_split(char *text, const char *delimiters, flashToken *slots);

// Which name of a copy row is meant is a flash::Side: sideDestination is the destination, and every
// other number the source.

// Return 1 when the name's scheme is one that a copy or a delete accepts, and store it in the row;
// else 0. The delete's helper also stores the rest of the name and cuts the row's name up.
FLASH_API int32_t parse_file_n_get_scheme(flashCopyEntry *entry, int32_t side);
FLASH_API int32_t parse_MiscOpfile_n_get_scheme(flashMiscOpEntry *entry);

// Classifies a name of a copy row, cutting it up: flash::pathOrdinary when there is nothing but "/"
// in it (an empty path is stored, with its kind), -1 when there is more than one component, else 3,
// but -1 for sideSource itself, unlike the other numbers that mean the source. No name is found to
// lie on the standby supervisor.
FLASH_API int32_t parse_file_n_get_pathname(flashCopyEntry *entry, int32_t side);

// Resolves one name of a copy row to a local path in the row. Returns 1, or 0 when
// the name is refused. Blocks while the file system is looked at, and for the system log as source
// while it is written out.
FLASH_API int32_t validate_filename(flashCopyEntry *entry, int32_t side);

// Applies the refusal rules to a copy row. Returns 1 when the row may be copied; 0 when not, with
// the verdict in the row and in `error` (an SNMP error status; 0 when the row just is not ready).
FLASH_API int32_t validate_flash_entry(flashCopyEntry *entry, int32_t *error);

// Validates a copy row, records the verdict in the row and in the store, and starts the copy.
// Returns the SNMP error status for the SET. Blocks as validate_filename does.
FLASH_API int32_t validate_n_start_flash_copy(flashCopyEntry *entry);

// Resolves the name of the file to delete to a local path in the row. Returns 1 or 0.
FLASH_API int32_t validate_flashMiscOp_entry(flashMiscOpEntry *entry);

// Deletes the file at the row's local path and leaves the outcome in the operation status.
FLASH_API void start_flash_delete(flashMiscOpEntry *entry);

// Validates a misc-operation row and deletes its file. Returns the SNMP error status for the SET.
FLASH_API int32_t validate_n_start_flash_delete(flashMiscOpEntry *entry);

#endif

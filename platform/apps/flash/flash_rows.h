// Rows of the copy table and the misc-operation table: their stores, look-ups, GET handlers.
//
// The stores live in the agent's memory, in ascending order of the row index taken as an OID arc,
// that is unsigned. Callers work on records of their own and exchange whole records with a store.
// Agent thread only; nothing blocks.
#ifndef FLASH_ROWS_H
#define FLASH_ROWS_H

#include "flash_agent.h"
#include "flash_export.h"
#include "flash_records.h"

#include <cstdint>

// Returns a new row with the defaults of its table, from the system allocator, or null when there
// is no memory. The caller owns it until it is added.
FLASH_API flashCopyEntry *createFlashCopyEntry(void);
FLASH_API flashMiscOpEntry *createFlashMiscOpEntry(void);

// Releases a row that is not in a store.
FLASH_API void flashCopyEntry_free(flashCopyEntry *entry);
FLASH_API void flashMiscOpEntry_free(flashMiscOpEntry *entry);

// Adds a row under its index. Returns flash::success, and the store owns the row; or
// flash::failure, and the caller still does.
FLASH_API int32_t addFlashCopyEntry(flashCopyEntry *entry);
FLASH_API int32_t addFlashMiscOpEntry(flashMiscOpEntry *entry);

// Copies the stored row with the record's index over the record. Returns flash::success, or
// flash::noSuchRow and leaves the record alone.
FLASH_API int32_t getFlashCopyEntry(flashCopyEntry *entry);
FLASH_API int32_t getFlashMiscOpEntry(flashMiscOpEntry *entry);

// Copies the first stored row after the record's index over the record; index 0 is before the first
// row. Returns flash::success, or flash::noSuchRow and leaves the record alone.
FLASH_API int32_t getnextFlashCopyEntry(flashCopyEntry *entry);
FLASH_API int32_t getnextFlashMiscOpEntry(flashMiscOpEntry *entry);

// Copies the record over the stored row with its index. Returns flash::success or flash::noSuchRow.
FLASH_API int32_t setFlashCopyEntry(const flashCopyEntry *entry);
FLASH_API int32_t setFlashMiscOpEntry(const flashMiscOpEntry *entry);

// Removes and releases the stored row with the record's index. Returns flash::success or
// flash::failure.
FLASH_API int32_t deleteFlashCopyEntry(const flashCopyEntry *entry);
FLASH_API int32_t deleteFlashMiscOpEntry(const flashMiscOpEntry *entry);

// Order two rows by index for the container: -1, 0 or 1; -1 when either is null.
FLASH_API int flashCopyEntry_comp_func(const void *a, const void *b);
FLASH_API int flashMiscOpEntry_comp_func(const void *a, const void *b);

// Puts the SET handler of a writable column where `write_method` points; for any other magic
// leaves it alone.
FLASH_API void set_flashCopyTable_setmethods(int32_t magic, WriteMethod **write_method);
FLASH_API void set_flashMiscOpTable_setmethods(int32_t magic, WriteMethod **write_method);

// Find the first row, in ascending order, with a status or an index. Each walks the store from its
// beginning and copies every visited row over the caller's record. Returns flash::success with the
// row found in the record, or flash::failure.
FLASH_API int32_t get_flash_entry_with_status(int32_t status, flashCopyEntry *entry);
FLASH_API int32_t get_flashMiscOp_entry_with_status(int32_t status, flashMiscOpEntry *entry);
FLASH_API int32_t get_flash_entry_with_index(uint32_t index, flashCopyEntry *entry);

// Return 1 while some row is in progress, else 0.
FLASH_API int32_t flashcopy_inprogress(void);
FLASH_API int32_t flashdelete_inprogress(void);

// Match the requested instance against the table: on MATCH_SUCCEEDED the row is in the handler's
// static record and name and length are the instance's; on MATCH_FAILED name and length are
// unchanged.
FLASH_API int header_flashCopyEntry(struct variable *vp, oid *name, size_t *length, int exact);
FLASH_API int header_flashMiscOpEntry(struct variable *vp, oid *name, size_t *length, int exact);

// Answer the columns of the tables (handler contract: orvex_flash_mib.h). The write method of a
// writable column is installed whether or not a row matched: that is how a SET creates a row.
FLASH_API u_char *get_orvexFlashCopyTable(struct variable *vp, oid *name, size_t *length, int exact,
                                          size_t *var_len, WriteMethod **write_method);
FLASH_API u_char *get_orvexFlashMiscOpTable(struct variable *vp, oid *name, size_t *length,
                                            int exact, size_t *var_len, WriteMethod **write_method);

namespace flash {

// The rows that the GET handlers matched last; after a failed match the index is the one asked for
// and the rest is the former row's.
const flashCopyEntry &last_copy_row();
const flashMiscOpEntry &last_misc_op_row();

} // namespace flash

#endif

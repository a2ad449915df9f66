// Flash inventory: the read-only device, partition and file tables, answered record by record from
// the file-system daemon.
#ifndef FLASH_INVENTORY_H
#define FLASH_INVENTORY_H

#include "flash_agent.h"
#include "flash_export.h"
#include "flash_records.h"

// Answer the columns of the inventory tables (handler contract: orvex_flash_mib.h). Each sends one
// request to the daemon and blocks no longer than cmi_req_resp does.
FLASH_API u_char *get_orvexFlashDeviceTable(struct variable *vp, oid *name, size_t *length,
                                            int exact, size_t *var_len, WriteMethod **write_method);
FLASH_API u_char *get_orvexFlashPartitionTable(struct variable *vp, oid *name, size_t *length,
                                               int exact, size_t *var_len,
                                               WriteMethod **write_method);
FLASH_API u_char *get_orvexFlashFileTable(struct variable *vp, oid *name, size_t *length, int exact,
                                          size_t *var_len, WriteMethod **write_method);

// Convert a record in place for or from a host of the other byte order: the bytes of its 32-bit
// words are swapped, in either direction and whatever this host's order is. Texts and 64-bit values
// are left alone. The module itself exchanges records in host order.
FLASH_API void flashDeviceEntry_t_ntoh(flashDeviceEntry *entry);
FLASH_API void flashDeviceEntry_hton(flashDeviceEntry *entry);
FLASH_API void flashPartitionEntry_ntoh(flashPartitionEntry *entry);
FLASH_API void flashPartitionEntry_hton(flashPartitionEntry *entry);
FLASH_API void flashCopyEntry_ntoh(flashCopyEntry *entry);
FLASH_API void flashCopyEntry_hton(flashCopyEntry *entry);

// Compare two records by key: 1 when the second's key is the greater, 0 when equal, -1 when the
// second's is the smaller (the opposite of the usual sign, deliberately), -1 when either is null.
// The keys: the device index; the partition index alone; the copy row index, signed.
FLASH_API int flashDeviceEntry_comp(const flashDeviceEntry *a, const flashDeviceEntry *b);
FLASH_API int flashPartitionEntry_comp(const flashPartitionEntry *a, const flashPartitionEntry *b);
FLASH_API int flashCopyEntry_comp(const flashCopyEntry *a, const flashCopyEntry *b);

#endif

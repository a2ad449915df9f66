// The mark of an exported name: C linkage, visible outside the shared object. Everything else is
// hidden.
#ifndef FLASH_EXPORT_H
#define FLASH_EXPORT_H

#define FLASH_API extern "C" __attribute__((visibility("default")))

#endif

#include "fakes/module.h"

extern "C" {
int32_t __real_getFlashCopyEntry(flashCopyEntry *entry);
int32_t __real_getFlashMiscOpEntry(flashMiscOpEntry *entry);
int32_t __real_handle_flash_abort(const flashCopyEntry *entry);
int32_t __real_validate_n_start_flash_copy(flashCopyEntry *entry);
int32_t __real_validate_n_start_flash_delete(flashMiscOpEntry *entry);
}

namespace fakes {

Module::Module()
    : getFlashCopyEntry(__real_getFlashCopyEntry), getFlashMiscOpEntry(__real_getFlashMiscOpEntry),
      handle_flash_abort(__real_handle_flash_abort),
      validate_n_start_flash_copy(__real_validate_n_start_flash_copy),
      validate_n_start_flash_delete(__real_validate_n_start_flash_delete) {}

Module &module() {
    static auto &instance = *new Module;
    return instance;
}

void reset_module() { module() = Module(); }

} // namespace fakes

extern "C" {

int32_t __wrap_getFlashCopyEntry(flashCopyEntry *entry) {
    return fakes::module().getFlashCopyEntry(entry);
}

int32_t __wrap_getFlashMiscOpEntry(flashMiscOpEntry *entry) {
    return fakes::module().getFlashMiscOpEntry(entry);
}

int32_t __wrap_handle_flash_abort(const flashCopyEntry *entry) {
    return fakes::module().handle_flash_abort(entry);
}

int32_t __wrap_validate_n_start_flash_copy(flashCopyEntry *entry) {
    return fakes::module().validate_n_start_flash_copy(entry);
}

int32_t __wrap_validate_n_start_flash_delete(flashMiscOpEntry *entry) {
    return fakes::module().validate_n_start_flash_delete(entry);
}

} // extern "C"

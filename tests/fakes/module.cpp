#include "fakes/module.h"

extern "C" {
int32_t __real_getFlashCopyEntry(flashCopyEntry *entry);
int32_t __real_getFlashMiscOpEntry(flashMiscOpEntry *entry);
int32_t __real_handle_flash_abort(const flashCopyEntry *entry);
}

namespace fakes {

Module::Module()
    : getFlashCopyEntry(__real_getFlashCopyEntry), getFlashMiscOpEntry(__real_getFlashMiscOpEntry),
      handle_flash_abort(__real_handle_flash_abort) {}

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

} // extern "C"

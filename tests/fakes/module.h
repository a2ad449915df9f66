// The module's own procedures that a test must make fail, intercepted at link time (--wrap). Left
// alone they are the module's, and nothing is recorded of them:
//
//     module().getFlashCopyEntry.returns(7);    // the next look-up fails, whoever makes it
//     module().handle_flash_abort.always(1);
//
// Only calls from one source of the module to another are seen, and those of the test itself.
#ifndef FAKES_MODULE_H
#define FAKES_MODULE_H

#include "fakes/call.h"

#include <flash_records.h>

#include <cstdint>

namespace fakes {

struct Module {
    Call<int32_t(flashCopyEntry *)> getFlashCopyEntry;
    Call<int32_t(flashMiscOpEntry *)> getFlashMiscOpEntry;
    Call<int32_t(const flashCopyEntry *)> handle_flash_abort;
    Call<int32_t(flashCopyEntry *)> validate_n_start_flash_copy;
    Call<int32_t(flashMiscOpEntry *)> validate_n_start_flash_delete;

    Module();
};

Module &module();

// For the fakes themselves.
void reset_module();

} // namespace fakes

#endif

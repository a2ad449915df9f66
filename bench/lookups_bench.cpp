// How look-ups grow with what they look into. Each benchmark times an ordered map of the standard
// library in the same run, which does what any ordered look-up must, and prints the ratio to it:
// ratios hold where absolute times do not. Build a release and run bin/ruma_bench.
#include "flash_inventory.h"
#include "flash_rows.h"
#include "fs_daemon/catalogue.h"
#include "orvex_flash_mib.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <map>
#include <string>

namespace {

constexpr int batch = 256;

using Clock = std::chrono::steady_clock;

// Times batches of both procedures in turn. A procedure takes a number that spreads over the keys.
template <typename Ours, typename Reference>
void compare(benchmark::State &state, Ours ours, Reference reference) {
    Clock::duration of_ours{}, of_reference{};
    uint32_t spread = 1;
    for (auto _ : state) {
        const auto begin = Clock::now();
        for (int i = 0; i < batch; i++)
            ours(spread += 2654435761U);
        const auto middle = Clock::now();
        for (int i = 0; i < batch; i++)
            reference(spread += 2654435761U);
        const auto end = Clock::now();
        of_ours += middle - begin;
        of_reference += end - middle;
        state.SetIterationTime(std::chrono::duration<double>(middle - begin).count());
    }
    state.counters["ratio"] =
        static_cast<double>(of_ours.count()) / static_cast<double>(of_reference.count());
}

// GETNEXT of a column of the copy table, against the next row of a map copied whole.
void copy_table_getnext(benchmark::State &state) {
    const auto rows = static_cast<uint32_t>(state.range(0));
    std::map<uint32_t, flashCopyEntry> reference;
    for (uint32_t index = 1; index <= rows; index++) {
        flashCopyEntry *entry = createFlashCopyEntry();
        entry->index = static_cast<int32_t>(index);
        reference[index] = *entry;
        if (addFlashCopyEntry(entry) != 0)
            return state.SkipWithError("a row could not be added");
    }

    struct variable object = {};
    object.magic = 50;
    object.namelen = 14;
    const oid column[] = {1, 3, 6, 1, 4, 1, 32473, 1, 1, 1, 2, 1, 1, 2};
    std::copy(std::begin(column), std::end(column), object.name);
    oid name[MAX_OID_LEN];
    std::copy(std::begin(column), std::end(column), name);
    static flashCopyEntry found;

    compare(
        state,
        [&](uint32_t spread) {
            size_t length = 15, value_length = 0;
            WriteMethod *method = nullptr;
            std::copy(std::begin(column), std::end(column), name);
            name[14] = spread % rows;
            benchmark::DoNotOptimize(
                get_orvexFlashCopyTable(&object, name, &length, 0, &value_length, &method));
        },
        [&](uint32_t spread) {
            found = reference.upper_bound(spread % rows)->second;
            benchmark::DoNotOptimize(found);
        });

    for (flashCopyEntry entry{}; getnextFlashCopyEntry(&entry) == 0;)
        deleteFlashCopyEntry(&entry);
}
BENCHMARK(copy_table_getnext)->Arg(10)->Arg(1000)->Arg(100000)->UseManualTime();

// The daemon's next file, against the next key of a map.
void catalogue_next(benchmark::State &state) {
    const auto files = static_cast<uint32_t>(state.range(0));
    ruma::Catalogue catalogue;
    const uint32_t device = catalogue.add_device([](ruma::Directory &) {});
    std::map<ruma::FileKey, uint32_t> reference;
    for (uint32_t file = 1; file <= files; file++) {
        catalogue.ensure_file(catalogue.root(device), "file" + std::to_string(file));
        reference[{device, 1, file}] = file;
    }
    catalogue.set_available(device, true);

    compare(
        state,
        [&](uint32_t spread) {
            benchmark::DoNotOptimize(catalogue.next({device, 1, spread % files}));
        },
        [&](uint32_t spread) {
            benchmark::DoNotOptimize(reference.upper_bound({device, 1, spread % files}));
        });
}
BENCHMARK(catalogue_next)->Arg(1000)->Arg(100000)->Arg(1000000)->UseManualTime();

} // namespace

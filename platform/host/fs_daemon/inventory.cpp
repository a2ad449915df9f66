#include "fs_daemon/inventory.h"

#include <algorithm>

namespace ruma {
namespace {

constexpr unsigned entries_per_slice = 1000;
// After so many files that have gone without the catalogue knowing yet, a look-up gives up rather
// than keep the others waiting.
constexpr unsigned gone_limit = 5000;

} // namespace

Inventory::Inventory(const std::vector<FileSystem> &file_systems, const WatchLimits &limits)
    : file_systems_(file_systems) {
    for (const FileSystem &file_system : file_systems_) {
        monitors_.push_back(std::make_unique<Monitor>(catalogue_, file_system, limits));
    }
}

std::optional<Volume> Inventory::volume(uint32_t device) {
    const UniqueFd root = monitor(device).open_root();
    return root ? read_volume(root.get()) : std::nullopt;
}

bool Inventory::device(const FileKey &key, bool next, flashDeviceEntry &record) {
    const uint64_t device = uint64_t{key.device} + (next ? 1 : 0);
    if (device == 0 || device > catalogue_.devices()) {
        return false;
    }
    const auto found = static_cast<uint32_t>(device);
    record = device_record(found, file_systems_[found - 1], volume(found));
    return true;
}

bool Inventory::partition(const FileKey &key, bool next, flashPartitionEntry &record) {
    uint64_t device = key.device;
    if (next && (device == 0 || key.partition != 0)) {
        ++device;
    } else if (!next && key.partition != 1) {
        return false;
    }
    if (device == 0 || device > catalogue_.devices()) {
        return false;
    }
    const auto found = static_cast<uint32_t>(device);
    const std::optional<Volume> facts = volume(found);
    record = partition_record(found, file_systems_[found - 1], facts, catalogue_.files(found));
    return true;
}

bool Inventory::file(const FileKey &key, bool next, flashFileEntry &record) {
    const Catalogue::Found *found = next ? catalogue_.next(key) : catalogue_.exact(key);
    for (unsigned gone = 0; found != nullptr && gone < gone_limit; ++gone) {
        const FileKey present = found->first;
        if (const auto facts = monitor(present.device).look_at(found->second)) {
            const Catalogue::Entry &entry = found->second;
            record = file_record(present, path_of(*entry.directory, entry.file->first), *facts);
            return true;
        }
        found = next ? catalogue_.next(present) : nullptr;
    }
    return false;
}

std::vector<int> Inventory::descriptors() const {
    std::vector<int> all;
    for (const auto &monitor : monitors_) {
        all.push_back(monitor->descriptor());
    }
    return all;
}

void Inventory::take_events() {
    for (const auto &monitor : monitors_) {
        monitor->take_events();
    }
}

bool Inventory::scan() {
    bool more = false;
    for (const auto &monitor : monitors_) {
        more = monitor->scan(entries_per_slice) || more;
    }
    return more;
}

void Inventory::tick() {
    for (const auto &monitor : monitors_) {
        monitor->tick();
    }
}

bool Inventory::moves_pending() const {
    return std::any_of(monitors_.begin(), monitors_.end(),
                       [](const auto &monitor) { return monitor->moves_pending(); });
}

} // namespace ruma

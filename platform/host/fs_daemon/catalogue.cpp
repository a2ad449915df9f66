#include "fs_daemon/catalogue.h"

#include <utility>

namespace ruma {
namespace {

constexpr uint32_t only_partition = 1;

bool lies_in(const Directory *directory, const Directory &ancestor) {
    while (directory != nullptr && directory != &ancestor) {
        directory = directory->parent;
    }
    return directory != nullptr;
}

} // namespace

Catalogue::Catalogue()
    : comparisons_(std::make_unique<uint64_t>(0)), index_(CountingLess{comparisons_.get()}) {}

Catalogue::~Catalogue() {
    for (Device &device : devices_) {
        device.removed = nullptr;
        destroy(std::move(device.root));
        destroy(std::move(device.limbo));
    }
}

uint32_t Catalogue::add_device(std::function<void(Directory &)> removed) {
    Device device;
    for (auto *top : {&device.root, &device.limbo}) {
        *top = std::make_unique<Directory>();
        (*top)->device = devices() + 1;
    }
    device.removed = std::move(removed);
    devices_.push_back(std::move(device));
    return devices();
}

uint32_t Catalogue::files(uint32_t device) const {
    const Device &found = at(device);
    return found.available ? found.files : 0;
}

const Catalogue::Found *Catalogue::exact(const FileKey &key) const {
    const auto found = index_.find(key);
    return found != index_.end() && at(key.device).available ? &*found : nullptr;
}

const Catalogue::Found *Catalogue::next(FileKey key) const {
    auto found = index_.upper_bound(key);
    while (found != index_.end() && !at(found->first.device).available) {
        found = index_.lower_bound(FileKey{found->first.device + 1, 0, 0});
    }
    return found == index_.end() ? nullptr : &*found;
}

File *Catalogue::ensure_file(Directory &directory, std::string_view name) {
    const auto known = directory.files.find(name);
    if (known != directory.files.end()) {
        return &known->second;
    }
    Device &device = at(directory.device);
    if (device.last_index == UINT32_MAX) {
        return nullptr;
    }
    const auto file = directory.files.emplace(std::string(name), File{}).first;
    file->second.index = ++device.last_index;
    // A new index is the greatest of its device, so its place is just before the next device's.
    const auto place = index_.lower_bound(FileKey{directory.device + 1, 0, 0});
    index_.emplace_hint(place, FileKey{directory.device, only_partition, file->second.index},
                        Entry{&directory, file});
    ++device.files;
    return &file->second;
}

Directory &Catalogue::ensure_directory(Directory &directory, std::string_view name) {
    const auto known = directory.directories.find(name);
    if (known != directory.directories.end()) {
        return *known->second;
    }
    auto added = std::make_unique<Directory>();
    added->device = directory.device;
    added->parent = &directory;
    added->name = name;
    return *directory.directories.emplace(added->name, std::move(added)).first->second;
}

void Catalogue::remove(Directory &directory, FileMap::iterator file) {
    index_.erase(FileKey{directory.device, only_partition, file->second.index});
    --at(directory.device).files;
    directory.files.erase(file);
}

void Catalogue::remove_file(Directory &directory, std::string_view name) {
    const auto file = directory.files.find(name);
    if (file != directory.files.end()) {
        remove(directory, file);
    }
}

void Catalogue::remove_directory(Directory &directory, std::string_view name) {
    const auto found = directory.directories.find(name);
    if (found == directory.directories.end()) {
        return;
    }
    std::unique_ptr<Directory> removed = std::move(found->second);
    directory.directories.erase(found);
    destroy(std::move(removed));
}

// Works through a list instead of calling itself: the depth of a tree is the users' choice. The
// list ends last, so that each directory can still tell its path when its turn comes.
void Catalogue::destroy(std::unique_ptr<Directory> directory) {
    std::vector<std::unique_ptr<Directory>> all;
    all.push_back(std::move(directory));
    for (std::size_t i = 0; i < all.size(); ++i) {
        Directory &current = *all[i];
        for (auto &[name, child] : current.directories) {
            all.push_back(std::move(child));
        }
        current.directories.clear();
        while (!current.files.empty()) {
            remove(current, current.files.begin());
        }
        if (const auto &removed = at(current.device).removed) {
            removed(current);
        }
    }
}

bool Catalogue::move_file(Directory &from, std::string_view name, Directory &to,
                          std::string_view target) {
    const auto source = from.files.find(name);
    if (source == from.files.end() || (&from == &to && name == target) ||
        from.device != to.device) {
        return false;
    }
    const auto overwritten = to.directories.find(target);
    if (overwritten != to.directories.end() && lies_in(&from, *overwritten->second)) {
        return false;
    }
    remove_file(to, target);
    remove_directory(to, target);
    // The node itself moves, so that a pointer to the file stays good.
    auto node = from.files.extract(source);
    node.key() = target;
    const FileKey key{to.device, only_partition, node.mapped().index};
    index_.at(key) = Entry{&to, to.files.insert(std::move(node)).position};
    return true;
}

bool Catalogue::move_directory(Directory &from, std::string_view name, Directory &to,
                               std::string_view target) {
    const auto source = from.directories.find(name);
    if (source == from.directories.end() || (&from == &to && name == target) ||
        from.device != to.device || lies_in(&to, *source->second)) {
        return false;
    }
    const auto overwritten = to.directories.find(target);
    if (overwritten != to.directories.end() && lies_in(&from, *overwritten->second)) {
        return false;
    }
    remove_file(to, target);
    remove_directory(to, target);
    auto node = from.directories.extract(source);
    node.key() = target;
    node.mapped()->parent = &to;
    node.mapped()->name = target;
    to.directories.insert(std::move(node));
    return true;
}

const Directory &top_of(const Directory &directory) {
    const Directory *top = &directory;
    while (top->parent != nullptr) {
        top = top->parent;
    }
    return *top;
}

std::string path_of(const Directory &directory) {
    std::vector<const Directory *> way;
    for (const Directory *step = &directory; step->parent != nullptr; step = step->parent) {
        way.push_back(step);
    }
    std::string path;
    for (auto step = way.rbegin(); step != way.rend(); ++step) {
        path += path.empty() ? "" : "/";
        path += (*step)->name;
    }
    return path;
}

std::string path_of(const Directory &directory, std::string_view name) {
    std::string path = path_of(directory);
    path += path.empty() ? "" : "/";
    path += name;
    return path;
}

} // namespace ruma

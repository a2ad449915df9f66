// Which files exist, and under which index. Pure data: nothing here touches a file system.
//
// Devices are numbered from 1 in the order in which they are added, each with one partition, 1.
// Files are numbered from 1 on each. A file keeps its index until it is removed, over moves too;
// an index is never given a second time.
#ifndef RUMA_FS_DAEMON_CATALOGUE_H
#define RUMA_FS_DAEMON_CATALOGUE_H

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ruma {

struct FileKey {
    uint32_t device = 0;
    uint32_t partition = 0;
    uint32_t file = 0;

    friend auto operator<=>(const FileKey &, const FileKey &) = default;
};

struct File {
    uint32_t index = 0;
    uint32_t seen = 0;    // stamp of the last scan that met it
    uint32_t written = 0; // second of the last write that no close followed; 0 without one
};

using FileMap = std::map<std::string, File, std::less<>>;

struct Directory {
    using Children = std::map<std::string, std::unique_ptr<Directory>, std::less<>>;

    uint32_t device = 0;
    Directory *parent = nullptr; // null for the root of a device and its limbo
    std::string name;            // empty for those two
    Children directories;
    FileMap files;

    // Kept by whoever watches the file system.
    uint32_t seen = 0;   // stamp of the last scan that met it
    int watch = -1;      // its inotify watch
    uint64_t ticket = 0; // its place in the queue of scans; 0 when it is not queued
};

class Catalogue {
  public:
    struct Entry {
        Directory *directory;
        FileMap::iterator file;
    };
    // Counts what look-ups cost, so that it can be shown that they do not scan.
    struct CountingLess {
        uint64_t *count;
        bool operator()(const FileKey &left, const FileKey &right) const {
            ++*count;
            return left < right;
        }
    };
    using Index = std::map<FileKey, Entry, CountingLess>;
    using Found = Index::value_type;

    Catalogue();
    ~Catalogue();
    Catalogue(const Catalogue &) = delete;
    Catalogue &operator=(const Catalogue &) = delete;

    // Adds a device and returns its number. `removed` is called for each of its directories just
    // before that is destroyed; it must not change the catalogue.
    uint32_t add_device(std::function<void(Directory &)> removed);
    uint32_t devices() const { return static_cast<uint32_t>(devices_.size()); }
    Directory &root(uint32_t device) { return *at(device).root; }

    // An unavailable device keeps its files and their indexes, but look-ups pass them over.
    void set_available(uint32_t device, bool available) { at(device).available = available; }
    // Where files and directories wait that have left their place for another one that is not known
    // yet. It belongs to no path.
    Directory &limbo(uint32_t device) { return *at(device).limbo; }
    uint32_t files(uint32_t device) const;

    // The record with this key, or the first with a greater one; null without one. The result is
    // valid until the catalogue changes.
    const Found *exact(const FileKey &key) const;
    const Found *next(FileKey key) const;
    uint64_t comparisons() const { return *comparisons_; }

    // Finds or adds. A new file is null when the device has used up its indexes.
    File *ensure_file(Directory &directory, std::string_view name);
    Directory &ensure_directory(Directory &directory, std::string_view name);

    // Removing what does not exist does nothing.
    void remove_file(Directory &directory, std::string_view name);
    void remove_directory(Directory &directory, std::string_view name);

    // Moves within one device, keeping indexes; whatever has the target's name is removed first.
    // Returns false and changes nothing when the source does not exist or the target would lie in
    // itself.
    bool move_file(Directory &from, std::string_view name, Directory &to, std::string_view target);
    bool move_directory(Directory &from, std::string_view name, Directory &to,
                        std::string_view target);

  private:
    struct Device {
        std::unique_ptr<Directory> root;
        std::unique_ptr<Directory> limbo;
        std::function<void(Directory &)> removed;
        uint32_t last_index = 0;
        uint32_t files = 0;
        bool available = true;
    };

    Device &at(uint32_t device) { return devices_.at(device - 1); }
    const Device &at(uint32_t device) const { return devices_.at(device - 1); }
    void destroy(std::unique_ptr<Directory> directory);
    void remove(Directory &directory, FileMap::iterator file);

    std::vector<Device> devices_;
    std::unique_ptr<uint64_t> comparisons_;
    Index index_;
};

// The root or the limbo that a directory lies in.
const Directory &top_of(const Directory &directory);
// The path of a directory below the root of its device, without a slash at either end.
std::string path_of(const Directory &directory);
std::string path_of(const Directory &directory, std::string_view name);

} // namespace ruma

#endif

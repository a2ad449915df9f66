// The inventory of all configured file systems: answers the three requests of the agent.
#ifndef RUMA_FS_DAEMON_INVENTORY_H
#define RUMA_FS_DAEMON_INVENTORY_H

#include "fs_daemon/monitor.h"

#include <memory>
#include <vector>

namespace ruma {

class Inventory {
  public:
    // Throws std::system_error when the file systems cannot be watched.
    Inventory(const std::vector<FileSystem> &file_systems, const WatchLimits &limits);

    // The record with this key, or with `next` the first one behind it. Returns false when there
    // is none; the record is not touched then.
    bool device(const FileKey &key, bool next, flashDeviceEntry &record);
    bool partition(const FileKey &key, bool next, flashPartitionEntry &record);
    bool file(const FileKey &key, bool next, flashFileEntry &record);

    // Descriptors that are readable when the inventory has changes to take.
    std::vector<int> descriptors() const;
    void take_events();
    // Scans a little further. Returns whether more is left to do now.
    bool scan();
    void tick();
    bool moves_pending() const;

  private:
    std::optional<Volume> volume(uint32_t device);
    Monitor &monitor(uint32_t device) { return *monitors_.at(device - 1); }

    const std::vector<FileSystem> file_systems_;
    Catalogue catalogue_;
    std::vector<std::unique_ptr<Monitor>> monitors_;
};

} // namespace ruma

#endif

// One transfer by itself, and the messages with which each begins.
#ifndef UNIT_TRANSFER_TRANSFER_H
#define UNIT_TRANSFER_TRANSFER_H

#include "fakes/fixture.h"

#include "flash_trace.h"

#include <arpa/inet.h>
#include <filesystem>
#include <syslog.h>

namespace transfers {

using namespace fakes;
namespace fs = std::filesystem;

constexpr int32_t get_direction = 1;
constexpr int32_t put_direction = 2;
constexpr int32_t untouched_status = 1;

// What `system` returns for a script that ended with an exit code.
constexpr int exited(int code) { return code << 8; }

inline int32_t transfer(int32_t direction, flashCopyEntry &row) {
    return do_flash_upload_download(direction, ".", &row);
}

inline flashCopyEntry request(int32_t protocol,
                              const std::function<void(flashCopyEntry &)> &change = {}) {
    flashCopyEntry row = fakes::copy_row([&](flashCopyEntry &r) {
        r.protocol = protocol;
        r.serverAddress = inet_addr("10.1.2.3");
        r.copyStatus = untouched_status;
        fakes::put(r.sourceName, "remote.bin");
        fakes::put(r.destinationPath, "/bootflash/local.bin");
        fakes::put(r.sourcePath, "/bootflash/image.bin");
        fakes::put(r.remoteUserName, "bob");
        fakes::put(r.password, "secret");
    });
    if (change)
        change(row);
    return row;
}

// The messages with which every transfer begins.
inline Traces beginning(const std::string &source_name = "remote.bin",
                        const std::string &destination_path = "/bootflash/local.bin") {
    return {{debug_level, "do_flash_upload_download : Entering \n"},
            {debug_level, "In do_flash_upload_download trying to print the source file.\n"},
            {debug_level, "source file =" + source_name + "\n"},
            {debug_level, "In do_flash_upload_download trying to print the destination file.\n"},
            {debug_level, "destination file =" + destination_path + "\n"}};
}

inline Traces after_beginning(const Traces &more) {
    Traces all = beginning();
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

inline Lines tftp_calls() {
    Lines result = fakes::calls("tftp_");
    std::erase_if(result,
                  [](const std::string &line) { return line.starts_with("tftp_strerror"); });
    return result;
}

using TransferTest = fakes::FlashTest;

} // namespace transfers

#endif

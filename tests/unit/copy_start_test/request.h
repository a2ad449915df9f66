// A row as a copy starts from it.
#ifndef UNIT_COPY_START_REQUEST_H
#define UNIT_COPY_START_REQUEST_H

#include "fakes/fixture.h"

#include "flash_trace.h"

#include <arpa/inet.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace copy_start {

using namespace fakes;

inline flashCopyEntry request(int32_t command, int32_t protocol = flash::protocolTftp) {
    return fakes::copy_row([&](flashCopyEntry &r) {
        r.index = 7;
        r.command = command;
        r.protocol = protocol;
        r.serverAddress = inet_addr("10.1.2.3");
        r.copyStatus = flash::copyInProgress;
        r.entryStatus = flash::rowActive;
        fakes::put(r.sourceName, "remote.bin");
        fakes::put(r.destinationPath, "/bootflash/local.bin");
        fakes::put(r.sourcePath, "/bootflash/image.bin");
        fakes::put(r.destinationName, "kept.bin");
    });
}

} // namespace copy_start

#endif

// The module as it is after its start.
#ifndef UNIT_FRAME_FRAME_H
#define UNIT_FRAME_FRAME_H

#include "fakes/fixture.h"

#include "flash_inventory.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace frame {

using namespace fakes;

const std::string root = "1.3.6.1.4.1." + std::to_string(ORVEX_ENTERPRISE_NUMBER) + ".1.1";

class FrameTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        fakes::FlashTest::SetUp();
        pipe_status = 0;
    }

    static std::string registration_line() {
        return "register_mib name=orvex_flash_mib row_size=" + std::to_string(sizeof(variable7)) +
               " rows=50 root=" + root + " length=9";
    }
    static void fail_pipe() {
        os().pipe.does([](int *descriptors) {
            descriptors[0] = descriptors[1] = -1;
            errno = EMFILE;
            return -1;
        });
    }
    // As the system's own does: the descriptors are not touched.
    static void fail_pipe_untouched() { os().pipe.always(-1, EMFILE); }
    static bool is_open(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }
};

} // namespace frame

#endif

// The numbers behind the names that the other tests use: managers, scripts and the platform know
// the numbers alone. The magics' are in the object table (frame_test.cpp).
#include "flash_codes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>

namespace {

struct Number {
    const char *meaning;
    int64_t named;
    int64_t number;
};

std::ostream &operator<<(std::ostream &out, const Number &one) { return out << one.meaning; }

class Numbers : public testing::TestWithParam<Number> {};

TEST_P(Numbers, AreThoseThatTheMibAndThePlatformFixed) {
    EXPECT_EQ(GetParam().named, GetParam().number);
}

constexpr Number numbers[] = {
    {"result: success", flash::success, 0},
    {"result: general failure", flash::failure, 0x40490001},
    {"result: no such row or empty table", flash::noSuchRow, 0x40490002},

    {"platform code: invalid source file", flash::invalidSourceFile, 0x4049001C},
    {"platform code: invalid destination file", flash::invalidDestinationFile, 0x4049001D},
    {"platform code: protocol not supported", flash::unsupportedProtocol, 0x4049003C},
    {"platform code: another copy is running", flash::copyAlreadyRunning, 0x4049003E},
    {"platform code: second success of the core-file resolver", flash::coreResolvedElsewhere,
     0x401E0059},

    {"copy status: in progress", flash::copyInProgress, 1},
    {"copy status: finished successfully", flash::copySuccess, 2},
    {"copy status: invalid command", flash::copyInvalidCommand, 3},
    {"copy status: invalid protocol", flash::copyInvalidProtocol, 4},
    {"copy status: invalid source name", flash::copyInvalidSourceName, 5},
    {"copy status: invalid destination name", flash::copyInvalidDestinationName, 6},
    {"copy status: busy", flash::copyBusy, 8},
    {"copy status: device full", flash::copyDeviceFull, 12},
    {"copy status: transfer error", flash::STATUS_FILE_TRANSFERERR, 14},
    {"copy status: no memory", flash::copyNoMemory, 16},
    {"copy status: of a new row", flash::copyStatusInitial, 17},
    {"copy status: SCP failure", flash::copyScpFailure, 18},

    {"operation status: in progress", flash::miscOpInProgress, 1},
    {"operation status: finished successfully", flash::miscOpSuccess, 2},
    {"operation status: failed", flash::miscOpFailed, 10},
    {"operation status: of a new row", flash::miscOpStatusInitial, 14},

    {"row status: active", flash::rowActive, 1},
    {"row status: notInService", flash::rowNotInService, 2},
    {"row status: notReady", flash::rowNotReady, 3},
    {"row status: createAndGo", flash::rowCreateAndGo, 4},
    {"row status: createAndWait", flash::rowCreateAndWait, 5},
    {"row status: destroy", flash::rowDestroy, 6},

    {"command: copy into flash with erase", flash::commandToFlash, 1},
    {"command: copy into flash without erase", flash::commandToFlashWithoutErase, 2},
    {"command: copy out of flash", flash::commandFromFlash, 3},
    {"command: copy from the flash log", flash::commandFromFlashLog, 4},
    {"command: delete", flash::miscOpDelete, 3},

    {"protocol: not set", flash::protocolUnset, 0},
    {"protocol: TFTP", flash::protocolTftp, 1},
    {"protocol: rcp, or line-card NVRAM", flash::protocolRcp, 2},
    {"protocol: lex", flash::protocolLex, 3},
    {"protocol: FTP", flash::protocolFtp, 4},
    {"protocol: SCP", flash::protocolScp, 5},
    {"protocol: SFTP", flash::protocolSftp, 6},

    {"truth value: true", flash::truthTrue, 1},
    {"truth value: false", flash::truthFalse, 2},

    {"side: destination", flash::sideDestination, 1},
    {"side: source", flash::sideSource, 2},
    {"direction: to flash", flash::directionToFlash, 1},
    {"direction: from flash", flash::directionFromFlash, 2},
    {"path kind: ordinary", flash::pathOrdinary, 1},
    {"path kind: on the standby supervisor", flash::pathOnStandby, 2},

    {"pipe: created", flash::pipeCreated, 1},
    {"pipe: could not be created", flash::pipeFailed, 2},

    {"daemon request: device", flash::opcodeDevice, 7771},
    {"daemon request: partition", flash::opcodePartition, 7772},
    {"daemon request: file", flash::opcodeFile, 7773},

    {"status message: node", flash::statusMessageNode, 0xfe000000},
    {"status message: service access point", flash::statusMessageSap, 28},
    {"status message: opcode", flash::statusMessageOpcode, 7786},
    {"status callback: major", flash::statusCallbackMajor, 0},
    {"status callback: minor", flash::statusCallbackMinor, 11},
};

INSTANTIATE_TEST_SUITE_P(All, Numbers, testing::ValuesIn(numbers));

} // namespace

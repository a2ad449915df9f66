// Records as the daemon sends them, and a daemon that answers with them.
#ifndef UNIT_INVENTORY_INVENTORY_H
#define UNIT_INVENTORY_INVENTORY_H

#include "fakes/fixture.h"

#include "flash_inventory.h"

#include <cstring>

namespace inventory {

using namespace fakes;

// A column of each table with which the tests of keys and requests are made.
constexpr int deviceColumn = 5;
constexpr int partitionColumn = 29;
constexpr int fileColumn = 43;

// Writes a value of any kind at an offset of a record.
template <class Value>
void at(Bytes &record, size_t offset, const Value &value) {
    std::memcpy(record.data() + offset, &value, sizeof value);
}
inline void text_at(Bytes &record, size_t offset, const std::string &text) {
    std::memcpy(record.data() + offset, text.data(), text.size());
}

// Records as the daemon sends them, by their offsets.
inline Bytes device_record(uint32_t index) {
    Bytes record(204);
    at(record, 0, index);
    at(record, 4, uint32_t{4000000000});
    at(record, 8, uint32_t{102});
    at(record, 12, uint32_t{103});
    at(record, 16, uint32_t{104});
    at(record, 20, uint32_t{77});
    text_at(record, 24, "bootflash");
    text_at(record, 40, "Internal flash of the supervisor");
    at(record, 184, uint32_t{0xaaaaaaaa});
    at(record, 188, uint32_t{0xbbbbbbbb});
    at(record, 192, uint32_t{0xcccccccc});
    at(record, 196, uint32_t{0x89abcdef}); // low word first
    at(record, 200, uint32_t{0x01234567});
    return record;
}

inline Bytes partition_record(uint32_t device, uint32_t index) {
    Bytes record(80);
    at(record, 0, device);
    at(record, 4, index);
    at(record, 8, int32_t{-202});
    at(record, 12, int32_t{203});
    at(record, 16, uint32_t{3000000204});
    at(record, 20, uint32_t{205});
    at(record, 24, uint32_t{206});
    at(record, 28, int32_t{207});
    at(record, 32, int32_t{208});
    at(record, 36, int32_t{209});
    text_at(record, 40, "slot0");
    at(record, 56, int32_t{66});
    at(record, 60, int32_t{212});
    at(record, 64, uint32_t{0x00000001});
    at(record, 68, uint32_t{0x00000002});
    at(record, 72, uint32_t{0xfffffffe});
    at(record, 76, uint32_t{0x00000003});
    return record;
}

inline Bytes file_record(uint32_t device, uint32_t partition, uint32_t index) {
    Bytes record(320);
    at(record, 0, device);
    at(record, 4, partition);
    at(record, 8, index);
    at(record, 12, uint32_t{3500000302});
    text_at(record, 16, "image.bin");
    at(record, 48, int32_t{2});
    text_at(record, 52, "system/images/image.bin");
    text_at(record, 308, std::string("\x07\xe8\x02\x1d\x00\x3b\x00\x05", 8));
    at(record, 316, int32_t{6});
    return record;
}

inline DaemonAnswer reply(const Bytes &record) { return {0, record, std::nullopt}; }

// A record of the table that a request asks for, with the keys of the request, or with `next` keys
// for GETNEXT.
inline DaemonAnswer echo(const fakes::DaemonRequest &request) {
    const uint32_t more = request.message_type == CMI_NEXT ? 1 : 0;
    switch (request.opcode) {
    case 0x1E5B:
        return reply(device_record(request.word(0) + more));
    case 0x1E5C:
        return reply(partition_record(request.word(0), request.word(1) + more));
    case 0x1E5D:
        return reply(file_record(request.word(0), request.word(1), request.word(2) + more));
    default:
        return no_answer();
    }
}

// An instance of each of those columns, and the size of its records.
struct Table {
    int magic;
    std::initializer_list<oid> instance;
    size_t record;
};
const Table tables[] = {
    {deviceColumn, {1}, 204}, {partitionColumn, {1, 2}, 80}, {fileColumn, {1, 2, 3}, 320}};

class Inventory : public fakes::FlashTest {
  protected:
    void SetUp() override {
        fakes::FlashTest::SetUp();
        platform().daemon = echo;
    }

    // The keys and the type of the one request that was sent.
    static std::string asked() {
        if (platform().requests.size() != 1)
            return std::to_string(platform().requests.size()) + " requests";
        const fakes::DaemonRequest &request = platform().requests[0];
        const size_t keys = request.opcode - 0x1E5B + 1;
        std::string text = std::to_string(request.message_type) + ":";
        for (size_t i = 0; i < keys; ++i)
            text.append(" ").append(std::to_string(request.word(i)));
        platform().requests.clear();
        return text;
    }
};

} // namespace inventory

#endif

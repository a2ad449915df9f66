// The columns of both row tables, and rows with a value of its own in each.
#ifndef UNIT_ROW_TABLES_ROW_TABLES_H
#define UNIT_ROW_TABLES_ROW_TABLES_H

#include "fakes/fixture.h"

#include "flash_write.h"

#include <cstring>
#include <vector>

namespace row_tables {

using namespace fakes;

// A column of each table with which the tests of matching are made.
constexpr int copyCommand = 50;
constexpr int miscOpCommand = 74;
constexpr int firstColumns[] = {copyCommand, miscOpCommand};

inline std::string bytes_of(int32_t value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

struct Column {
    int magic;
    std::string value; // of the row that fill() makes
    WriteMethod *method;
};

inline void fill(flashCopyEntry &row) {
    row.command = 3;
    row.protocol = 4;
    std::memcpy(&row.serverAddress, "\xc0\x01\x02\x09", 4);
    put(row.sourceName, "bootflash:source.bin");
    put(row.destinationName, "slot0:destination.bin");
    put(row.remoteUserName, "remote-user");
    put(row.password, "secret");
    row.copyStatus = 12;
    row.notifyOnCompletion = 1;
    row.copyTime = 1234567890;
    row.entryStatus = 5;
}

inline void fill(flashMiscOpEntry &row) {
    row.command = 7;
    put(row.destinationName, "bootflash:old.bin");
    row.operationStatus = 10;
    row.notifyOnCompletion = 1;
    row.operationTime = 987654321;
    row.entryStatus = 6;
}

inline const std::vector<Column> &columns() {
    static const std::vector<Column> all{
        {50, bytes_of(3), set_orvexFlashCopyCommand},
        {51, bytes_of(4), set_orvexFlashCopyProtocol},
        {52, "\xc0\x01\x02\x09", set_orvexFlashCopyServerAddress},
        {53, "bootflash:source.bin", set_orvexFlashCopySourceName},
        {54, "slot0:destination.bin", set_orvexFlashCopyDestinationName},
        {55, "remote-user", set_orvexFlashCopyRemoteUserName},
        {56, bytes_of(12), untouched},
        {57, bytes_of(1), set_orvexFlashCopyNotifyOnCompletion},
        {58, bytes_of(1234567890), untouched},
        {59, bytes_of(5), set_orvexFlashCopyEntryStatus},
        {60, "", set_orvexFlashCopyPassword},
        {74, bytes_of(7), set_orvexFlashMiscOpCommand},
        {75, "bootflash:old.bin", set_orvexFlashMiscOpDestinationName},
        {76, bytes_of(10), untouched},
        {77, bytes_of(1), set_orvexFlashMiscOpNotifyOnCompletion},
        {78, bytes_of(987654321), untouched},
        {79, bytes_of(6), set_orvexFlashMiscOpEntryStatus},
    };
    return all;
}

class RowTables : public fakes::FlashTest {
  protected:
    // Rows of both tables under these indexes; nothing recorded of it.
    static void add(std::initializer_list<int32_t> indexes) {
        for (const int32_t index : indexes) {
            fakes::add_copy_row(index);
            fakes::add_misc_row(index);
        }
        fakes::forget();
    }
};

} // namespace row_tables

#endif

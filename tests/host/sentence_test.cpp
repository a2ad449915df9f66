#include "report/sentence.h"

#include "flash_codes.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <regex>

namespace {

using ruma::CauseKind;
using ruma::describe;

// The labels of an object's enumeration in the MIB, as sentences name them.
std::map<int, std::string> labels_of(const std::string &object) {
    std::ifstream file(ORVEX_SOURCE_DIRECTORY "/mibs/ORVEX-FLASH-MIB.txt");
    std::string text{std::istreambuf_iterator<char>(file), {}};
    text.erase(0, text.find("\n" + object + " OBJECT-TYPE"));
    text.resize(text.find('}'));
    std::map<int, std::string> labels;
    const std::regex label("([a-zA-Z]+)\\(([0-9]+)\\)");
    for (std::sregex_iterator at(text.begin(), text.end(), label), end; at != end; ++at)
        labels[std::stoi((*at)[2])] = (*at)[0];
    return labels;
}

flashCopyEntry copy_row(const char *source, const char *destination) {
    flashCopyEntry row{};
    row.index = 7;
    row.command = flash::commandToFlash;
    row.protocol = flash::protocolTftp;
    const unsigned char address[] = {192, 0, 2, 9};
    std::memcpy(&row.serverAddress, address, sizeof address);
    std::snprintf(row.sourceName, sizeof row.sourceName, "%s", source);
    std::snprintf(row.destinationName, sizeof row.destinationName, "%s", destination);
    std::snprintf(row.password, sizeof row.password, "secret");
    return row;
}

TEST(Sentence, NamesEveryStatusAsTheMibDoes) {
    const auto copies = labels_of("orvexFlashCopyStatus");
    ASSERT_EQ(copies.size(), 12u);
    for (const auto &[status, name] : copies)
        EXPECT_EQ(ruma::copy_status_name(status), name);
    const auto deletes = labels_of("orvexFlashMiscOpStatus");
    ASSERT_EQ(deletes.size(), 4u);
    for (const auto &[status, name] : deletes)
        EXPECT_EQ(ruma::delete_status_name(status), name);
}

TEST(Sentence, GivesAStatusWithoutANameAsANumber) {
    EXPECT_EQ(ruma::copy_status_name(7), "7");
    EXPECT_EQ(ruma::delete_status_name(-1), "-1");
}

TEST(Sentence, DescribesACopyToFlash) {
    EXPECT_EQ(describe(copy_row("image.bin", "bootflash:image.bin"), "flashadmin"),
              "copy 7 of user \"flashadmin\" (\"image.bin\" from 192.0.2.9 to "
              "\"bootflash:image.bin\" by TFTP)");
}

TEST(Sentence, DescribesACopyFromFlash) {
    flashCopyEntry row = copy_row("bootflash:image.bin", "sent.bin");
    row.command = flash::commandFromFlash;
    row.protocol = flash::protocolSftp;
    EXPECT_EQ(describe(row, ""),
              "copy 7 (\"bootflash:image.bin\" to \"sent.bin\" at 192.0.2.9 by SFTP)");
}

TEST(Sentence, NumbersRowsAsOidsDo) {
    flashCopyEntry row = copy_row("a", "b");
    row.index = -1;
    EXPECT_THAT(describe(row, ""), testing::StartsWith("copy 4294967295 ("));
}

TEST(Sentence, HoldsNoPassword) {
    EXPECT_THAT(describe(copy_row("a", "b"), "user"), testing::Not(testing::HasSubstr("secret")));
}

TEST(Sentence, QuotesForeignTextSoThatItEndsNeitherTheTextNorAField) {
    EXPECT_EQ(ruma::quoted("a\"b, \\\n\x1b\xff"), "\"a\\x22b\\x2c \\\\\\n\\x1b\\xff\"");
    const std::string text = describe(copy_row("a\", b", "c\nd"), "e\", f");
    EXPECT_THAT(text, testing::Not(testing::HasSubstr(", ")));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("\n")));
}

TEST(Sentence, DescribesADelete) {
    flashMiscOpEntry row{};
    row.index = 3;
    std::snprintf(row.destinationName, sizeof row.destinationName, "bootflash:old.bin");
    EXPECT_EQ(describe(row, "flashadmin"),
              "delete 3 of user \"flashadmin\" (\"bootflash:old.bin\")");
}

TEST(Sentence, TellsEachKindOfCause) {
    using ruma::TransferCause;
    EXPECT_EQ(describe(TransferCause{}), "");
    EXPECT_EQ(describe(TransferCause{CauseKind::local, ENOSPC, "", "/flash/a"}),
              "No space left on device: /flash/a");
    EXPECT_EQ(describe(TransferCause{CauseKind::local, 0, "no such file to send", "/flash/a"}),
              "no such file to send: /flash/a");
    EXPECT_EQ(describe(TransferCause{CauseKind::server, 1, "", "File not found"}),
              "the server says \"File not found\" (1)");
    EXPECT_EQ(describe(TransferCause{CauseKind::server, 2, "", ""}), "the server says \"\" (2)");
    EXPECT_EQ(describe(TransferCause{CauseKind::client, 0, "the transfer failed", "ssh: no"}),
              "the transfer failed: the client says \"ssh: no\"");
    EXPECT_EQ(describe(TransferCause{CauseKind::client, 0, "the transfer failed", ""}),
              "the transfer failed");
    EXPECT_EQ(describe(TransferCause{CauseKind::verdict, 0, "time limit reached", ""}),
              "time limit reached");
}

TEST(Sentence, EscapesWhatATransferTells) {
    const ruma::TransferCause cause{CauseKind::client, 0, "a, b\n", "c\"d\x1b"};
    EXPECT_EQ(describe(cause), "a\\x2c b: the client says \"c\\x22d\\x1b\"");
}

} // namespace

// Both starts: everything that each path does, in its order.
#include "names.h"

#include "fakes/sequence.h"

#include "flash_validate.h"

#include <cerrno>

namespace {

using namespace sequence_validation;

// validate_n_start_flash_copy, of row 7 of the store

class CopyStartSequenceTest : public fakes::FlashTest {
  protected:
    // Stores the row and starts it: the status answered.
    int32_t start(flashCopyEntry row) {
        fakes::add_copy_row(row.index, [&](flashCopyEntry &r) { r = row; });
        fakes::forget();
        return validate_n_start_flash_copy(&row);
    }
    static void expect_stored(int32_t copy_status, int32_t entry_status) {
        const flashCopyEntry row = *fakes::stored_copy_row(7);
        EXPECT_EQ(row.copyStatus, copy_status);
        EXPECT_EQ(row.entryStatus, entry_status);
    }
};

const Lines starting = {D("Entering validate_n_start_flash_copy()...\n")};
const Lines stored = {"ordset_size", "ordset_find key=7 flags=0"};
const Lines copy_not_stored =
    joined({stored, {E("ERROR  validate_n_start_flash_copy : Set to entry (index= 7) failed \n")}});
const Lines line_card = {
    D("Calling  rumapi_CopyIlcNVRAM with srcfile=remote.bin and dstFile=bootflash:new\n")};
const Lines failed = {D("validate_flash_entry FAILED.\n")};
const Lines ready = {D("DEBUG  validate_n_start_flash_copy : Ready to copy\n"),
                     D("validate_n_start_flash_copy Ready to copy\n")};
const Lines forked = {"stdout calling start_flash_copy().....\n",
                      D("Calling start_flash_copy()\n"),
                      D("Entered start_flash_copy()...\n"),
                      "fork",
                      D("DEBUG : start_flash_copy : Done starting the copy\n"),
                      D("DEBUG : start_flash_copy : Copy returned with status 1\n")};
const Lines read_back =
    joined({stored, {D("validate_n_start_flash_copy: status returned is 1\n")}});

TEST_F(CopyStartSequenceTest, ACopyOfLineCardNvram) {
    EXPECT_EQ(start(copyable_row(1, 2, waiting)), 0);
    expect_sequence({starting, line_card, stored});
    expect_stored(2, active);
}

TEST_F(CopyStartSequenceTest, ACopyOfLineCardNvramThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start(copyable_row(1, 2, waiting)), 5);
    expect_sequence({starting, line_card, copy_not_stored});
    platform().ordset_find.normal();
    expect_stored(initial, waiting);
}

TEST_F(CopyStartSequenceTest, ARefusedCopy) {
    all_resolve();
    EXPECT_EQ(start(copyable_row(4, 1, active)), 10);
    expect_sequence({starting, entering, log_refused, failed, stored});
    expect_stored(3, active);
}

TEST_F(CopyStartSequenceTest, ACopyThatIsNotReady) {
    EXPECT_EQ(start(copyable_row(1, 1, waiting)), 0);
    expect_sequence({starting, entering, destination_unresolved, failed, stored});
    expect_stored(initial, not_ready);
}

TEST_F(CopyStartSequenceTest, ARefusedCopyThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start(copyable_row(4, 1, active)), 5);
    expect_sequence({starting, entering, log_refused, failed, copy_not_stored});
}

TEST_F(CopyStartSequenceTest, ACopyThatStarts) {
    all_resolve();
    fakes::set_time(1000, 250000);
    EXPECT_EQ(start(copyable_row(1, 1, waiting)), 0);
    expect_sequence({starting, entering, destination_new, ready, stored, forked, read_back});
    expect_stored(1, active);
}

TEST_F(CopyStartSequenceTest, ACopyThatCannotBeStored) {
    all_resolve();
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start(copyable_row(3, 1, active)), 5);
    expect_sequence({starting, entering, source_resolved, ready, copy_not_stored});
}

TEST_F(CopyStartSequenceTest, ACopyThatCannotBeReadBack) {
    all_resolve();
    fakes::module().getFlashCopyEntry.returns(flash::noSuchRow);
    EXPECT_EQ(start(copyable_row(3, 1, active)), 2);
    expect_sequence({starting, entering, source_resolved, ready, stored, forked});
}

TEST_F(CopyStartSequenceTest, ACopyWhoseForkFails) {
    all_resolve();
    os().fork.returns(-1, EAGAIN);
    EXPECT_EQ(start(copyable_row(1, 1, active)), 0);
    expect_sequence({starting, entering, destination_new, ready, stored, forked, read_back});
    expect_stored(1, active);
}

// validate_n_start_flash_delete, of row 7 of the store

class DeleteStartSequenceTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        platform().paths["bootflash:old"] = "/bootflash/old";
        os().unlink.always(0);
    }
    // Stores a row with this name and starts it: the status answered, which leaves `row`.
    int32_t start(const char *name) {
        row = fakes::misc_row([&](flashMiscOpEntry &r) {
            r.index = 7;
            r.entryStatus = flash::rowActive;
            fakes::put(r.destinationName, name);
        });
        fakes::add_misc_row(7, [&](flashMiscOpEntry &r) { r = row; });
        fakes::forget();
        return validate_n_start_flash_delete(&row);
    }
    static int32_t stored_status() { return fakes::stored_misc_row(7)->operationStatus; }
    static Lines split(const std::string &name, int tokens) {
        Lines lines = {D("In snmp_uri_map_str_split: str is " + name + " and delimiters is :\n")};
        if (tokens > 0)
            lines.push_back(D("was able to tokenize and found a COLON..\n"));
        lines.push_back(D("returning ctr = " + std::to_string(tokens) + "\n"));
        return lines;
    }
    static Lines asked(const std::string &name) {
        return {D("validate_flashMiscOp_entry: calling uriutil_uri_to_path for destination file:" +
                  name + "\n"),
                "uriutil_uri_to_path uri=" + name + " size=255 flags=0"};
    }
    flashMiscOpEntry row{};
};

const Lines starting_delete = {D("Entering validate_n_start_flash_delete()...\n")};
const Lines delete_not_stored = joined(
    {stored, {E("ERROR  validate_n_start_flash_delete : Set to entry (index= 7) failed \n")}});
const Lines nvram = {D("Calling  rumapi_CopyIlcNVRAM with srcfile=ilc-nvram:old\n")};
const Lines deleting = {
    D("validate_flashMiscOp_entry: returning SUCCESS with dest filename=/bootflash/old\n"),
    D("Calling start_flash_delete()...\n"),
    D("start_flash_delete(): Trying to delete /bootflash/old...\n"),
    "unlink path=/bootflash/old",
};
const Lines unresolved = {
    "syserr2str code=0x41000001",
    D("uriutil_uri_to_path for destination returned ERROR. name of 0x41000001  \n")};

TEST_F(DeleteStartSequenceTest, ANameWithoutAToken) {
    for (const char *name : {"", ":", "::::"}) {
        fakes::empty_tables();
        EXPECT_EQ(start(name), 5);
        expect_sequence(
            {starting_delete,
             split(name, 0),
             {E("ERROR  validate_n_start_flash_delete : The Filename does NOT contain :\n")}});
        EXPECT_EQ(row.operationStatus, 10);
        EXPECT_EQ(stored_status(), 14);
    }
}

TEST_F(DeleteStartSequenceTest, ADeleteOnLineCardNvram) {
    EXPECT_EQ(start("ilc-nvram:old"), 0);
    expect_sequence({starting_delete, split("ilc-nvram:old", 2), nvram, stored});
    EXPECT_EQ(stored_status(), 2);
}

TEST_F(DeleteStartSequenceTest, ADeleteOnLineCardNvramThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start("ilc-nvram:old"), 5);
    expect_sequence({starting_delete, split("ilc-nvram:old", 2), nvram, delete_not_stored});
}

TEST_F(DeleteStartSequenceTest, ADelete) {
    EXPECT_EQ(start("bootflash:old"), 0);
    expect_sequence({starting_delete,
                     split("bootflash:old", 2),
                     asked("bootflash:old"),
                     deleting,
                     {D("start_flash_delete(): deleted /bootflash/old...\n")}});
    EXPECT_EQ(row.operationStatus, 2);
    EXPECT_EQ(stored_status(), 14) << "its caller stores the row";
}

TEST_F(DeleteStartSequenceTest, ADeleteThatFails) {
    os().unlink.always(-1, ENOENT);
    EXPECT_EQ(start("bootflash:old"), 0);
    expect_sequence({starting_delete,
                     split("bootflash:old", 2),
                     asked("bootflash:old"),
                     deleting,
                     {"snmp_log priority=3 text=ERROR:delete of the file:/bootflash/old failed\n",
                      D("ERROR:delete of the file:/bootflash/old failed\n")}});
    EXPECT_EQ(row.operationStatus, 10);
}

TEST_F(DeleteStartSequenceTest, ANameThatDoesNotResolve) {
    EXPECT_EQ(start("bootflash:other"), 0);
    expect_sequence({starting_delete, split("bootflash:other", 2), asked("bootflash:other"),
                     unresolved, failed, stored});
    EXPECT_EQ(stored_status(), 14);
}

TEST_F(DeleteStartSequenceTest, ANameThatDoesNotResolveOfARowThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start("bootflash:other"), 5);
    expect_sequence({starting_delete, split("bootflash:other", 2), asked("bootflash:other"),
                     unresolved, failed, delete_not_stored});
}

} // namespace

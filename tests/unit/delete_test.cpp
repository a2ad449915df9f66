// Delete: the name, the removal of the file, the outcome in the row.
#include "fakes/fixture.h"

#include "flash_trace.h"
#include "flash_validate.h"

#include <filesystem>
#include <fstream>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace fakes;
namespace fs = std::filesystem;

constexpr int32_t initial = flash::miscOpStatusInitial;

flashMiscOpEntry row_with(std::string_view name) {
    return fakes::misc_row([&](flashMiscOpEntry &r) {
        r.index = 7;
        fakes::put(r.destinationName, name);
        fakes::put(r.destinationFile, "file before");
    });
}

// validate_flashMiscOp_entry

using DeleteNameTest = fakes::FlashTest;

TEST_F(DeleteNameTest, AResolvedNameIsStoredAsTheFile) {
    platform().paths["bootflash:a"] = "/bootflash/a";
    flashMiscOpEntry row = row_with("bootflash:a");
    EXPECT_EQ(validate_flashMiscOp_entry(&row), 1);
    EXPECT_STREQ(row.destinationFile, "/bootflash/a");
    EXPECT_STREQ(row.destinationName, "bootflash:a");
    EXPECT_EQ(row.operationStatus, initial);
    EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=bootflash:a size=255 flags=0"}));
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "validate_flashMiscOp_entry: calling uriutil_uri_to_path for "
                                    "destination file:bootflash:a\n"},
                      {debug_level, "validate_flashMiscOp_entry: returning SUCCESS with dest "
                                    "filename=/bootflash/a\n"}}));
}

TEST_F(DeleteNameTest, ANameThatDoesNotResolveIsRefusedWithItsErrorsText) {
    for (int32_t code : {0x41000001, 1, -1}) {
        SCOPED_TRACE(code);
        fakes::forget();
        platform().uri_error = code;
        platform().error_names[code] = "no such scheme";
        flashMiscOpEntry row = row_with("nowhere:a");
        EXPECT_EQ(validate_flashMiscOp_entry(&row), 0);
        EXPECT_STREQ(row.destinationFile, "file before");
        EXPECT_EQ(fakes::traces(),
                  (Traces{{debug_level, "validate_flashMiscOp_entry: calling uriutil_uri_to_path "
                                        "for destination file:nowhere:a\n"},
                          {debug_level, "uriutil_uri_to_path for destination returned ERROR. no "
                                        "such scheme  \n"}}));
        EXPECT_THAT(fakes::calls("syserr_format"), IsEmpty());
    }
}

TEST_F(DeleteNameTest, NeitherSchemeNorFileIsChecked) {
    for (const char *name : {"log:messages", "usb1:x", "standby-sup:x", "plain"}) {
        SCOPED_TRACE(name);
        platform().paths[name] = "/somewhere";
        platform().file_types[name] = 32;
        flashMiscOpEntry row = row_with(name);
        EXPECT_EQ(validate_flashMiscOp_entry(&row), 1);
        EXPECT_STREQ(row.destinationFile, "/somewhere");
    }
    EXPECT_THAT(fakes::calls("uriutil_stat_get"), IsEmpty());
    EXPECT_THAT(fakes::calls("syslog_disp_logfile"), IsEmpty());
}

TEST_F(DeleteNameTest, TheLongestPathIsStoredWhole) {
    const std::string path = std::string("/").append(253, 'p');
    platform().paths["bootflash:a"] = path;
    flashMiscOpEntry row = row_with("bootflash:a");
    EXPECT_EQ(validate_flashMiscOp_entry(&row), 1);
    EXPECT_EQ(row.destinationFile, path);
}

// start_flash_delete, on real files

class DeleteTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        std::string name = (fs::temp_directory_path() / "delete_test.XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory_ = name;
    }
    void TearDown() override {
        fs::remove_all(directory_);
        FlashTest::TearDown();
    }
    std::string path(const char *name) const { return (directory_ / name).string(); }
    std::string file(const char *name) const {
        std::ofstream(path(name)) << "content";
        return path(name);
    }
    static flashMiscOpEntry row_of(const std::string &file) {
        return fakes::misc_row([&](flashMiscOpEntry &r) {
            r.index = 7;
            fakes::put(r.destinationFile, file);
        });
    }
    fs::path directory_;
};

TEST_F(DeleteTest, RemovesTheFile) {
    const std::string doomed = file("doomed");
    const std::string other = file("other");
    flashMiscOpEntry row = row_of(doomed);
    start_flash_delete(&row);
    EXPECT_FALSE(fs::exists(doomed));
    EXPECT_TRUE(fs::exists(other));
    EXPECT_EQ(row.operationStatus, 2);
    EXPECT_EQ(fakes::calls(), (Lines{"unlink path=" + doomed}));
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "start_flash_delete(): Trying to delete " + doomed + "...\n"},
                      {debug_level, "start_flash_delete(): deleted " + doomed + "...\n"}}));
}

TEST_F(DeleteTest, AFileThatDoesNotExistFails) {
    const std::string absent = path("absent");
    flashMiscOpEntry row = row_of(absent);
    start_flash_delete(&row);
    EXPECT_EQ(row.operationStatus, 10);
    EXPECT_THAT(os().agent_log, ElementsAre(AgentLogLine{
                                    LOG_ERR, "ERROR:delete of the file:" + absent + " failed\n"}));
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "start_flash_delete(): Trying to delete " + absent + "...\n"},
                      {debug_level, "ERROR:delete of the file:" + absent + " failed\n"}}));
}

TEST_F(DeleteTest, ADirectoryIsNotRemoved) {
    fs::create_directory(path("directory"));
    flashMiscOpEntry row = row_of(path("directory"));
    start_flash_delete(&row);
    EXPECT_TRUE(fs::exists(path("directory")));
    EXPECT_EQ(row.operationStatus, 10);
}

TEST_F(DeleteTest, ASymbolicLinkIsRemovedAndNotItsTarget) {
    const std::string target = file("target");
    fs::create_symlink(target, path("link"));
    flashMiscOpEntry row = row_of(path("link"));
    start_flash_delete(&row);
    EXPECT_EQ(row.operationStatus, 2);
    EXPECT_FALSE(fs::is_symlink(path("link")));
    EXPECT_TRUE(fs::exists(target));
}

TEST_F(DeleteTest, APercentSignInTheNameIsTakenAsItIs) {
    const std::string absent = path("100%s%n");
    flashMiscOpEntry row = row_of(absent);
    start_flash_delete(&row);
    ASSERT_EQ(os().agent_log.size(), 1U);
    EXPECT_EQ(os().agent_log[0].text, "ERROR:delete of the file:" + absent + " failed\n");
}

TEST_F(DeleteTest, TheRowIsNotStored) {
    fakes::add_misc_row(7);
    flashMiscOpEntry row = row_of(file("doomed"));
    start_flash_delete(&row);
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, initial);
}

// validate_n_start_flash_delete

class DeleteRequestTest : public DeleteTest {
  protected:
    // Puts a row into the store and asks for its delete: the status for the SET.
    int32_t request(flashMiscOpEntry wanted, bool stored = true) {
        row = wanted;
        if (stored)
            fakes::add_misc_row(wanted.index, [&](flashMiscOpEntry &r) { r = wanted; });
        before = fakes::stored_misc_row(wanted.index);
        fakes::forget();
        return validate_n_start_flash_delete(&row);
    }
    bool stored_row_unchanged() const {
        const auto after = fakes::stored_misc_row(7);
        return before && after && std::memcmp(&*before, &*after, sizeof *after) == 0;
    }
    // The messages without the splitter's.
    static Traces own_traces() {
        Traces all = fakes::traces();
        std::erase_if(all, [](const Trace &trace) {
            return trace.text.starts_with("In snmp_uri_map_str_split: ") ||
                   trace.text.starts_with("was able to tokenize") ||
                   trace.text.starts_with("returning ctr = ");
        });
        return all;
    }
    const Trace begun{debug_level, "Entering validate_n_start_flash_delete()...\n"};
    const Trace not_stored{
        error_level, "ERROR  validate_n_start_flash_delete : Set to entry (index= 7) failed \n"};

    flashMiscOpEntry row{};
    std::optional<flashMiscOpEntry> before;
};

TEST_F(DeleteRequestTest, AResolvedFileIsDeleted) {
    const std::string doomed = file("doomed");
    platform().paths["bootflash:doomed"] = doomed;
    EXPECT_EQ(request(row_with("bootflash:doomed")), 0);
    EXPECT_FALSE(fs::exists(doomed));
    EXPECT_EQ(row.operationStatus, 2);
    EXPECT_EQ(row.destinationFile, doomed);
    EXPECT_EQ(own_traces(),
              (Traces{begun,
                      {debug_level, "validate_flashMiscOp_entry: calling uriutil_uri_to_path for "
                                    "destination file:bootflash:doomed\n"},
                      {debug_level, "validate_flashMiscOp_entry: returning SUCCESS with dest "
                                    "filename=" +
                                        doomed + "\n"},
                      {debug_level, "Calling start_flash_delete()...\n"},
                      {debug_level, "start_flash_delete(): Trying to delete " + doomed + "...\n"},
                      {debug_level, "start_flash_delete(): deleted " + doomed + "...\n"}}));
}

TEST_F(DeleteRequestTest, ADeletedFilesRowIsNotStoredHere) {
    platform().paths["bootflash:doomed"] = file("doomed");
    request(row_with("bootflash:doomed"));
    EXPECT_TRUE(stored_row_unchanged());
}

TEST_F(DeleteRequestTest, AFailedDeleteIsInTheRowAndNotInTheStatus) {
    platform().paths["bootflash:absent"] = path("absent");
    EXPECT_EQ(request(row_with("bootflash:absent")), 0);
    EXPECT_EQ(row.operationStatus, 10);
    EXPECT_TRUE(stored_row_unchanged());
    EXPECT_THAT(os().agent_log,
                ElementsAre(AgentLogLine{LOG_ERR, "ERROR:delete of the file:" + path("absent") +
                                                      " failed\n"}));
}

TEST_F(DeleteRequestTest, NoWorkerIsForked) {
    platform().paths["bootflash:doomed"] = file("doomed");
    request(row_with("bootflash:doomed"));
    EXPECT_THAT(fakes::calls("fork"), IsEmpty());
}

TEST_F(DeleteRequestTest, ANameWithoutATokenIsAGeneralErrorAndNotStored) {
    for (const char *name : {"", ":", ":::"}) {
        SCOPED_TRACE(name);
        fakes::empty_tables();
        platform().paths[name] = "/somewhere";
        EXPECT_EQ(request(row_with(name)), 5);
        EXPECT_EQ(row.operationStatus, 10);
        EXPECT_TRUE(stored_row_unchanged());
        EXPECT_EQ(
            own_traces(),
            (Traces{begun,
                    {error_level,
                     "ERROR  validate_n_start_flash_delete : The Filename does NOT contain :\n"}}));
        EXPECT_THAT(fakes::calls(), IsEmpty());
    }
}

TEST_F(DeleteRequestTest, ALineCardNameIsAnsweredAsDoneWithoutADelete) {
    for (const char *name : {"ilc-nvram:a", "ilc-nvram", "ilc-nvram:", ":ilc-nvram:a"}) {
        SCOPED_TRACE(name);
        fakes::empty_tables();
        platform().paths[name] = file("kept");
        EXPECT_EQ(request(row_with(name)), 0);
        EXPECT_EQ(row.operationStatus, 2);
        EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, 2);
        EXPECT_TRUE(fs::exists(path("kept")));
        EXPECT_THAT(fakes::calls(), IsEmpty());
        EXPECT_EQ(own_traces(),
                  (Traces{begun,
                          {debug_level, std::string("Calling  rumapi_CopyIlcNVRAM with srcfile=") +
                                            name + "\n"}}));
    }
}

TEST_F(DeleteRequestTest, ALineCardNameThatCannotBeStoredIsAGeneralError) {
    EXPECT_EQ(request(row_with("ilc-nvram:a"), false), 5);
    EXPECT_EQ(row.operationStatus, 2);
    EXPECT_EQ(fakes::last_trace(), not_stored);
}

TEST_F(DeleteRequestTest, OnlyTheExactSchemeIsTheLineCards) {
    for (const char *name : {"ilc-nvram2:a", "ILC-NVRAM:a", "ilc-nvra:a", " ilc-nvram:a",
                             "bootflash:ilc-nvram", "ilc-nvram/a"}) {
        SCOPED_TRACE(name);
        fakes::empty_tables();
        request(row_with(name));
        EXPECT_EQ(fakes::calls("uriutil_uri_to_path").size(), 1U);
        EXPECT_EQ(row.operationStatus, initial);
    }
}

TEST_F(DeleteRequestTest, ANameThatDoesNotResolveIsStoredUnchangedAndNoError) {
    flashMiscOpEntry wanted = row_with("nowhere:a");
    wanted.operationStatus = 1;
    fakes::add_misc_row(7);
    row = wanted;
    fakes::forget();
    EXPECT_EQ(validate_n_start_flash_delete(&row), 0);
    EXPECT_EQ(std::memcmp(&row, &wanted, sizeof row), 0);
    const auto stored = fakes::stored_misc_row(7);
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(std::memcmp(&*stored, &wanted, sizeof wanted), 0);
    EXPECT_THAT(fakes::calls("unlink"), IsEmpty());
    ASSERT_FALSE(own_traces().empty());
    EXPECT_EQ(own_traces().back(), (Trace{debug_level, "validate_flash_entry FAILED.\n"}));
}

TEST_F(DeleteRequestTest, ANameThatDoesNotResolveAndCannotBeStoredIsAGeneralError) {
    EXPECT_EQ(request(row_with("nowhere:a"), false), 5);
    EXPECT_TRUE(fakes::traced(debug_level, "validate_flash_entry FAILED.\n"));
    EXPECT_EQ(fakes::last_trace(), not_stored);
    EXPECT_EQ(row.operationStatus, initial);
}

TEST_F(DeleteRequestTest, TheNameIsNotCutUp) {
    for (const char *name : {"nowhere:a:b", "ilc-nvram:a:b"}) {
        fakes::empty_tables();
        request(row_with(name));
        EXPECT_STREQ(row.destinationName, name);
    }
}

TEST_F(DeleteRequestTest, TheNameIsSplitAtColons) {
    request(row_with("nowhere:a/b"));
    const Traces all = fakes::traces();
    ASSERT_GE(all.size(), 4U);
    EXPECT_EQ(all[1], (Trace{debug_level, "In snmp_uri_map_str_split: str is nowhere:a/b and "
                                          "delimiters is :\n"}));
    EXPECT_EQ(all[3], (Trace{debug_level, "returning ctr = 2\n"}));
}

TEST_F(DeleteRequestTest, NamesOfTheLongestLengthAreHandled) {
    std::string many = "a";
    while (many.size() < 255)
        many += ":a";
    for (const std::string &name :
         {std::string(255, 'x'), many, std::string("ilc-nvram:").append(245, 'x')}) {
        fakes::empty_tables();
        EXPECT_EQ(request(row_with(name)), 0);
        EXPECT_EQ(row.destinationName, name);
        EXPECT_EQ(row.operationStatus, name.starts_with("ilc-nvram:") ? 2 : initial);
    }
}

} // namespace

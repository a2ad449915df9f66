// Path kinds and local paths of a row's names.
#include "sides.h"

#include "flash_trace.h"
#include "flash_validate.h"

namespace {

using namespace uri_names;

// parse_file_n_get_pathname

class PathKindTest : public fakes::FlashTest {
  protected:
    static constexpr int32_t kind_before = 44;

    static flashCopyEntry row_with(int32_t side, std::string_view name) {
        flashCopyEntry row = with_name(side, name);
        row.pathKind = kind_before;
        fakes::put(row.sourcePathName, "source before");
        fakes::put(row.destinationPathName, "destination before");
        return row;
    }
    static void expect_untouched(const flashCopyEntry &row) {
        EXPECT_EQ(row.pathKind, kind_before);
        EXPECT_STREQ(row.sourcePathName, "source before");
        EXPECT_STREQ(row.destinationPathName, "destination before");
    }
};

TEST_F(PathKindTest, ANameWithoutATokenIsAnOrdinaryEmptyPath) {
    for (const char *name : {"", "/", "////"}) {
        SCOPED_TRACE(name);
        flashCopyEntry row = row_with(destination, name);
        EXPECT_EQ(parse_file_n_get_pathname(&row, destination), 1);
        EXPECT_EQ(row.pathKind, 1);
        EXPECT_STREQ(row.destinationPathName, "");
        EXPECT_STREQ(row.sourcePathName, "source before");
        for (int32_t side : source_sides) {
            row = row_with(source, name);
            EXPECT_EQ(parse_file_n_get_pathname(&row, side), 1);
            EXPECT_EQ(row.pathKind, 1);
            EXPECT_STREQ(row.sourcePathName, "");
            EXPECT_STREQ(row.destinationPathName, "destination before");
        }
    }
}

TEST_F(PathKindTest, ANameOfMoreThanOneTokenIsRefused) {
    for (const char *name : {"bootflash:/a/b", "bootflash:/a", "a/b", "/a/b/c", "a//b",
                             "bootflash://standby-sup/x", "standby-sup/x"})
        for (int32_t side : {destination, source, 0}) {
            SCOPED_TRACE(name);
            flashCopyEntry row = row_with(side, name);
            EXPECT_EQ(parse_file_n_get_pathname(&row, side), -1);
            expect_untouched(row);
        }
}

TEST_F(PathKindTest, ANameOfOneTokenIsNoPathOfEitherKind) {
    for (const char *name : {"bootflash:a", "a", "/a", "a/", "//a//", "bootflash:", ":",
                             "standby-sup", "/standby-sup"}) {
        SCOPED_TRACE(name);
        flashCopyEntry row = row_with(destination, name);
        EXPECT_EQ(parse_file_n_get_pathname(&row, destination), 3);
        expect_untouched(row);
        for (int32_t side : source_sides) {
            SCOPED_TRACE(side);
            row = row_with(source, name);
            EXPECT_EQ(parse_file_n_get_pathname(&row, side), side == 2 ? -1 : 3);
            expect_untouched(row);
        }
    }
}

TEST_F(PathKindTest, AnEarlierNameDoesNotShowThrough) {
    flashCopyEntry row = row_with(source, "a/standby-sup/x");
    EXPECT_EQ(parse_file_n_get_pathname(&row, 0), -1);
    row = row_with(source, "b");
    EXPECT_EQ(parse_file_n_get_pathname(&row, 0), 3);
    expect_untouched(row);
}

TEST_F(PathKindTest, TheNameIsCutUp) {
    flashCopyEntry row = row_with(destination, "dir/file");
    parse_file_n_get_pathname(&row, destination);
    EXPECT_STREQ(row.destinationName, "dir");
    row = row_with(source, "dir/file");
    parse_file_n_get_pathname(&row, source);
    EXPECT_STREQ(row.sourceName, "dir");
}

TEST_F(PathKindTest, TheNameIsSplitAtSlashes) {
    flashCopyEntry row = row_with(source, "bootflash:a");
    parse_file_n_get_pathname(&row, source);
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "In snmp_uri_map_str_split: str is bootflash:a and delimiters "
                                    "is //\n"},
                      {debug_level, "was able to tokenize and found a COLON..\n"},
                      {debug_level, "returning ctr = 1\n"}}));
}

TEST_F(PathKindTest, NamesOfTheLongestLengthAreHandled) {
    std::string many = "a";
    while (many.size() < 255)
        many += "/a";
    flashCopyEntry row = row_with(source, many);
    EXPECT_EQ(parse_file_n_get_pathname(&row, source), -1);
    row = row_with(source, std::string(255, 'x'));
    EXPECT_EQ(parse_file_n_get_pathname(&row, 0), 3);
    row = row_with(source, std::string(255, '/'));
    EXPECT_EQ(parse_file_n_get_pathname(&row, 0), 1);
}

// validate_filename

class FilenameTest : public fakes::FlashTest {
  protected:
    static flashCopyEntry row_with(int32_t side, std::string_view name) {
        flashCopyEntry row = with_name(side, name);
        fakes::put(row.sourcePath, "source before");
        fakes::put(row.destinationPath, "destination before");
        return row;
    }
    static void expect_untouched(const flashCopyEntry &row) {
        EXPECT_STREQ(row.sourcePath, "source before");
        EXPECT_STREQ(row.destinationPath, "destination before");
    }
};

using DestinationNameTest = FilenameTest;

TEST_F(DestinationNameTest, ANewFileIsAccepted) {
    platform().paths["bootflash:a"] = "/bootflash/a";
    flashCopyEntry row = row_with(destination, "bootflash:a");
    EXPECT_EQ(validate_filename(&row, destination), 1);
    EXPECT_STREQ(row.destinationPath, "/bootflash/a");
    EXPECT_STREQ(row.sourcePath, "source before");
    EXPECT_STREQ(row.destinationName, "bootflash:a");
    EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=bootflash:a size=255 flags=0",
                                     "uriutil_stat_get uri=bootflash:a flags=0"}));
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "validate_filename: calling uriutil_uri_to_path for "
                                    "destination file=bootflash:a\n"},
                      {debug_level, "Adding a new file.\n"},
                      {debug_level, "validate_filename: returning SUCCESS with dest "
                                    "filename=/bootflash/a\n"}}));
}

TEST_F(DestinationNameTest, AnExistingFileIsAccepted) {
    platform().paths["bootflash:a"] = "/bootflash/a";
    for (int32_t type : {0, 1, 8, 31, 33, -32}) {
        SCOPED_TRACE(type);
        fakes::forget();
        platform().file_types["bootflash:a"] = type;
        flashCopyEntry row = row_with(destination, "bootflash:a");
        EXPECT_EQ(validate_filename(&row, destination), 1);
        EXPECT_STREQ(row.destinationPath, "/bootflash/a");
        EXPECT_EQ(fakes::traces(),
                  (Traces{{debug_level, "validate_filename: calling uriutil_uri_to_path for "
                                        "destination file=bootflash:a\n"},
                          {debug_level, "validate_filename: returning SUCCESS with dest "
                                        "filename=/bootflash/a\n"}}));
    }
}

TEST_F(DestinationNameTest, ADirectoryIsRefused) {
    platform().paths["bootflash:d"] = "/bootflash/d";
    platform().file_types["bootflash:d"] = 32;
    flashCopyEntry row = row_with(destination, "bootflash:d");
    EXPECT_EQ(validate_filename(&row, destination), 0);
    expect_untouched(row);
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "validate_filename: calling uriutil_uri_to_path for "
                                    "destination file=bootflash:d\n"},
                      {error_level, "destination cannot be directory.\n"}}));
}

TEST_F(DestinationNameTest, ANameThatDoesNotResolveIsRefused) {
    for (int32_t code : {0x41000001, -1, 1, 0x401E0059}) {
        SCOPED_TRACE(code);
        fakes::forget();
        platform().uri_error = code;
        flashCopyEntry row = row_with(destination, "nowhere:a");
        EXPECT_EQ(validate_filename(&row, destination), 0);
        expect_untouched(row);
        EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=nowhere:a size=255 flags=0"}));
        EXPECT_EQ(fakes::traces(),
                  (Traces{{debug_level, "validate_filename: calling uriutil_uri_to_path for "
                                        "destination file=nowhere:a\n"},
                          {error_level, "uriutil_uri_to_path for destination returned ERROR.\n"}}));
    }
}

TEST_F(DestinationNameTest, NeverFallsBackToTheSystemManager) {
    platform().core_paths["core:a"] = "/cores/a";
    flashCopyEntry row = row_with(destination, "core:a");
    EXPECT_EQ(validate_filename(&row, destination), 0);
    EXPECT_THAT(fakes::calls("svcmgrcmi"), IsEmpty());
}

TEST_F(DestinationNameTest, TheSystemLogIsNoSpecialDestination) {
    platform().paths["log:messages"] = "/log/messages";
    flashCopyEntry row = row_with(destination, "log:messages");
    EXPECT_EQ(validate_filename(&row, destination), 1);
    EXPECT_STREQ(row.destinationPath, "/log/messages");
    EXPECT_THAT(fakes::calls("syslog_disp_logfile"), IsEmpty());
}

TEST_F(DestinationNameTest, TheLongestPathIsStoredWhole) {
    const std::string path = std::string("/").append(253, 'p');
    platform().paths["bootflash:a"] = path;
    flashCopyEntry row = row_with(destination, "bootflash:a");
    EXPECT_EQ(validate_filename(&row, destination), 1);
    EXPECT_EQ(row.destinationPath, path);
}

TEST_F(DestinationNameTest, TheLongestNameIsAskedForWhole) {
    const std::string name = std::string("bootflash:").append(245, 'n');
    flashCopyEntry row = row_with(destination, name);
    validate_filename(&row, destination);
    EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=" + name + " size=255 flags=0"}));
}

using SourceNameTest = FilenameTest;

TEST_F(SourceNameTest, AResolvedNameIsAcceptedWithoutALookAtTheFile) {
    platform().paths["bootflash:a"] = "/bootflash/a";
    platform().file_types["bootflash:a"] = 32;
    for (int32_t side : source_sides) {
        SCOPED_TRACE(side);
        fakes::forget();
        flashCopyEntry row = row_with(source, "bootflash:a");
        EXPECT_EQ(validate_filename(&row, side), 1);
        EXPECT_STREQ(row.sourcePath, "/bootflash/a");
        EXPECT_STREQ(row.destinationPath, "destination before");
        EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=bootflash:a size=255 flags=0"}));
        EXPECT_EQ(fakes::traces(),
                  (Traces{{debug_level, "validate_filename: calling uriutil_uri_to_path for source "
                                        "file=bootflash:a\n"},
                          {debug_level, "validate_filename: returning SUCCESS with source "
                                        "filename=/bootflash/a\n"}}));
    }
}

TEST_F(SourceNameTest, ANameThatDoesNotResolveIsAskedOfTheSystemManager) {
    platform().core_paths["core:1/a"] = "/cores/a";
    flashCopyEntry row = row_with(source, "core:1/a");
    EXPECT_EQ(validate_filename(&row, source), 1);
    EXPECT_STREQ(row.sourcePath, "/cores/a");
    EXPECT_STREQ(row.destinationPath, "destination before");
    EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=core:1/a size=255 flags=0",
                                     "svcmgrcmi_core_uri_to_path queue=77 uri=core:1/a"}));
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "validate_filename: calling uriutil_uri_to_path for source "
                                    "file=core:1/a\n"},
                      {debug_level, "uriutil_uri_to_path for source returned ERROR.\n"},
                      {debug_level,
                       "validate_filename: returning SUCCESS with source filename=/cores/a\n"}}));
}

TEST_F(SourceNameTest, TheSystemManagersOtherSuccessIsAccepted) {
    platform().core_paths["core:1/a"] = "/cores/a";
    platform().core_result = 0x401E0059;
    flashCopyEntry row = row_with(source, "core:1/a");
    EXPECT_EQ(validate_filename(&row, source), 1);
    EXPECT_STREQ(row.sourcePath, "/cores/a");
    EXPECT_THAT(fakes::trace_texts(error_level), IsEmpty());
}

TEST_F(SourceNameTest, ANameThatTheSystemManagerDoesNotKnowIsRefused) {
    const std::pair<int32_t, const char *> codes[] = {{0x41000003, "41000003"},
                                                      {0x401E0058, "401e0058"},
                                                      {0x401E005A, "401e005a"},
                                                      {1, "1"},
                                                      {-1, "ffffffff"}};
    for (const auto &[code, text] : codes) {
        SCOPED_TRACE(text);
        fakes::forget();
        platform().core_error = code;
        flashCopyEntry row = row_with(source, "core:1/a");
        EXPECT_EQ(validate_filename(&row, source), 0);
        expect_untouched(row);
        EXPECT_EQ(fakes::traces(),
                  (Traces{{debug_level, "validate_filename: calling uriutil_uri_to_path for source "
                                        "file=core:1/a\n"},
                          {debug_level, "uriutil_uri_to_path for source returned ERROR.\n"},
                          {error_level, std::string("svcmgrcmi_core_uri_to_path for source "
                                                    "returned ERROR (") +
                                            text + ").\n"}}));
    }
}

TEST_F(SourceNameTest, ACorePathIsCutTo254Characters) {
    platform().core_paths["core:1/a"] = std::string(1000, 'c');
    flashCopyEntry row = row_with(source, "core:1/a");
    EXPECT_EQ(validate_filename(&row, source), 1);
    EXPECT_EQ(row.sourcePath, std::string(254, 'c'));
    EXPECT_STREQ(row.destinationPath, "destination before");
}

TEST_F(SourceNameTest, APercentSignInACorePathIsTakenAsItIs) {
    platform().core_paths["core:1/a"] = "/cores/100%s%n";
    flashCopyEntry row = row_with(source, "core:1/a");
    EXPECT_EQ(validate_filename(&row, source), 1);
    EXPECT_STREQ(row.sourcePath, "/cores/100%s%n");
}

TEST_F(SourceNameTest, TheLongestPathIsStoredWhole) {
    const std::string path = std::string("/").append(253, 'p');
    platform().paths["bootflash:a"] = path;
    flashCopyEntry row = row_with(source, "bootflash:a");
    EXPECT_EQ(validate_filename(&row, source), 1);
    EXPECT_EQ(row.sourcePath, path);
}

TEST_F(SourceNameTest, TheSystemLogIsDumpedIntoATemporaryFile) {
    flashCopyEntry row = row_with(source, "log:messages");
    EXPECT_EQ(validate_filename(&row, source), 1);
    EXPECT_STREQ(row.sourcePath, "/var/tmp/intsyslog");
    EXPECT_STREQ(row.destinationPath, "destination before");
    const Lines all = fakes::calls();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_THAT(Lines(all.begin(), all.begin() + 2),
                testing::UnorderedElementsAre("get_snmp_username request=0",
                                              "get_snmp_sessionid request=0"));
    EXPECT_EQ(all[2], "syslog_disp_logfile user=operator session=12 kind=5 "
                      "log=/var/log/external/messages output=/var/tmp/intsyslog 0 0 0");
}

TEST_F(SourceNameTest, TheSystemLogIsTracedWithTheDestinationField) {
    flashCopyEntry row = row_with(source, "log:messages");
    validate_filename(&row, source);
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "validate_filename: want to copy a logfile.\n"},
                      {debug_level, "Tring to print expandedDestFileName..\n"},
                      {debug_level, "expandedDestFileName is destination before\n"}}));
}

TEST_F(SourceNameTest, EverySideButOneTakesTheSystemLog) {
    for (int32_t side : source_sides) {
        SCOPED_TRACE(side);
        flashCopyEntry row = row_with(source, "log:messages");
        EXPECT_EQ(validate_filename(&row, side), 1);
        EXPECT_STREQ(row.sourcePath, "/var/tmp/intsyslog");
    }
}

TEST_F(SourceNameTest, TheDumpNamesTheUserAndSessionOfTheRequest) {
    platform().username = std::string(63, 'u');
    platform().session = -3;
    flashCopyEntry row = row_with(source, "log:messages");
    validate_filename(&row, source);
    EXPECT_THAT(fakes::calls("syslog_disp_logfile"),
                ElementsAre("syslog_disp_logfile user=" + platform().username +
                            " session=-3 kind=5 log=/var/log/external/messages "
                            "output=/var/tmp/intsyslog 0 0 0"));
}

TEST_F(SourceNameTest, ALongUserNameStaysInItsField) {
    platform().username = std::string(500, 'u');
    bool terminated = false;
    platform().syslog_disp_logfile.does([&terminated](const syslog_dump_request *request,
                                                      const char *, const char *, int, int, int) {
        terminated = strnlen(request->user, sizeof request->user) < sizeof request->user;
        return 0;
    });
    flashCopyEntry row = row_with(source, "log:messages");
    EXPECT_EQ(validate_filename(&row, source), 1);
    EXPECT_TRUE(terminated);
}

TEST_F(SourceNameTest, ASystemLogThatCannotBeDumpedIsRefused) {
    for (int32_t code : {0x41000005, -1, 1}) {
        SCOPED_TRACE(code);
        fakes::forget();
        platform().syslog_disp_logfile.returns(code);
        flashCopyEntry row = row_with(source, "log:messages");
        EXPECT_EQ(validate_filename(&row, source), 0);
        expect_untouched(row);
        EXPECT_EQ(fakes::traces(),
                  (Traces{{debug_level, "validate_filename: want to copy a logfile.\n"},
                          {error_level, "syslog_disp_logfile returned ERROR.\n"}}));
        EXPECT_THAT(fakes::calls("uriutil"), IsEmpty());
    }
}

TEST_F(SourceNameTest, OnlyTheExactNameIsTheSystemLog) {
    for (const char *name : {"log:messages2", "log:message", "LOG:messages", "log:Messages",
                             "log:/messages", "log:", "log", " log:messages", "log::messages"}) {
        SCOPED_TRACE(name);
        fakes::forget();
        platform().paths[name] = "/log/resolved";
        flashCopyEntry row = row_with(source, name);
        EXPECT_EQ(validate_filename(&row, source), 1);
        EXPECT_STREQ(row.sourcePath, "/log/resolved");
        EXPECT_THAT(fakes::calls("syslog_disp_logfile"), IsEmpty());
        platform().paths.clear();
        EXPECT_EQ(validate_filename(&row, source), 0);
    }
}

} // namespace

// Device URIs, core-file URIs and the confinement to their directories.
#include "ruma/svcmgr.h"
#include "ruma/uri.h"

#include "failing_allocations.h"
#include "syserr/codes.h"
#include "temporary_directory.h"
#include "uri/confine.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

// The configuration of this process is read once, so all tests share one tree of file systems:
// root/boot for "bootflash", root/slot for "slot0", root/gone for "gone", which does not exist,
// "root/odd (1)" for "odd" and, by a link, "behind-link", and root/core for core files.
class Tree : public testing::Environment {
  public:
    void SetUp() override {
        root = std::make_unique<TemporaryDirectory>();
        fs::create_directory(*root / "real-slot");
        fs::create_directory_symlink("real-slot", *root / "slot");
        fs::create_directory(*root / "odd (1)");
        fs::create_directory_symlink("odd (1)", *root / "behind");
        const auto table = [](const char *scheme, const char *name) {
            return std::string("[[file_system]]\nscheme = \"") + scheme + "\"\ndirectory = \"" +
                   *root / name + "\"\n";
        };
        write_file(*root / "platform.toml", table("bootflash", "boot") + table("slot0", "slot") +
                                                table("gone", "gone") + table("odd", "odd (1)") +
                                                table("behind-link", "behind") +
                                                "[core]\ndirectory = \"" + *root / "core" + "\"\n");
        ASSERT_EQ(::setenv("RUMA_CONFIG", (*root / "platform.toml").c_str(), 1), 0);
    }
    void TearDown() override { root.reset(); }

    static inline std::unique_ptr<TemporaryDirectory> root;
};

const auto *const tree = testing::AddGlobalTestEnvironment(new Tree);

class UriTest : public testing::Test {
  protected:
    void SetUp() override {
        for (const char *name : {"boot", "core"}) {
            fs::remove_all(root / name);
            fs::create_directory(root / name);
        }
        fs::create_directory(boot / "dir");
        write_file(boot / "image", "12345");
        write_file(root / "secret", "secret");
    }

    // The path that a URI resolves to; the code in brackets when it does not.
    static std::string resolve(const std::string &uri, size_t size = 255) {
        std::string buffer(size + 1, '#');
        const int32_t code = uriutil_uri_to_path(uri.c_str(), buffer.data(), size, 0);
        EXPECT_EQ(buffer[size], '#') << "wrote past the buffer";
        if (code == 0)
            return buffer.c_str();
        EXPECT_EQ(buffer, std::string(size + 1, '#')) << "touched the buffer on an error";
        return name_of(code);
    }

    static std::string name_of(int32_t code) {
        switch (code) {
        case ruma::uri_malformed:
            return "[malformed]";
        case ruma::uri_unknown_scheme:
            return "[unknown scheme]";
        case ruma::uri_outside:
            return "[outside]";
        case ruma::uri_no_directory:
            return "[no directory]";
        case ruma::uri_not_found:
            return "[not found]";
        case ruma::uri_too_long:
            return "[too long]";
        case ruma::uri_not_a_file:
            return "[not a file]";
        case ruma::uri_foreign_character:
            return "[foreign character]";
        default:
            return "[code " + std::to_string(code) + "]";
        }
    }

    static std::string stat_of(const std::string &uri, uriutil_stat *stat) {
        const int32_t code = uriutil_stat_get(uri.c_str(), stat, 0);
        return code == 0 ? "ok" : name_of(code);
    }

    static std::string resolve_core(const std::string &uri) {
        svcmgr_path path;
        std::memset(&path, '#', sizeof(path));
        const svcmgr_path before = path;
        const int32_t code = svcmgrcmi_core_uri_to_path(-1, uri.c_str(), &path);
        if (code == 0)
            return path.text;
        EXPECT_EQ(std::memcmp(&path, &before, sizeof(path)), 0) << "touched the path on an error";
        return name_of(code);
    }

    const TemporaryDirectory &root = *Tree::root;
    const fs::path boot = root / "boot";
};

TEST_F(UriTest, ResolvesAFileWithAndWithoutASlashAfterTheColon) {
    EXPECT_EQ(resolve("bootflash:image"), boot / "image");
    EXPECT_EQ(resolve("bootflash:/image"), boot / "image");
}

TEST_F(UriTest, TheFileNeedNotExist) { EXPECT_EQ(resolve("bootflash:new"), boot / "new"); }

TEST_F(UriTest, ResolvesBelowSubdirectories) {
    EXPECT_EQ(resolve("bootflash:dir/new"), boot / "dir" / "new");
}

TEST_F(UriTest, TheDirectoryItselfResolves) {
    for (const char *uri :
         {"bootflash:", "bootflash:/", "bootflash://", "bootflash:.", "bootflash:/./"})
        EXPECT_EQ(resolve(uri), boot) << uri;
}

TEST_F(UriTest, AnExistingDirectoryResolves) {
    EXPECT_EQ(resolve("bootflash:dir"), boot / "dir");
    EXPECT_EQ(resolve("bootflash:dir/"), boot / "dir");
}

TEST_F(UriTest, RepeatedSlashesAndDotsAreNormalised) {
    EXPECT_EQ(resolve("bootflash://image"), boot / "image");
    EXPECT_EQ(resolve("bootflash:///dir//.///new"), boot / "dir" / "new");
    EXPECT_EQ(resolve("bootflash:./image"), boot / "image");
}

TEST_F(UriTest, ATrailingSlashOfAFileIsRefused) {
    EXPECT_EQ(resolve("bootflash:image/"), "[no directory]");
    EXPECT_EQ(resolve("bootflash:new/"), "[no directory]");
}

TEST_F(UriTest, TheDirectoryOfTheSchemeIsCanonical) {
    EXPECT_EQ(resolve("slot0:new"), root / "real-slot/new");
}

TEST_F(UriTest, SchemesMatchExactlyAndCaseSensitively) {
    for (const char *uri :
         {"Bootflash:image", "BOOTFLASH:image", "bootflash2:image", "bootflas:image",
          " bootflash:image", "bootflash :image", "/bootflash:image", "log:messages", "core:image"})
        EXPECT_EQ(resolve(uri), "[unknown scheme]") << uri;
}

TEST_F(UriTest, AMissingSchemeIsRefused) {
    for (const char *uri : {"", ":", ":image", "image", "/etc/passwd", "bootflash"})
        EXPECT_EQ(resolve(uri), "[malformed]") << uri;
}

TEST_F(UriTest, OnlyTheFirstColonEndsTheScheme) {
    EXPECT_EQ(resolve("bootflash:a:b"), boot / "a:b");
    EXPECT_EQ(resolve("bootflash:slot0:image"), boot / "slot0:image");
}

TEST_F(UriTest, DotDotIsRefusedInEveryPosition) {
    for (const char *uri :
         {"bootflash:..", "bootflash:/..", "bootflash:../", "bootflash:../secret",
          "bootflash:/../secret", "bootflash://..//secret", "bootflash:dir/..",
          "bootflash:dir/../image", "bootflash:dir/../../secret", "bootflash:./../secret",
          "bootflash:nothing/../image", "bootflash:image/..", "bootflash:dir/.."})
        EXPECT_EQ(resolve(uri), "[malformed]") << uri;
}

TEST_F(UriTest, NamesThatOnlyLookLikeDotDotAreTaken) {
    for (const char *name : {"...", "..a", "a..", "a..b", ".hidden", ".. "})
        EXPECT_EQ(resolve(std::string("bootflash:") + name), boot / name);
}

TEST_F(UriTest, ControlCharactersAreRefusedAnywhere) {
    for (int c = 1; c < 0x20; c++) {
        EXPECT_EQ(resolve("bootflash:a" + std::string(1, static_cast<char>(c))), "[malformed]");
        EXPECT_EQ(resolve(std::string(1, static_cast<char>(c)) + "bootflash:a"), "[malformed]");
    }
    EXPECT_EQ(resolve("bootflash:\x7f"), "[malformed]");
    EXPECT_EQ(resolve("bootflash:\xc3\xa4 $(x);'\""), boot / "\xc3\xa4 $(x);'\"");
}

TEST_F(UriTest, AParentThatDoesNotExistIsRefused) {
    EXPECT_EQ(resolve("bootflash:nothing/new"), "[no directory]");
    EXPECT_EQ(resolve("bootflash:image/new"), "[no directory]");
}

TEST_F(UriTest, AFileSystemThatDoesNotExistIsRefused) {
    EXPECT_EQ(resolve("gone:image"), "[no directory]");
    EXPECT_EQ(resolve("gone:"), "[no directory]");
}

TEST_F(UriTest, AFileInTheFileSystemsPlaceIsRefused) {
    fs::remove_all(boot);
    write_file(boot, "");
    EXPECT_EQ(resolve("bootflash:"), "[no directory]");
    EXPECT_EQ(resolve("bootflash:image"), "[no directory]");
    fs::remove(boot);
}

TEST_F(UriTest, NamesUpToTheFileSystemsLimitAreTaken) {
    const std::string longest(NAME_MAX, 'n');
    EXPECT_EQ(resolve("bootflash:" + longest, PATH_MAX), boot / longest);
    EXPECT_EQ(resolve("bootflash:" + longest + "n", PATH_MAX), "[too long]");
}

TEST_F(UriTest, APathThatJustFitsTheBufferIsTakenAndALongerOneRefusedNotCut) {
    const size_t room = 255 - 1 - (boot.string().size() + 1);
    EXPECT_EQ(resolve("bootflash:" + std::string(room, 'n'), 255).size(), 254u);
    EXPECT_EQ(resolve("bootflash:" + std::string(room + 1, 'n'), 255), "[too long]");
    EXPECT_EQ(resolve("bootflash:", 0), "[too long]");
    EXPECT_EQ(resolve("bootflash:", boot.string().size()), "[too long]");
    EXPECT_EQ(resolve("bootflash:", boot.string().size() + 1), boot);
}

TEST_F(UriTest, AUriOfExcessiveLengthIsRefused) {
    EXPECT_EQ(resolve("bootflash:" + std::string(100000, 'n')), "[too long]");
    EXPECT_EQ(resolve(std::string(100000, 'n')), "[too long]");
    EXPECT_EQ(resolve("bootflash:" + std::string(PATH_MAX, '/') + "image"), "[too long]");
}

TEST_F(UriTest, ALinkToADirectoryInsideIsFollowedAndResolved) {
    fs::create_directory_symlink("dir", boot / "link");
    EXPECT_EQ(resolve("bootflash:link/new"), boot / "dir" / "new");
}

TEST_F(UriTest, ALinkUpButStillInsideIsFollowed) {
    fs::create_directory(boot / "other");
    fs::create_directory_symlink("../other", boot / "dir" / "link");
    EXPECT_EQ(resolve("bootflash:dir/link/new"), boot / "other" / "new");
}

TEST_F(UriTest, ALinkToADirectoryOutsideIsRefused) {
    for (const char *target : {"/", "/tmp", "..", "../core", "dir/../../core", "."}) {
        fs::remove(boot / "link");
        fs::create_directory_symlink(target, boot / "link");
        const bool inside = std::string(target) == ".";
        EXPECT_EQ(resolve("bootflash:link/new"), inside ? (boot / "new").string() : "[outside]")
            << target;
    }
}

TEST_F(UriTest, AnAbsoluteLinkIsRefusedEvenWhenItsTargetLiesInside) {
    fs::create_directory_symlink(boot / "dir", boot / "link");
    EXPECT_EQ(resolve("bootflash:link/new"), "[outside]");
}

TEST_F(UriTest, ALinkAsLastComponentThatLeadsOutsideIsRefused) {
    for (const char *target : {"/etc/passwd", "../secret", "dir/../../secret", "..", "/"}) {
        fs::remove(boot / "link");
        fs::create_symlink(target, boot / "link");
        EXPECT_EQ(resolve("bootflash:link"), "[outside]") << target;
        EXPECT_EQ(resolve("bootflash:dir/../link"), "[malformed]");
    }
}

TEST_F(UriTest, ALinkAsLastComponentToNothingIsRefused) {
    for (const char *target : {"/nothing", "../nothing", "nothing", "nothing/../../secret"}) {
        fs::remove(boot / "link");
        fs::create_symlink(target, boot / "link");
        EXPECT_EQ(resolve("bootflash:link"), "[outside]") << target;
    }
}

TEST_F(UriTest, AChainOfLinksThatEndsOutsideIsRefused) {
    fs::create_symlink("second", boot / "first");
    fs::create_symlink("dir/third", boot / "second");
    fs::create_symlink("../../secret", boot / "dir" / "third");
    EXPECT_EQ(resolve("bootflash:first"), "[outside]");
}

TEST_F(UriTest, ALoopOfLinksIsRefused) {
    fs::create_symlink("b", boot / "a");
    fs::create_symlink("a", boot / "b");
    EXPECT_EQ(resolve("bootflash:a"), "[outside]");
    EXPECT_EQ(resolve("bootflash:a/new"), "[outside]");
}

TEST_F(UriTest, ALinkAsLastComponentThatStaysInsideKeepsItsName) {
    fs::create_symlink("image", boot / "link");
    fs::create_symlink("../image", boot / "dir" / "link");
    EXPECT_EQ(resolve("bootflash:link"), boot / "link");
    EXPECT_EQ(resolve("bootflash:dir/link"), boot / "dir" / "link");
}

TEST_F(UriTest, AMagicLinkIsRefused) {
    fs::create_symlink("/proc/self/root", boot / "link");
    EXPECT_EQ(resolve("bootflash:link/etc/passwd"), "[outside]");
}

// --- Characters that a link brings into the path

// Every character that may stand in a file's name, one at a time.
std::vector<std::string> characters() {
    std::vector<std::string> all;
    for (int c = 1; c < 256; c++)
        if (c != '/')
            all.emplace_back(1, static_cast<char>(c));
    return all;
}

bool is_harmless(const std::string &character) {
    const std::string marks = "._+,=@%-";
    const auto c = static_cast<unsigned char>(character[0]);
    return (c < 0x80 && std::isalnum(c)) || marks.find(character) != marks.npos;
}

TEST_F(UriTest, ALinkBringsNoCharacterIntoThePathThatTheUriDoesNotHold) {
    for (const std::string &character : characters()) {
        if (character == ":") // is in every URI
            continue;
        const std::string name = "x" + character + "y";
        fs::create_directory(boot / name);
        fs::create_directory_symlink(name, boot / "link");
        EXPECT_EQ(resolve("bootflash:link/new"),
                  is_harmless(character) ? (boot / name / "new").string() : "[foreign character]")
            << "character " << static_cast<int>(static_cast<unsigned char>(character[0]));
        fs::remove(boot / "link");
        fs::remove(boot / name);
    }
}

TEST_F(UriTest, ACharacterThatTheUriHoldsMayComeByALinkToo) {
    fs::create_directory(boot / "my files");
    fs::create_directory_symlink("my files", boot / "a link");
    EXPECT_EQ(resolve("bootflash:a link/new"), boot / "my files/new");
    EXPECT_EQ(resolve("bootflash:my files/new"), boot / "my files/new");
}

TEST_F(UriTest, ADirectoryOfCommandsIsReachedByItsOwnNameAndThroughNoLink) {
    const std::string name = "x;touch marker;true ";
    fs::create_directory(boot / name);
    write_file(boot / name / "file", "x");
    fs::create_directory_symlink(name, boot / "link");
    fs::create_directory_symlink("../" + name, boot / "dir/link");
    fs::create_directory_symlink("link", boot / "second");
    for (const char *uri :
         {"bootflash:link/file", "bootflash:dir/link/file", "bootflash:second/new"})
        EXPECT_EQ(resolve(uri), "[foreign character]") << uri;
    uriutil_stat stat{};
    EXPECT_EQ(stat_of("bootflash:link/file", &stat), "[foreign character]");
    EXPECT_EQ(resolve("bootflash:" + name + "/file"), boot / name / "file");
}

TEST_F(UriTest, ALinkAsLastComponentIsJudgedByItsOwnName) {
    write_file(boot / "x;y", "x");
    fs::create_symlink("x;y", boot / "link");
    EXPECT_EQ(resolve("bootflash:link"), boot / "link");
}

TEST_F(UriTest, CharactersOfTheConfiguredDirectoryAreNoHindrance) {
    EXPECT_EQ(resolve("odd:new"), root / "odd (1)/new");
    fs::create_directory_symlink(".", root / "odd (1)/link");
    EXPECT_EQ(resolve("odd:link/new"), root / "odd (1)/new");
}

TEST_F(UriTest, ALinkInTheFileSystemsPlaceBringsNoOtherCharactersIn) {
    EXPECT_EQ(resolve("behind-link:new"), "[foreign character]");
    EXPECT_EQ(resolve("behind-link:(1)new; "), root / "odd (1)/(1)new; ");
}

TEST_F(UriTest, ALinkAmongCoreFilesBringsNoCharactersInEither) {
    fs::create_directory(root / "core/x;y");
    write_file(root / "core/x;y/image", "core");
    fs::create_directory_symlink("x;y", root / "core/link");
    EXPECT_EQ(resolve_core("core:link/image"), "[foreign character]");
    EXPECT_EQ(resolve_core("core:x;y/image"), root / "core/x;y/image");
}

// --- Neither files nor directories

// Makes a FIFO, a socket and a device, and tells their names.
std::vector<std::string> make_special_files(const fs::path &directory) {
    EXPECT_EQ(::mkfifo((directory / "fifo").c_str(), 0666), 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", (directory / "socket").c_str());
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(::bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ::close(socket);
    std::vector<std::string> names = {"fifo", "socket"};
    if (::mknod((directory / "device").c_str(), S_IFCHR | 0666, makedev(1, 7)) == 0)
        names.emplace_back("device"); // only root may
    return names;
}

TEST_F(UriTest, WhatIsNeitherAFileNorADirectoryIsRefused) {
    for (const std::string &name : make_special_files(boot)) {
        fs::create_symlink("../" + name, boot / "dir" / name);
        for (const std::string &path : {name, "dir/" + name, "/" + name}) {
            EXPECT_EQ(resolve("bootflash:" + path), "[not a file]") << path;
            uriutil_stat stat{77, 78, 79, 80};
            EXPECT_EQ(stat_of("bootflash:" + path, &stat), "[not a file]") << path;
            EXPECT_EQ(stat.file_type, 77);
        }
    }
}

TEST_F(UriTest, AmongCoreFilesToo) {
    for (const std::string &name : make_special_files(root / "core"))
        EXPECT_EQ(resolve_core("core:" + name), "[not a file]") << name;
}

TEST_F(UriTest, NullArgumentsAreRefused) {
    char path[255];
    uriutil_stat stat;
    EXPECT_EQ(uriutil_uri_to_path(nullptr, path, sizeof(path), 0), ruma::uri_bad_argument);
    EXPECT_EQ(uriutil_uri_to_path("bootflash:", nullptr, 255, 0), ruma::uri_bad_argument);
    EXPECT_EQ(uriutil_stat_get(nullptr, &stat, 0), ruma::uri_bad_argument);
    EXPECT_EQ(uriutil_stat_get("bootflash:", nullptr, 0), ruma::uri_bad_argument);
}

TEST_F(UriTest, EveryFailedAllocationIsReportedAndLeaksNothing) {
    fs::create_directory_symlink("dir", boot / "link");
    const std::string uri = "bootflash:link/" + std::string(100, 'n');
    char path[255];
    ASSERT_EQ(uriutil_uri_to_path(uri.c_str(), path, sizeof(path), 0), 0); // reads configuration
    long allowed = 0;
    int32_t code = ruma::uri_no_memory;
    for (; code == ruma::uri_no_memory && allowed < 1000; allowed++)
        code = with_allocations(
            allowed, [&] { return uriutil_uri_to_path(uri.c_str(), path, sizeof(path), 0); });
    EXPECT_EQ(code, 0);
    EXPECT_GT(allowed, 5);
}

TEST_F(UriTest, ResolvingLeavesNoDescriptorOpen) {
    const auto count = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    fs::create_symlink("../secret", boot / "link");
    const auto before = count();
    for (const char *uri : {"bootflash:image", "bootflash:dir/new", "bootflash:link", "gone:x",
                            "bootflash:nothing/x", "bootflash:"})
        resolve(uri);
    EXPECT_EQ(count(), before);
}

TEST_F(UriTest, StatOfADirectoryHasType32) {
    uriutil_stat stat{};
    for (const char *uri : {"bootflash:", "bootflash:/", "bootflash:dir", "bootflash:/dir/"}) {
        stat.file_type = 0;
        EXPECT_EQ(stat_of(uri, &stat), "ok") << uri;
        EXPECT_EQ(stat.file_type, 32) << uri;
    }
}

TEST_F(UriTest, StatOfARegularFileTellsItsModeSizeAndTime) {
    ASSERT_EQ(::chmod((boot / "image").c_str(), 0640), 0);
    const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (boot / "image").c_str(), times, 0), 0);
    uriutil_stat stat{};
    EXPECT_EQ(stat_of("bootflash:image", &stat), "ok");
    EXPECT_NE(stat.file_type, 32);
    EXPECT_EQ(stat.mode, 0640u);
    EXPECT_EQ(stat.size, 5u);
    EXPECT_EQ(stat.modified, 1000000000);
}

TEST_F(UriTest, StatKnowsFilesAbove4GiB) {
    fs::resize_file(boot / "image", (uint64_t{5} << 30) + 7);
    uriutil_stat stat{};
    EXPECT_EQ(stat_of("bootflash:image", &stat), "ok");
    EXPECT_EQ(stat.size, (uint64_t{5} << 30) + 7);
}

TEST_F(UriTest, StatFollowsALinkInside) {
    fs::create_symlink("dir", boot / "link");
    uriutil_stat stat{};
    EXPECT_EQ(stat_of("bootflash:link", &stat), "ok");
    EXPECT_EQ(stat.file_type, 32);
}

TEST_F(UriTest, StatOfAMissingFileIsAnErrorAndLeavesTheRecordAlone) {
    uriutil_stat stat{77, 78, 79, 80};
    EXPECT_EQ(stat_of("bootflash:new", &stat), "[not found]");
    EXPECT_EQ(stat_of("unknown:new", &stat), "[unknown scheme]");
    fs::create_symlink("../secret", boot / "link");
    EXPECT_EQ(stat_of("bootflash:link", &stat), "[outside]");
    EXPECT_EQ(stat.file_type, 77);
    EXPECT_EQ(stat.mode, 78u);
    EXPECT_EQ(stat.size, 79u);
    EXPECT_EQ(stat.modified, 80);
}

TEST_F(UriTest, ACoreFileResolves) {
    write_file(root / "core/snmpd.core", "core");
    EXPECT_EQ(resolve_core("core:snmpd.core"), root / "core/snmpd.core");
    EXPECT_EQ(resolve_core("core:/snmpd.core"), root / "core/snmpd.core");
}

TEST_F(UriTest, ACoreFileThatDoesNotExistIsRefused) {
    EXPECT_EQ(resolve_core("core:snmpd.core"), "[not found]");
}

TEST_F(UriTest, ACoreUriMustNameARegularFile) {
    fs::create_directory(root / "core/dir");
    EXPECT_EQ(resolve_core("core:dir"), "[not a file]");
    EXPECT_EQ(resolve_core("core:"), "[not a file]");
}

TEST_F(UriTest, ACoreUriIsConfinedLikeADeviceUri) {
    fs::create_symlink("../secret", root / "core/link");
    EXPECT_EQ(resolve_core("core:link"), "[outside]");
    EXPECT_EQ(resolve_core("core:../secret"), "[malformed]");
}

TEST_F(UriTest, OnlyTheCoreSchemeNamesCoreFiles) {
    write_file(root / "core/image", "core");
    for (const char *uri : {"bootflash:image", "Core:image", "cores:image"})
        EXPECT_EQ(resolve_core(uri), "[unknown scheme]") << uri;
    EXPECT_EQ(resolve_core("image"), "[malformed]");
}

TEST_F(UriTest, ACoreFileWithNullArgumentsIsRefused) {
    svcmgr_path path;
    EXPECT_EQ(svcmgrcmi_core_uri_to_path(-1, nullptr, &path), ruma::uri_bad_argument);
    EXPECT_EQ(svcmgrcmi_core_uri_to_path(-1, "core:x", nullptr), ruma::uri_bad_argument);
}

TEST_F(UriTest, WithoutACoreDirectoryThereAreNoCoreFiles) {
    // A process that has not read its configuration yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::setenv("RUMA_CONFIG", (root / "absent.toml").c_str(), 1);
            svcmgr_path path;
            std::exit(
                svcmgrcmi_core_uri_to_path(-1, "core:x", &path) == ruma::uri_no_core_files ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// What holds of both ways to look names up, by the kernel and component by component.
class ConfineTest : public testing::TestWithParam<ruma::Lookup> {
  protected:
    void SetUp() override {
        fs::create_directories(directory / "in/dir/sub");
        write_file(directory / "in/file", "x");
        write_file(directory / "secret", "x");
    }

    int32_t confine(const std::string &name) {
        return ruma::confine(directory / "in", name, &found, GetParam());
    }

    TemporaryDirectory directory;
    ruma::Confined found;
};

TEST_P(ConfineTest, FindsWhatIsThere) {
    EXPECT_EQ(confine("dir/sub"), 0);
    EXPECT_EQ(found.path, directory / "in/dir/sub");
    ASSERT_TRUE(found.status);
    EXPECT_TRUE(S_ISDIR(found.status->st_mode));
    EXPECT_EQ(confine("file"), 0);
    ASSERT_TRUE(found.status);
    EXPECT_TRUE(S_ISREG(found.status->st_mode));
}

TEST_P(ConfineTest, TellsWhereAMissingFileWouldBe) {
    EXPECT_EQ(confine("dir/new"), 0);
    EXPECT_EQ(found.path, directory / "in/dir/new");
    EXPECT_FALSE(found.status);
}

TEST_P(ConfineTest, RefusesAMissingParent) {
    EXPECT_EQ(confine("nothing/new"), ruma::uri_no_directory);
    EXPECT_EQ(confine("file/new"), ruma::uri_no_directory);
}

TEST_P(ConfineTest, RefusesLinksThatLeadOutside) {
    fs::create_symlink("../secret", directory / "in/link");
    fs::create_directory_symlink("..", directory / "in/up");
    EXPECT_EQ(confine("link"), ruma::uri_outside);
    EXPECT_NE(confine("up/secret"), 0);
    EXPECT_EQ(confine("up"), ruma::uri_outside);
}

TEST_P(ConfineTest, RefusesDotDot) {
    EXPECT_EQ(confine("../secret"), ruma::uri_malformed);
    EXPECT_EQ(confine("dir/../../secret"), ruma::uri_malformed);
}

TEST_P(ConfineTest, RefusesANameTooLongForTheFileSystem) {
    EXPECT_EQ(confine(std::string(NAME_MAX, 'n')), 0);
    EXPECT_EQ(confine(std::string(NAME_MAX + 1, 'n')), ruma::uri_too_long);
}

TEST_P(ConfineTest, WorksBelowTheRootDirectory) {
    EXPECT_EQ(ruma::confine("/", "etc/passwd", &found, GetParam()), 0);
    EXPECT_EQ(found.path, "/etc/passwd");
    EXPECT_EQ(ruma::confine("/", "etc", &found, GetParam()), 0);
    EXPECT_EQ(found.path, "/etc");
    EXPECT_EQ(ruma::confine("/", "", &found, GetParam()), 0);
    EXPECT_EQ(found.path, "/");
}

TEST_P(ConfineTest, ADirectoryWhoseNameBeginsLikeTheRootIsNotBelowIt) {
    fs::create_directory(directory / "inner");
    fs::create_directory_symlink("../inner", directory / "in/link");
    EXPECT_NE(confine("link/new"), 0);
}

INSTANTIATE_TEST_SUITE_P(Lookups, ConfineTest,
                         testing::Values(ruma::Lookup::kernel, ruma::Lookup::portable),
                         [](const auto &instance) {
                             return instance.param == ruma::Lookup::kernel ? "Kernel" : "Portable";
                         });

TEST(ConfineFallbackTest, ThePortableLookUpFollowsNoLinkAtAll) {
    TemporaryDirectory directory;
    fs::create_directory(directory / "dir");
    fs::create_directory_symlink("dir", directory / "link");
    ruma::Confined found;
    EXPECT_EQ(ruma::confine(directory.path(), "link", &found, ruma::Lookup::portable),
              ruma::uri_outside);
    EXPECT_NE(ruma::confine(directory.path(), "link/new", &found, ruma::Lookup::portable), 0);
}

} // namespace

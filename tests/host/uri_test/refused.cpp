// Characters that a link brings into the path, and what is neither file nor directory.
#include "tree.h"

#include "ruma/uri.h"

#include "failing_allocations.h"
#include "syserr/codes.h"
#include "temporary_directory.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace uri;

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

} // namespace

// A tree of file systems, and what URIs come to in it.
#ifndef HOST_URI_TREE_H
#define HOST_URI_TREE_H

#include "ruma/svcmgr.h"
#include "ruma/uri.h"

#include "syserr/codes.h"
#include "temporary_directory.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <unistd.h>

namespace uri {

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

inline const auto *const tree = testing::AddGlobalTestEnvironment(new Tree);

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

} // namespace uri

#endif

// The catalogue of files: indexes that stay, and look-ups that do not scan.
#include "fs_daemon/catalogue.cpp"

#include <gtest/gtest.h>
#include <set>

using ruma::Catalogue;
using ruma::Directory;
using ruma::FileKey;

namespace {

class CatalogueTest : public testing::Test {
  protected:
    uint32_t add_device() {
        return catalogue.add_device(
            [this](Directory &directory) { removed.insert(ruma::path_of(directory)); });
    }
    uint32_t add(uint32_t device, const std::string &name) {
        return catalogue.ensure_file(catalogue.root(device), name)->index;
    }
    std::string path(const Catalogue::Found *found) {
        return found == nullptr
                   ? "none"
                   : ruma::path_of(*found->second.directory, found->second.file->first);
    }

    Catalogue catalogue;
    std::set<std::string> removed;
};

TEST_F(CatalogueTest, FilesAreNumberedFromOneOnEachDevice) {
    const uint32_t first = add_device();
    const uint32_t second = add_device();
    EXPECT_EQ(first, 1U);
    EXPECT_EQ(second, 2U);
    EXPECT_EQ(add(first, "a"), 1U);
    EXPECT_EQ(add(second, "b"), 1U);
    EXPECT_EQ(add(first, "c"), 2U);
}

TEST_F(CatalogueTest, AddingAKnownFileKeepsItsIndex) {
    add_device();
    EXPECT_EQ(add(1, "a"), add(1, "a"));
    EXPECT_EQ(catalogue.files(1), 1U);
}

TEST_F(CatalogueTest, RemovingAFileRenumbersNoOther) {
    add_device();
    add(1, "a");
    const uint32_t kept = add(1, "b");
    catalogue.remove_file(catalogue.root(1), "a");
    EXPECT_EQ(add(1, "b"), kept);
    EXPECT_EQ(path(catalogue.exact({1, 1, kept})), "b");
    EXPECT_EQ(catalogue.files(1), 1U);
}

TEST_F(CatalogueTest, AnIndexIsNotGivenASecondTime) {
    add_device();
    const uint32_t old = add(1, "a");
    catalogue.remove_file(catalogue.root(1), "a");
    EXPECT_GT(add(1, "a"), old);
    EXPECT_EQ(catalogue.exact({1, 1, old}), nullptr);
}

TEST_F(CatalogueTest, ExactFindsOnlyItsKey) {
    add_device();
    add(1, "a");
    EXPECT_EQ(path(catalogue.exact({1, 1, 1})), "a");
    for (const FileKey &key :
         {FileKey{0, 0, 0}, FileKey{1, 0, 1}, FileKey{1, 2, 1}, FileKey{1, 1, 0}, FileKey{1, 1, 2},
          FileKey{2, 1, 1}, FileKey{UINT32_MAX, UINT32_MAX, UINT32_MAX}}) {
        EXPECT_EQ(catalogue.exact(key), nullptr);
    }
}

TEST_F(CatalogueTest, NextGoesThroughAllFilesAndOverTheBordersOfDevices) {
    for (int device = 0; device < 4; ++device) {
        add_device();
    }
    add(1, "b");
    add(1, "a");
    add(3, "c");
    add(4, "d");
    std::vector<std::string> walked;
    for (const auto *found = catalogue.next({}); found != nullptr;
         found = catalogue.next(found->first)) {
        walked.push_back(path(found));
    }
    EXPECT_EQ(walked, (std::vector<std::string>{"b", "a", "c", "d"}));
}

TEST_F(CatalogueTest, NextStartsAnywhereBetweenTheKeys) {
    add_device();
    add_device();
    add(1, "a");
    add(2, "b");
    EXPECT_EQ(path(catalogue.next({1, 0, 0})), "a");
    EXPECT_EQ(path(catalogue.next({1, 0, 77})), "a");
    EXPECT_EQ(path(catalogue.next({1, 1, 1})), "b");
    EXPECT_EQ(path(catalogue.next({1, 2, 0})), "b");
    EXPECT_EQ(path(catalogue.next({1, UINT32_MAX, UINT32_MAX})), "b");
    EXPECT_EQ(path(catalogue.next({2, 1, 1})), "none");
    EXPECT_EQ(path(catalogue.next({UINT32_MAX, 0, 0})), "none");
}

TEST_F(CatalogueTest, AnUnavailableDeviceIsPassedOverAndKeepsItsIndexes) {
    for (int device = 0; device < 3; ++device) {
        add_device();
        add(static_cast<uint32_t>(device + 1), "f" + std::to_string(device + 1));
    }
    catalogue.set_available(2, false);
    EXPECT_EQ(path(catalogue.next({1, 1, 1})), "f3");
    EXPECT_EQ(path(catalogue.exact({2, 1, 1})), "none");
    EXPECT_EQ(catalogue.files(2), 0U);
    catalogue.set_available(2, true);
    EXPECT_EQ(path(catalogue.next({1, 1, 1})), "f2");
    EXPECT_EQ(catalogue.files(2), 1U);
}

TEST_F(CatalogueTest, AFileKeepsItsIndexOverAMove) {
    add_device();
    Directory &root = catalogue.root(1);
    Directory &inner = catalogue.ensure_directory(root, "inner");
    const uint32_t index = add(1, "a");
    EXPECT_TRUE(catalogue.move_file(root, "a", inner, "b"));
    EXPECT_EQ(path(catalogue.exact({1, 1, index})), "inner/b");
    EXPECT_EQ(catalogue.files(1), 1U);
}

TEST_F(CatalogueTest, AMovedFileReplacesTheOneOfThatName) {
    add_device();
    Directory &root = catalogue.root(1);
    const uint32_t replaced = add(1, "a");
    const uint32_t moved = add(1, "new");
    EXPECT_TRUE(catalogue.move_file(root, "new", root, "a"));
    EXPECT_EQ(path(catalogue.exact({1, 1, moved})), "a");
    EXPECT_EQ(catalogue.exact({1, 1, replaced}), nullptr);
    EXPECT_EQ(catalogue.files(1), 1U);
}

TEST_F(CatalogueTest, AMovedDirectoryTakesItsFilesAlong) {
    add_device();
    Directory &root = catalogue.root(1);
    Directory &old = catalogue.ensure_directory(root, "old");
    Directory &deep = catalogue.ensure_directory(old, "deep");
    const uint32_t index = catalogue.ensure_file(deep, "f")->index;
    Directory &target = catalogue.ensure_directory(root, "target");
    EXPECT_TRUE(catalogue.move_directory(root, "old", target, "new"));
    EXPECT_EQ(path(catalogue.exact({1, 1, index})), "target/new/deep/f");
    EXPECT_TRUE(removed.empty());
}

TEST_F(CatalogueTest, ADirectoryIsNotMovedIntoItself) {
    add_device();
    Directory &root = catalogue.root(1);
    Directory &outer = catalogue.ensure_directory(root, "outer");
    Directory &inner = catalogue.ensure_directory(outer, "inner");
    EXPECT_FALSE(catalogue.move_directory(root, "outer", inner, "x"));
    EXPECT_FALSE(catalogue.move_directory(outer, "inner", root, "outer"));
    EXPECT_EQ(ruma::path_of(inner), "outer/inner");
}

TEST_F(CatalogueTest, AFileDoesNotReplaceTheDirectoryItLiesIn) {
    add_device();
    Directory &root = catalogue.root(1);
    Directory &outer = catalogue.ensure_directory(root, "outer");
    catalogue.ensure_file(outer, "f");
    EXPECT_FALSE(catalogue.move_file(outer, "f", root, "outer"));
    EXPECT_EQ(path(catalogue.exact({1, 1, 1})), "outer/f");
}

TEST_F(CatalogueTest, MovingWhatIsNotThereChangesNothing) {
    add_device();
    add_device();
    Directory &root = catalogue.root(1);
    add(1, "kept");
    EXPECT_FALSE(catalogue.move_file(root, "absent", root, "kept"));
    EXPECT_FALSE(catalogue.move_directory(root, "absent", root, "kept"));
    EXPECT_FALSE(catalogue.move_file(root, "kept", root, "kept"));
    EXPECT_FALSE(catalogue.move_file(root, "kept", catalogue.root(2), "other device"));
    EXPECT_EQ(path(catalogue.exact({1, 1, 1})), "kept");
}

TEST_F(CatalogueTest, RemovingADirectoryRemovesEverythingBelowAndSaysSo) {
    add_device();
    Directory &root = catalogue.root(1);
    Directory &outer = catalogue.ensure_directory(root, "outer");
    Directory &inner = catalogue.ensure_directory(outer, "inner");
    catalogue.ensure_file(outer, "a");
    catalogue.ensure_file(inner, "b");
    const uint32_t kept = add(1, "c");
    catalogue.remove_directory(root, "outer");
    EXPECT_EQ(catalogue.files(1), 1U);
    EXPECT_EQ(path(catalogue.next({})), "c");
    EXPECT_EQ(path(catalogue.exact({1, 1, kept})), "c");
    EXPECT_EQ(removed.size(), 2U);
}

TEST_F(CatalogueTest, AVeryDeepTreeIsRemovedWithoutRecursion) {
    uint32_t count = 0;
    catalogue.add_device([&](Directory &) { ++count; });
    Directory *directory = &catalogue.root(1);
    for (int depth = 0; depth < 200'000; ++depth) {
        directory = &catalogue.ensure_directory(*directory, "d");
    }
    catalogue.ensure_file(*directory, "f");
    catalogue.remove_directory(catalogue.root(1), "d");
    EXPECT_EQ(count, 200'000U);
    EXPECT_EQ(catalogue.next({}), nullptr);
}

TEST_F(CatalogueTest, LookUpsAmongAMillionFilesCompareAFewDozenKeys) {
    constexpr uint32_t directories = 1000;
    constexpr uint32_t each = 500;
    for (uint32_t device = add_device(); device <= 2; device = add_device()) {
        for (uint32_t d = 0; d < directories; ++d) {
            Directory &directory =
                catalogue.ensure_directory(catalogue.root(device), std::to_string(d));
            for (uint32_t f = 0; f < each; ++f) {
                catalogue.ensure_file(directory, std::to_string(f));
            }
        }
    }
    ASSERT_EQ(catalogue.files(1) + catalogue.files(2), 1'000'000U);
    // A red-black tree of n keys is at most 2 log2(n + 1) deep; one more comparison confirms.
    constexpr uint64_t limit = 2 * 20 + 1;
    const auto cost = [this](auto look_up) {
        const uint64_t before = catalogue.comparisons();
        look_up();
        return catalogue.comparisons() - before;
    };
    for (uint32_t file = 1; file <= directories * each; file += 997) {
        for (const uint32_t device : {1U, 2U}) {
            const FileKey key{device, 1, file};
            EXPECT_LE(cost([&] { EXPECT_NE(catalogue.exact(key), nullptr); }), limit);
            EXPECT_LE(cost([&] { catalogue.next(key); }), limit);
        }
    }
    EXPECT_LE(cost([&] { EXPECT_EQ(catalogue.exact({1, 1, 700'000}), nullptr); }), limit);
    catalogue.set_available(1, false);
    EXPECT_LE(cost([&] { EXPECT_EQ(catalogue.next({})->first.device, 2U); }), 2 * limit);
}

} // namespace

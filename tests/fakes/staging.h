// For tests in which the module stages files for real: a working directory of the test's own.
#ifndef FAKES_STAGING_H
#define FAKES_STAGING_H

#include "fakes/fixture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace fakes {

inline std::string content_of(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void write(const std::filesystem::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

// Works in the directory "work" below root_, which is otherwise empty, and removes both.
class StagingTest : public FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        before_ = std::filesystem::current_path();
        std::string name = (std::filesystem::temp_directory_path() / "staging.XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        root_ = name;
        std::filesystem::create_directory(root_ / "work");
        std::filesystem::current_path(root_ / "work");
    }
    void TearDown() override {
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(root_);
        FlashTest::TearDown();
    }

    std::filesystem::path root_;

  private:
    std::filesystem::path before_;
};

} // namespace fakes

#endif

// Test runs start with the tree's files off: the instrument's mount point is
// shared by every process on the machine. A test that wants the files mounts
// them in a folder of its own (the io_server's "mount" setting).
//
// Nor do they keep settings in the instrument's data root: each test gets a
// data root of its own, removed when it ends, so a tree whose stored values
// change never writes store files outside it, nor into the next test's tree
// when several tests run in one process.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "std/paths.hpp"

namespace {

class PrivateDataRoot : public ::testing::EmptyTestEventListener {
 public:
  void OnTestStart(const ::testing::TestInfo&) override {
    Paths::set_io_mount("");
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return;
    dir_ = pattern;
    Paths::set_data_root(dir_);
  }
  void OnTestEnd(const ::testing::TestInfo&) override {
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    dir_.clear();
  }

 private:
  std::string dir_;
};

const bool registered = [] {
  Paths::set_io_mount("");
  ::testing::UnitTest::GetInstance()->listeners().Append(new PrivateDataRoot);
  return true;
}();

}  // namespace

// Test runs start with the tree's files off: the instrument's mount point is
// shared by every process on the machine. A test that wants the files mounts
// them in a folder of its own (the io_server's "mount" setting).
//
// Nor do they keep settings in the instrument's data root: each test process
// has a data root of its own, removed at exit, so that a tree whose stored
// values change never writes store files outside it.
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "std/paths.hpp"

namespace {
const bool files_off = [] {
  Paths::set_io_mount("");
  return true;
}();

struct PrivateDataRoot {
  PrivateDataRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return;
    dir = pattern;
    Paths::set_data_root(dir);
  }
  ~PrivateDataRoot() {
    std::error_code ec;
    if (!dir.empty()) std::filesystem::remove_all(dir, ec);
  }
  std::string dir;
};
const PrivateDataRoot private_data_root;
}  // namespace

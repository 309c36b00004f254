// Test runs start with the tree's files off: the instrument's mount point is
// shared by every process on the machine. A test that wants the files mounts
// them in a folder of its own (the io_server's "mount" setting).
#include "std/paths.hpp"

namespace {
const bool files_off = [] {
  Paths::set_io_mount("");
  return true;
}();
}  // namespace

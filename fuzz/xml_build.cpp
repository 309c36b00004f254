// The XML configuration reader through to the built tree: every node type's
// constructor reading its settings, unknown types and faulty settings left
// out with a log line. The tree is built, not started.
//
// Nodes act on some settings while they are built (the log appends to the
// file its "persistant_csv_path" names). scripts/fuzz.sh runs this target in
// a scratch folder, the data root is that folder, and a configuration with a
// setting that could name a file outside it (an absolute path, "..") is not
// built.
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "core/log.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "std/paths.hpp"

namespace {

bool names_outside(const VTree& tree) {
  for (const auto& [key, value] : tree.attributes())
    if (value.starts_with('/') || value.find("..") != std::string::npos) return true;
  for (const auto& child : tree.children())
    if (names_outside(child)) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Log::set_stderr(false);
  Paths::set_data_root(std::filesystem::current_path().string());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto tree = FormatXML::instance().parse(text);
  if (tree && names_outside(*tree)) return -1;  // not kept in the corpus either
  auto root = FormatXML::instance().build(text);
  if (root) root->json();
  return 0;
}

// The XML configuration reader up to the configuration tree, and every
// setting of that tree read as every value type (a setting that does not
// convert throws ConfigError, which the node factory turns into a log line).
#include <cstdint>
#include <string>
#include <vector>

#include "core/log.hpp"
#include "core/vtree.hpp"
#include "formats/format_xml.hpp"

namespace {

template <class T>
void read_as(const VTree& tree, const std::string& key) {
  T value{};
  try {
    tree.get(key, value);
  } catch (const ConfigError&) {
  }
}

void read_all(const VTree& tree) {
  for (const auto& [key, text] : tree.attributes()) {
#define ZEL_READ_AS(T) read_as<T>(tree, key);
    ZEL_FORMAT_VALUE_TYPES(ZEL_READ_AS)
#undef ZEL_READ_AS
  }
  for (const auto& child : tree.children()) read_all(child);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Log::set_stderr(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto tree = FormatXML::instance().parse({reinterpret_cast<const char*>(data), size});
  if (tree) read_all(*tree);
  return 0;
}

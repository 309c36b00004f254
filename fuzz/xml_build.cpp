// The XML configuration reader through to the built tree: every node type's
// constructor reading its settings, unknown types and faulty settings left
// out with a log line. The tree is built, not started.
#include <cstdint>

#include "core/log.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Log::set_stderr(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto root = FormatXML::instance().build({reinterpret_cast<const char*>(data), size});
  if (root) root->json();
  return 0;
}

// A vertex's JSON reader on a small tree holding a value field of every value
// type, a nested vertex and an IO node. Whatever the text, the tree's JSON
// stays valid and reads back into the tree unchanged.
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/log.hpp"
#include "sample_tree.hpp"
#include "value_text.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Log::set_stderr(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto tree = fuzz::make_sample_tree();
  tree->read_json(fuzz::as_text(data, size));
  const std::string json = tree->json();
  if (nlohmann::json::parse(json, nullptr, false).is_discarded())
    fuzz::fail("the tree's JSON is not valid", fuzz::as_text(data, size), json);
  if (!tree->read_json(json)) fuzz::fail("the tree does not read its own JSON", fuzz::as_text(data, size), json);
  if (tree->json() != json) fuzz::fail("the tree's JSON changes when read back", json, tree->json());
  return 0;
}

// The value text of strings: the hand-written string reader, held to the
// common property and to nlohmann's reading of the same text wherever that
// reader takes it (it refuses text that is not UTF-8, which ours passes on).
#include "value_text.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto text = fuzz::as_text(data, size);
  fuzz::check_value_text<std::string>(text);

  auto trimmed = x2x::trim(text);
  if (trimmed.find('\0') != std::string_view::npos) return 0;  // nlohmann ends its input at a NUL
  auto reference = nlohmann::json::parse(trimmed, nullptr, false);
  if (reference.is_discarded() || !reference.is_string()) return 0;
  std::string ours;
  if (!x2x::from_json(text, ours)) fuzz::fail("a JSON string is refused", text, reference.dump());
  if (ours != reference.get_ref<const std::string&>())
    fuzz::fail("a JSON string reads differently", ours, reference.get_ref<const std::string&>());
  return 0;
}

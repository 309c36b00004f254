// The WebSocket message handler: a client's session of messages (the input,
// one message per line) against a tree holding a field of every value type,
// nesting and an IO node. After each message the push that follows is either
// nothing or a JSON object with the protocol's exact opening, whose "data"
// maps paths of fields in the tree to arrays of [value, stamp] samples.
#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/log.hpp"
#include "sample_tree.hpp"
#include "value_text.hpp"
#include "web/client_protocol.hpp"

namespace {

void check_push(Vertex& tree, const std::string& push, std::string_view input) {
  if (!push.starts_with(ClientProtocol::kUpdateOpening) || !push.ends_with("}}"))
    fuzz::fail("the push is not framed as an update", input, push);
  auto message = nlohmann::json::parse(push, nullptr, false);
  if (!message.is_object() || !message["data"].is_object()) fuzz::fail("the push is not valid JSON", input, push);
  for (auto& [path, samples] : message["data"].items()) {
    Vertex* v = tree.find(path);
    if (!v || !v->is_field()) fuzz::fail("the push names no field of the tree", input, path);
    if (!samples.is_array() || samples.empty()) fuzz::fail("a field's samples are not a list", input, push);
    for (auto& sample : samples)
      if (!sample.is_array() || sample.size() != 2 || !sample[1].is_number_unsigned())
        fuzz::fail("a sample is not [value, stamp]", input, push);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Log::set_stderr(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto tree = fuzz::make_sample_tree();
  ClientProtocol protocol(*tree, std::make_shared<PushTrigger>(), 16,
                          [] { return WebCaller::of(Role::Operator, "fuzz", "a fuzzer"); });
  std::string_view input = fuzz::as_text(data, size), rest = input;
  std::string push;
  while (!rest.empty()) {
    auto end = rest.find('\n');
    protocol.handle_message(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    if (protocol.write_push(push).wrote) check_push(*tree, push, input);
  }
  return 0;
}

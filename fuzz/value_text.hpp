#pragma once
// The property every value type keeps in the value text format, checked on
// fuzzed text: a text that reads is written back in one canonical form, that
// form is valid JSON, it reads back to the same value (floating-point values
// bit for bit) and is written again exactly as before. A text that does not
// read leaves the value as it was. A broken property aborts with both texts, which
// libFuzzer reports as a crash with the input that caused it.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/x2x.hpp"

namespace fuzz {

[[noreturn]] inline void fail(const char* what, std::string_view first, std::string_view second) {
  std::fprintf(stderr, "%s\n  first:  '%.*s'\n  second: '%.*s'\n", what, static_cast<int>(first.size()),
               first.data(), static_cast<int>(second.size()), second.data());
  std::abort();
}

inline std::string_view as_text(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

inline bool valid_utf8(const std::string& s) {
  try {
    (void)nlohmann::json(s).dump();  // throws on bytes that are not UTF-8
    return true;
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

// Whether `again`, read from the canonical text of `value`, stands for the
// same value. The format's own choices are not differences: every non-finite
// number is written null and reads back NaN; bytes that are not UTF-8 are
// written as U+FFFD.
template <class T>
bool same_value(const T& value, const T& again) {
  if constexpr (std::is_floating_point_v<T>) {
    if (!std::isfinite(value)) return std::isnan(again);
    return value == again && std::signbit(value) == std::signbit(again);
  } else if constexpr (std::is_same_v<T, std::string>) {
    return valid_utf8(again) && (!valid_utf8(value) || value == again);
  } else if constexpr (std::is_same_v<T, std::vector<bool>>) {
    return value == again;
  } else if constexpr (requires { value.size(); value[0]; }) {
    if (value.size() != again.size()) return false;
    for (size_t i = 0; i < value.size(); ++i)
      if (!same_value(value[i], again[i])) return false;
    return true;
  } else {
    return value == again;
  }
}

template <class T>
void check_value_text(std::string_view text) {
  T value{};
  const std::string before = x2x::to_json(value);
  if (!x2x::from_json(text, value)) {
    if (x2x::to_json(value) != before) fail("a text that does not read changed the value", text, x2x::to_json(value));
    return;
  }
  const std::string canonical = x2x::to_json(value);
  if (nlohmann::json::parse(canonical, nullptr, false).is_discarded())
    fail("the canonical text is not valid JSON", text, canonical);
  T again{};
  if (!x2x::from_json(canonical, again)) fail("the canonical text does not read back", text, canonical);
  if (!same_value(value, again)) fail("the canonical text reads back to another value", text, canonical);
  const std::string second = x2x::to_json(again);
  if (second != canonical) fail("the canonical text is not stable", canonical, second);
}

}  // namespace fuzz

// One fuzz target for the value type T.
#define ZEL_FUZZ_VALUE_TEXT(T)                                               \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { \
    fuzz::check_value_text<T>(fuzz::as_text(data, size));                    \
    return 0;                                                                \
  }

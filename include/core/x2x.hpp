#pragma once
// The value text format: the one text form of every field value, used wherever
// a value becomes text (files under the mount point, WebSocket pushes, store
// files) or is read from text.
//
// Writing appends to `out` (so a caller can fill one reserved buffer); the
// value-returning forms are for convenience. Reading ignores blanks, tabs,
// line ends and NULs around the text, returns false on malformed input and
// then leaves `out` unchanged.
//
// Choices beyond the examples this format must reproduce: a float that is not
// finite is written `null` (valid JSON for every client) and `null`, `nan` and
// `inf` read back as such; strings are written as valid UTF-8 (bytes that do
// not form UTF-8 become U+FFFD).
#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace x2x {

template <class T>
concept Integer = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char>;

void to_json(bool value, std::string& out);
void to_json(double value, std::string& out);
void to_json(float value, std::string& out);
void to_json(std::string_view value, std::string& out);
inline void to_json(const std::string& value, std::string& out) { to_json(std::string_view(value), out); }
inline void to_json(const char* value, std::string& out) { to_json(std::string_view(value), out); }
void to_json_signed(long long value, std::string& out);
void to_json_unsigned(unsigned long long value, std::string& out);

template <Integer T>
void to_json(T value, std::string& out) {
  if constexpr (std::is_signed_v<T>) to_json_signed(value, out);
  else to_json_unsigned(value, out);
}

template <class T>
void to_json(const std::vector<T>& values, std::string& out) {
  out.push_back('[');
  bool first = true;
  for (const auto& v : values) {
    if (!first) out.push_back(',');
    first = false;
    if constexpr (std::is_same_v<T, bool>) to_json(static_cast<bool>(v), out);
    else to_json(v, out);
  }
  out.push_back(']');
}

template <class T>
std::string to_json(const T& value) {
  std::string out;
  to_json(value, out);
  return out;
}

bool from_json(std::string_view text, bool& out);
bool from_json(std::string_view text, double& out);
bool from_json(std::string_view text, float& out);
bool from_json(std::string_view text, std::string& out);
bool from_json_signed(std::string_view text, long long min, long long max, long long& out);
bool from_json_unsigned(std::string_view text, unsigned long long max, unsigned long long& out);

template <Integer T>
bool from_json(std::string_view text, T& out) {
  if constexpr (std::is_signed_v<T>) {
    long long v;
    if (!from_json_signed(text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), v)) return false;
    out = static_cast<T>(v);
  } else {
    unsigned long long v;
    if (!from_json_unsigned(text, std::numeric_limits<T>::max(), v)) return false;
    out = static_cast<T>(v);
  }
  return true;
}

// The deepest nesting of arrays and objects taken from outside. Writing a
// parsed JSON value back out recurses once per level, so a text of a few
// hundred kilobytes of "[" would overflow the stack; no value or tree of this
// system comes near this depth.
inline constexpr size_t kMaxJsonDepth = 128;
// Whether the arrays and objects of a JSON text nest no deeper than `limit`
// (brackets inside strings do not count); one pass, no parse.
bool json_depth_within(std::string_view text, size_t limit = kMaxJsonDepth);

// Splits a JSON array into the texts of its elements; false if `text` is not
// one or nests deeper than kMaxJsonDepth.
bool split_array(std::string_view text, std::vector<std::string>& elements);

template <class T>
bool from_json(std::string_view text, std::vector<T>& out) {
  std::vector<std::string> elements;
  if (!split_array(text, elements)) return false;
  std::vector<T> values;
  values.reserve(elements.size());
  for (const auto& element : elements) {
    T v{};
    if (!from_json(element, v)) return false;
    values.push_back(std::move(v));
  }
  out = std::move(values);
  return true;
}

// Removes the blanks, tabs, line ends and NULs around a value text.
std::string_view trim(std::string_view text);

}  // namespace x2x

#include "core/x2x.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>

#include <nlohmann/json.hpp>

#include "core/json_walk.hpp"

namespace x2x {

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0'; }

template <class F>
void write_float(F value, std::string& out) {
  if (!std::isfinite(value)) {
    out.append("null");
    return;
  }
  char buffer[32];
  char* end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  // The shortest exponent: "1e-4" and "1e20", not "1e-04" and "1e+20".
  char* e = std::find(buffer, end, 'e');
  if (e == end) {
    out.append(buffer, end);
    return;
  }
  out.append(buffer, e + 1);
  const char* digits = e + 1;
  if (*digits == '+') ++digits;
  else if (*digits == '-') out.push_back(*digits++);
  while (digits + 1 < end && *digits == '0') ++digits;
  out.append(digits, static_cast<size_t>(end - digits));
}

template <class F>
bool read_float(std::string_view text, F& out) {
  // Plain numbers without blanks around them are the common case.
  if (text.empty() || is_space(text.front()) || is_space(text.back())) text = trim(text);
  const char* end = text.data() + text.size();
  F value;
  auto result = std::from_chars(text.data(), end, value);
  if (result.ec == std::errc() && result.ptr == end && !text.empty()) [[likely]] {
    out = value;
    return true;
  }
  if (text == "null") {
    out = std::numeric_limits<F>::quiet_NaN();
    return true;
  }
  return false;
}

void append_hex4(unsigned value, std::string& out) {
  static constexpr char digits[] = "0123456789abcdef";
  out.append("\\u00");
  out.push_back(digits[(value >> 4) & 0xF]);
  out.push_back(digits[value & 0xF]);
}

// Length of the valid UTF-8 sequence at s[i], or 0 if the bytes there are not one.
size_t utf8_length(std::string_view s, size_t i) {
  auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char c = byte(i);
  size_t n;
  unsigned min;
  unsigned code;
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0) { n = 2; min = 0x80; code = c & 0x1F; }
  else if ((c & 0xF0) == 0xE0) { n = 3; min = 0x800; code = c & 0x0F; }
  else if ((c & 0xF8) == 0xF0) { n = 4; min = 0x10000; code = c & 0x07; }
  else return 0;
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    code = (code << 6) | (byte(i + k) & 0x3F);
  }
  if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return n;
}

void append_utf8(unsigned code, std::string& out) {
  if (code < 0x80) {
    out.push_back(static_cast<char>(code));
  } else if (code < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (code >> 6)));
    out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
  } else if (code < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (code >> 12)));
    out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (code >> 18)));
    out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
  }
}

bool read_hex4(std::string_view s, size_t i, unsigned& out) {
  if (i + 4 > s.size()) return false;
  unsigned v = 0;
  for (size_t k = 0; k < 4; ++k) {
    char c = s[i + k];
    v <<= 4;
    if (c >= '0' && c <= '9') v |= c - '0';
    else if (c >= 'a' && c <= 'f') v |= c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') v |= c - 'A' + 10;
    else return false;
  }
  out = v;
  return true;
}

}  // namespace

std::string_view trim(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

void to_json(bool value, std::string& out) { out.append(value ? "true" : "false"); }
void to_json(double value, std::string& out) { write_float(value, out); }
void to_json(float value, std::string& out) { write_float(value, out); }

void to_json_signed(long long value, std::string& out) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

void to_json_unsigned(unsigned long long value, std::string& out) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

void to_json(std::string_view value, std::string& out) {
  out.reserve(out.size() + value.size() + 2);
  out.push_back('"');
  for (size_t i = 0; i < value.size();) {
    unsigned char c = static_cast<unsigned char>(value[i]);
    switch (c) {
      case '"': out.append("\\\""); ++i; continue;
      case '\\': out.append("\\\\"); ++i; continue;
      case '\b': out.append("\\b"); ++i; continue;
      case '\f': out.append("\\f"); ++i; continue;
      case '\n': out.append("\\n"); ++i; continue;
      case '\r': out.append("\\r"); ++i; continue;
      case '\t': out.append("\\t"); ++i; continue;
      default: break;
    }
    if (c < 0x20) {
      append_hex4(c, out);
      ++i;
      continue;
    }
    size_t n = utf8_length(value, i);
    if (n == 0) {
      out.append("\xEF\xBF\xBD");  // U+FFFD for a byte that is not UTF-8
      ++i;
      continue;
    }
    out.append(value.substr(i, n));
    i += n;
  }
  out.push_back('"');
}

bool from_json(std::string_view text, bool& out) {
  text = trim(text);
  if (text == "true" || text == "1") {
    out = true;
    return true;
  }
  if (text == "false" || text == "0") {
    out = false;
    return true;
  }
  return false;
}

bool from_json(std::string_view text, double& out) { return read_float(text, out); }
bool from_json(std::string_view text, float& out) { return read_float(text, out); }

bool from_json_signed(std::string_view text, long long min, long long max, long long& out) {
  text = trim(text);
  long long v;
  auto result = std::from_chars(text.data(), text.data() + text.size(), v);
  if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size()) return false;
  if (v < min || v > max) return false;
  out = v;
  return true;
}

bool from_json_unsigned(std::string_view text, unsigned long long max, unsigned long long& out) {
  text = trim(text);
  if (text.empty() || text.front() == '-') return false;
  unsigned long long v;
  auto result = std::from_chars(text.data(), text.data() + text.size(), v);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return false;
  if (v > max) return false;
  out = v;
  return true;
}

bool from_json(std::string_view text, std::string& out) {
  text = trim(text);
  if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
  std::string value;
  value.reserve(text.size() - 2);
  size_t end = text.size() - 1;
  for (size_t i = 1; i < end;) {
    char c = text[i];
    if (c == '"') return false;  // an unescaped quote ends the string early
    if (static_cast<unsigned char>(c) < 0x20) return false;
    if (c != '\\') {
      value.push_back(c);
      ++i;
      continue;
    }
    if (++i >= end) return false;
    char e = text[i++];
    switch (e) {
      case '"': value.push_back('"'); break;
      case '\\': value.push_back('\\'); break;
      case '/': value.push_back('/'); break;
      case 'b': value.push_back('\b'); break;
      case 'f': value.push_back('\f'); break;
      case 'n': value.push_back('\n'); break;
      case 'r': value.push_back('\r'); break;
      case 't': value.push_back('\t'); break;
      case 'u': {
        unsigned code;
        if (!read_hex4(text.substr(0, end), i, code)) return false;
        i += 4;
        if (code >= 0xD800 && code <= 0xDBFF) {
          unsigned low;
          if (i + 6 > end || text[i] != '\\' || text[i + 1] != 'u' ||
              !read_hex4(text.substr(0, end), i + 2, low) || low < 0xDC00 || low > 0xDFFF)
            return false;
          i += 6;
          code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        } else if (code >= 0xDC00 && code <= 0xDFFF) {
          return false;
        }
        append_utf8(code, value);
        break;
      }
      default: return false;
    }
  }
  out = std::move(value);
  return true;
}

bool json_depth_within(std::string_view text, size_t limit) {
  return walk_json_structure(text, [limit](size_t, char c, size_t depth) {
    return !(c == '[' || c == '{') || depth <= limit;
  });
}

bool split_array(std::string_view text, std::vector<std::string>& elements) {
  text = trim(text);
  // nlohmann ends its input at a NUL; what follows one would go unread.
  if (text.find('\0') != std::string_view::npos || !json_depth_within(text)) return false;
  auto parsed = nlohmann::json::parse(text, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_array()) return false;
  // The elements' own texts, cut at the commas of the top level, so that each
  // reads by the value text rules: an element written anew by nlohmann would
  // lose what it does not keep, such as the sign of -0.
  elements.clear();
  elements.reserve(parsed.size());
  if (parsed.empty()) return true;
  auto element = [&](size_t begin, size_t end) {
    auto part = text.substr(begin, end - begin);
    while (is_space(part.front())) part.remove_prefix(1);
    while (is_space(part.back())) part.remove_suffix(1);
    elements.emplace_back(part);
  };
  size_t begin = 1;
  const size_t last = text.size() - 1;  // the closing ']'
  walk_json_structure(text, [&](size_t i, char c, size_t depth) {
    if (c == ',' && depth == 1) {
      element(begin, i);
      begin = i + 1;
    }
    return true;
  });
  element(begin, last);
  return true;
}

}  // namespace x2x

#include "epics/dbr.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "epics/ca_message.hpp"

namespace dbr {

namespace {

void put_float(std::string& out, float v) { ca::put32(out, std::bit_cast<uint32_t>(v)); }
void put_double(std::string& out, double v) {
  auto bits = std::bit_cast<uint64_t>(v);
  ca::put32(out, static_cast<uint32_t>(bits >> 32));
  ca::put32(out, static_cast<uint32_t>(bits));
}

// A fixed-size text field: the text cut to leave room for its NUL, then zeros.
void put_text(std::string& out, std::string_view text, size_t size) {
  text = text.substr(0, std::min(text.size(), size - 1));
  out.append(text);
  out.append(size - text.size(), '\0');
}

template <class I>
I clamp_to(double v) {
  if (std::isnan(v)) return 0;
  constexpr double lo = static_cast<double>(std::numeric_limits<I>::min());
  constexpr double hi = static_cast<double>(std::numeric_limits<I>::max());
  return static_cast<I>(std::clamp(v, lo, hi));
}

// One number in the wire form of `element` (not for strings).
void put_number(std::string& out, Element element, double v) {
  switch (element) {
    case Short: ca::put16(out, static_cast<uint16_t>(clamp_to<int16_t>(v))); break;
    case Float: put_float(out, static_cast<float>(v)); break;
    case Enum: ca::put16(out, clamp_to<uint16_t>(v)); break;
    case Char: out.push_back(static_cast<char>(clamp_to<uint8_t>(v))); break;
    case Long: ca::put32(out, static_cast<uint32_t>(clamp_to<int32_t>(v))); break;
    case Double: put_double(out, v); break;
    case String: break;
  }
}

double number_at(const PvValue& v, size_t i) {
  if (i >= v.count()) return 0;
  if (!v.text) return v.numbers[i];
  const std::string& t = v.texts[i];
  char* end = nullptr;
  double d = std::strtod(t.c_str(), &end);
  return end == t.c_str() ? 0 : d;
}

std::string text_at(const PvValue& v, size_t i) {
  if (i >= v.count()) return {};
  if (v.text) return v.texts[i];
  double d = v.numbers[i];
  if (!v.states.empty() && d >= 0 && d < static_cast<double>(v.states.size()) && d == std::floor(d))
    return v.states[static_cast<size_t>(d)];
  if (v.precision > 0 && std::isfinite(d)) return fmt::format("{:.{}f}", d, v.precision);
  return fmt::format("{}", d);
}

// The padding the C structures put between the time stamp (or the alarm, for
// STS) and the value, so that the value is aligned.
size_t value_padding(Element element, Form form) {
  if (form == Time) {
    switch (element) {
      case Short: case Enum: return 2;
      case Char: return 3;
      case Double: return 4;
      default: return 0;
    }
  }
  if (form == Sts) return element == Char ? 1 : element == Double ? 4 : 0;
  return 0;
}

// GR and CTRL: precision, units and limits before the value.
void put_display(std::string& out, Element element, Form form, const PvValue& v) {
  if (element == String) return;
  if (element == Enum) {
    size_t n = std::min(v.states.size(), kEnumStrings);
    ca::put16(out, static_cast<uint16_t>(n));
    for (size_t i = 0; i < kEnumStrings; ++i) put_text(out, i < n ? v.states[i] : std::string_view{}, kEnumStringSize);
    return;
  }
  if (element == Float || element == Double) {
    ca::put16(out, static_cast<uint16_t>(v.precision));
    ca::put16(out, 0);
  }
  put_text(out, v.units, kUnitsSize);
  double limits[] = {v.display_high, v.display_low, v.alarm_high, v.warning_high,
                     v.warning_low,  v.alarm_low,   v.control_high, v.control_low};
  size_t n = form == Ctrl ? 8 : 6;
  for (size_t i = 0; i < n; ++i) put_number(out, element, limits[i]);
  if (element == Char) out.push_back('\0');
}

}  // namespace

size_t element_size(Element element) {
  switch (element) {
    case String: return kStringSize;
    case Short: case Enum: return 2;
    case Char: return 1;
    case Float: case Long: return 4;
    case Double: return 8;
  }
  return 0;
}

void PvValue::clear() {
  text = false;
  numbers.clear();
  texts.clear();
  status = StatusNone;
  severity = NoAlarm;
  stamp_ns = 0;
  units.clear();
  precision = 0;
  display_low = display_high = control_low = control_high = 0;
  alarm_low = warning_low = warning_high = alarm_high = std::numeric_limits<double>::quiet_NaN();
  states.clear();
}

bool encode(uint16_t type, uint32_t count, const PvValue& v, std::string& out) {
  if (type > kLastType) return false;
  Element element = element_of(type);
  Form form = form_of(type);
  size_t n = count ? count : std::max<size_t>(v.count(), 1);
  out.reserve(out.size() + 96 + n * element_size(element));
  if (form != Plain) {
    ca::put16(out, static_cast<uint16_t>(v.status));
    ca::put16(out, static_cast<uint16_t>(v.severity));
  }
  if (form == Time) {
    uint64_t seconds = v.stamp_ns / 1000000000u;
    seconds = seconds > ca::kEpicsEpochOffset ? seconds - ca::kEpicsEpochOffset : 0;
    ca::put32(out, static_cast<uint32_t>(seconds));
    ca::put32(out, v.stamp_ns ? static_cast<uint32_t>(v.stamp_ns % 1000000000u) : 0);
  }
  if (form == Gr || form == Ctrl) put_display(out, element, form, v);
  out.append(value_padding(element, form), '\0');
  for (size_t i = 0; i < n; ++i) {
    if (element == String) put_text(out, text_at(v, i), kStringSize);
    else put_number(out, element, number_at(v, i));
  }
  return true;
}

std::optional<Written> decode(uint16_t type, uint32_t count, std::string_view payload) {
  if (type > Double || count == 0) return std::nullopt;
  Element element = element_of(type);
  size_t size = element_size(element);
  // Clients send a single string only as long as it is, NUL included.
  bool short_text = element == String && count == 1 && !payload.empty();
  if (payload.size() / size < count && !short_text) return std::nullopt;
  Written w;
  w.text = element == String;
  const char* p = payload.data();
  for (uint32_t i = 0; i < count; ++i, p += size) {
    switch (element) {
      case String: w.texts.emplace_back(ca::payload_text({p, std::min(size, payload.size())})); break;
      case Short: w.numbers.push_back(static_cast<int16_t>(ca::get16(p))); break;
      case Float: w.numbers.push_back(std::bit_cast<float>(ca::get32(p))); break;
      case Enum: w.numbers.push_back(ca::get16(p)); break;
      case Char: w.numbers.push_back(static_cast<unsigned char>(*p)); break;
      case Long: w.numbers.push_back(static_cast<int32_t>(ca::get32(p))); break;
      case Double:
        w.numbers.push_back(std::bit_cast<double>(static_cast<uint64_t>(ca::get32(p)) << 32 | ca::get32(p + 4)));
        break;
    }
  }
  return w;
}

}  // namespace dbr

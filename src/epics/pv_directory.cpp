#include "epics/pv_directory.hpp"

#include <cmath>
#include <charconv>

#include <fmt/format.h>

#include "core/button_field.hpp"
#include "core/field.hpp"
#include "core/io/interlock_io.hpp"
#include "core/io/range_interlock_io.hpp"
#include "core/log.hpp"
#include "core/node.hpp"
#include "core/x2x.hpp"

namespace {

using Kind = PvDirectory::Kind;

constexpr int16_t kDefaultPrecision = 6;

std::optional<Kind> kind_of(const FieldBase& field) {
  if (dynamic_cast<const ButtonField*>(&field)) return Kind::Button;
  auto type = field.value_type_name();
  if (type == "double" || type == "float" || type == "uint32" || type == "uint64") return Kind::Number;
  if (type == "int" || type == "uint8" || type == "uint16") return Kind::Integer;
  if (type == "bool") return Kind::Bool;
  if (type == "string") return Kind::Text;
  if (type == "double[]") return Kind::NumberArray;
  if (type == "bool[]") return Kind::BoolArray;
  if (type == "string[]") return Kind::TextArray;
  return std::nullopt;
}

// The IO whose value `field` is, or null.
const Node* value_owner(const FieldBase& field) {
  auto* node = dynamic_cast<const IOBase*>(field.parent());
  return node && node->value_field() == &field ? node : nullptr;
}

template <class T, class F>
bool read_as(const FieldBase& field, F&& take) {
  auto* typed = dynamic_cast<const Field<T>*>(&field);
  if (!typed) return false;
  take(typed->get());
  return true;
}

void read_numbers(const FieldBase& f, std::vector<double>& out) {
  auto one = [&](auto v) { out.push_back(static_cast<double>(v)); };
  read_as<double>(f, one) || read_as<float>(f, one) || read_as<int>(f, one) || read_as<unsigned char>(f, one) ||
      read_as<unsigned short>(f, one) || read_as<unsigned int>(f, one) || read_as<unsigned long long>(f, one) ||
      read_as<bool>(f, one) ||
      read_as<std::vector<double>>(f, [&](const auto& v) { out.assign(v.begin(), v.end()); }) ||
      read_as<std::vector<bool>>(f, [&](const auto& v) { out.assign(v.begin(), v.end()); });
}

void read_texts(const FieldBase& f, std::vector<std::string>& out) {
  read_as<std::string>(f, [&](const std::string& v) { out.push_back(v); }) ||
      read_as<std::vector<std::string>>(f, [&](const auto& v) { out = v; });
}

// "%.3f", "%8.2e", "0.000": the digits after the point.
int16_t precision_of(std::string_view format) {
  auto dot = format.find('.');
  if (dot == std::string_view::npos) return format.empty() ? kDefaultPrecision : 0;
  auto rest = format.substr(dot + 1);
  int digits = 0;
  auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), digits);
  if (ec == std::errc() && end != rest.data()) return static_cast<int16_t>(std::min(digits, 17));
  size_t zeros = rest.find_first_not_of('0');
  return static_cast<int16_t>(zeros == std::string_view::npos ? rest.size() : zeros);
}

std::string attribute(const FieldBase& field, std::string FieldAttributes::*member,
                      std::string (Node::*of_node)() const) {
  if (auto* a = field.attributes(); a && !(a->*member).empty()) return a->*member;
  if (auto* owner = value_owner(field)) return (owner->*of_node)();
  return {};
}

double deadband_of(const Node& owner) {
  auto text = owner.extra_attribute("deadband");
  if (text.empty()) return 0;
  double deadband = 0;
  if (!x2x::from_json(text, deadband) || !(deadband >= 0) || !std::isfinite(deadband)) {
    ZEL_ERROR("Deadband '{}' of '{}' is not a number of zero or more; every change is reported", text, owner.path());
    return 0;
  }
  return deadband;
}

dbr::AlarmSeverity severity_of(const InterlockIO& interlock) {
  if (!interlock.assigned()) return dbr::Invalid;
  switch (interlock.get()) {
    case InterlockIO::Ok: return dbr::NoAlarm;
    case InterlockIO::Warning: return dbr::Minor;
    default: return dbr::Major;
  }
}

double limit_or_nan(const ValueField<double>& limit) {
  return limit.assigned() ? limit.get() : std::numeric_limits<double>::quiet_NaN();
}

void append_number(double v, std::string& out) {
  if (std::isfinite(v) && v == std::trunc(v) && std::fabs(v) < 1e15)
    out.append(fmt::format("{}", static_cast<long long>(v)));
  else
    x2x::to_json(v, out);
}

void append_bool(double v, std::string& out) {
  if (v == 0 || v == 1) out.append(v ? "true" : "false");
  else append_number(v, out);
}

// A text written to a boolean: the state names and the numbers 0 and 1.
void append_bool_text(std::string_view t, std::string& out) {
  if (t == "0") t = "false";
  else if (t == "1") t = "true";
  out.append(t);
}

}  // namespace

PvDirectory::PvDirectory(Vertex& top, std::string prefix) {
  // Which range interlock watches which value.
  std::unordered_map<const FieldBase*, const RangeInterlockIO*> watched;
  top.visit([&](Vertex& v) {
    if (auto* range = dynamic_cast<RangeInterlockIO*>(&v); range && range->input())
      watched.emplace(&range->input()->value(), range);
  });
  top.visit([&](Vertex& v) {
    if (!v.is_field()) return;
    auto& field = static_cast<FieldBase&>(v);
    if (!field.admitted() && !dynamic_cast<ButtonField*>(&field)) return;
    auto kind = kind_of(field);
    if (!kind) return;
    auto* owner = value_owner(field);
    std::string path = owner ? owner->path() : field.path();
    if (path.empty()) return;
    Entry entry;
    entry.name = prefix;
    for (char c : path) entry.name.push_back(c == '/' ? ':' : c);
    entry.field = &field;
    entry.kind = *kind;
    if (auto* interlock = dynamic_cast<const InterlockIO*>(owner)) entry.alarm = interlock;
    if (auto it = watched.find(&field); it != watched.end()) entry.alarm = entry.limits = it->second;
    entry.units = attribute(field, &FieldAttributes::units, &Node::units);
    if (*kind == Kind::Number || *kind == Kind::NumberArray)
      entry.precision = precision_of(attribute(field, &FieldAttributes::format, &Node::format));
    if (*kind == Kind::Number && owner) entry.deadband = deadband_of(*owner);
    entries_.push_back(entry);
    if (*kind == Kind::Text) {
      entry.name.push_back('$');
      entry.kind = Kind::LongText;
      entries_.push_back(std::move(entry));
    }
  });
  by_name_.reserve(entries_.size());
  for (size_t i = 0; i < entries_.size(); ++i) by_name_.emplace(entries_[i].name, i);
}

const PvDirectory::Entry* PvDirectory::find(std::string_view name) const {
  auto it = by_name_.find(name);
  return it == by_name_.end() ? nullptr : &entries_[it->second];
}

uint16_t PvDirectory::Entry::native_type() const {
  switch (kind) {
    case Kind::Number: case Kind::NumberArray: return dbr::Double;
    case Kind::Integer: return dbr::Long;
    case Kind::Bool: case Kind::Button: case Kind::BoolArray: return dbr::Enum;
    case Kind::Text: case Kind::TextArray: return dbr::String;
    case Kind::LongText: return dbr::Char;
  }
  return dbr::Double;
}

uint32_t PvDirectory::Entry::count() const {
  if (kind == Kind::LongText) return kLongTextMax;
  if (kind == Kind::NumberArray || kind == Kind::BoolArray || kind == Kind::TextArray) {
    auto n = read().count();
    return n ? static_cast<uint32_t>(n) : 1;
  }
  return 1;
}

void PvDirectory::Entry::read(dbr::PvValue& v, bool display) const {
  v.clear();
  v.stamp_ns = field->stamp();
  switch (kind) {
    case Kind::Button: v.numbers.push_back(0); break;
    case Kind::Text: case Kind::TextArray: v.text = true; read_texts(*field, v.texts); break;
    case Kind::LongText: {
      std::vector<std::string> texts;
      read_texts(*field, texts);
      std::string_view t = texts.empty() ? std::string_view{} : std::string_view(texts.front());
      t = t.substr(0, std::min<size_t>(t.size(), kLongTextMax - 1));
      for (unsigned char c : t) v.numbers.push_back(c);
      v.numbers.push_back(0);
      break;
    }
    default: read_numbers(*field, v.numbers);
  }
  // States and precision also turn numbers into strings, so they come always.
  if (kind == Kind::Bool || kind == Kind::Button || kind == Kind::BoolArray) v.states = {"false", "true"};
  v.precision = precision;
  if (display) {
    v.units = units;
    if (auto* range = field->range(); range && std::isfinite(range->min) && std::isfinite(range->max)) {
      v.control_low = v.display_low = range->min;
      v.control_high = v.display_high = range->max;
    }
  }
  if (limits && display) {
    v.alarm_low = limit_or_nan(limits->lower_limit());
    v.alarm_high = limit_or_nan(limits->upper_limit());
    v.warning_low = limit_or_nan(limits->lower_warning());
    v.warning_high = limit_or_nan(limits->upper_warning());
  }
  if (alarm) {
    v.severity = severity_of(*alarm);
    v.status = v.severity == dbr::NoAlarm ? dbr::StatusNone : dbr::StatusState;
    if (v.severity == dbr::Invalid) v.status = dbr::StatusUdf;
  }
  bool finite = true;
  if (!v.text)
    for (double d : v.numbers) finite = finite && std::isfinite(d);
  if ((!field->assigned() && kind != Kind::Button) || !finite) {
    v.severity = dbr::Invalid;
    v.status = dbr::StatusUdf;
  }
}

std::optional<std::string> PvDirectory::Entry::value_text(const dbr::Written& w) const {
  std::string out;
  size_t n = w.text ? w.texts.size() : w.numbers.size();
  if (n == 0) return std::nullopt;
  auto element = [&](size_t i) {
    bool boolean = kind == Kind::Bool || kind == Kind::BoolArray;
    bool text = kind == Kind::Text || kind == Kind::TextArray;
    if (w.text) {
      if (text) x2x::to_json(std::string_view(w.texts[i]), out);
      else if (boolean) append_bool_text(w.texts[i], out);
      else out.append(w.texts[i]);
    } else if (text) {
      std::string number;
      append_number(w.numbers[i], number);
      x2x::to_json(std::string_view(number), out);
    } else if (boolean) {
      append_bool(w.numbers[i], out);
    } else {
      append_number(w.numbers[i], out);
    }
  };
  switch (kind) {
    case Kind::Button: return std::string("true");
    case Kind::LongText: {
      if (w.text) {
        x2x::to_json(std::string_view(w.texts.front()), out);
        return out;
      }
      std::string bytes;
      for (double d : w.numbers) {
        if (d == 0) break;
        bytes.push_back(static_cast<char>(static_cast<unsigned char>(d)));
      }
      x2x::to_json(std::string_view(bytes), out);
      return out;
    }
    case Kind::NumberArray: case Kind::BoolArray: case Kind::TextArray:
      out.push_back('[');
      for (size_t i = 0; i < n; ++i) {
        if (i) out.push_back(',');
        element(i);
      }
      out.push_back(']');
      return out;
    default:
      element(0);
      return out;
  }
}

#include "core/field.hpp"

#include <cmath>

#include "core/log.hpp"

FieldBase::FieldBase(std::string name) : Vertex(std::move(name)) {}
FieldBase::~FieldBase() = default;

void FieldBase::write_stamp_json(std::string& out) const { x2x::to_json(stamp(), out); }

bool FieldRange::contains(double v) const {
  if (!std::isfinite(v)) return false;
  if (zero_means_off && v == 0.0) return true;
  return (min_exclusive ? v > min : v >= min) && v <= max;
}

std::string FieldRange::describe() const {
  auto number = [](double v) { return x2x::to_json(v); };
  bool bounded_below = std::isfinite(min), bounded_above = std::isfinite(max);
  if (!bounded_below && !bounded_above) return "any finite number";
  if (!bounded_below) return "up to " + number(max);
  std::string text = (min_exclusive ? "above " : "from ") + number(min);
  if (bounded_above) text += (min_exclusive ? " up to " : " to ") + number(max);
  return zero_means_off ? "0 (off) or " + text : text;
}

void FieldBase::set_range(FieldRange range) {
  auto& a = attributes_for_update();
  a.ranged = true;
  a.range = range;
}

bool FieldBase::refuse_conversion(std::string_view text, std::string& error) const {
  // Escaped as a JSON string's inside: a text from outside never breaks a log line.
  auto quoted = x2x::to_json(x2x::trim(text).substr(0, 80));
  error = fmt::format("'{}' is not a {}", std::string_view(quoted).substr(1, quoted.size() - 2), value_type_name());
  return false;
}

bool FieldBase::check_number(double v, std::string& error) const {
  auto* r = range();
  if (!r || r->contains(v)) return true;
  error = fmt::format("{} is out of range: takes {}", x2x::to_json(v), r->describe());
  return false;
}

bool FieldBase::readonly() const {
  if (readonly_) return true;
  if (!attributes_) return false;
  const auto& p = attributes_->permissions;
  return p == "r" || p == "readonly" || p == "read";
}

void FieldBase::set_readonly(bool readonly) { readonly_ = readonly; }

FieldAttributes& FieldBase::attributes_for_update() {
  if (!attributes_) attributes_ = std::make_unique<FieldAttributes>();
  return *attributes_;
}

void FieldBase::log_conversion_failure(std::string_view text) const {
  auto shown = x2x::trim(text);
  if (shown.size() > 80) shown = shown.substr(0, 80);
  ZEL_ERROR("Can't convert '{}' to {} for '{}'", shown, value_type_name(), path());
}

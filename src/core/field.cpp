#include "core/field.hpp"

#include "core/log.hpp"

FieldBase::FieldBase(std::string name) : Vertex(std::move(name)) {}
FieldBase::~FieldBase() = default;

void FieldBase::write_stamp_json(std::string& out) const { x2x::to_json(stamp(), out); }

bool FieldBase::set_from_user(std::string_view text, std::string* error) {
  if (readonly()) {
    if (error) *error = "read-only";
    return false;
  }
  if (!read_json(text)) {
    if (error) *error = "value does not convert";
    return false;
  }
  return true;
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

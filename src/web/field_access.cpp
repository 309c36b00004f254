#include "web/field_access.hpp"

#include "core/attribute_fields.hpp"
#include "core/button_field.hpp"
#include "core/node.hpp"
#include "core/write_path.hpp"

bool FieldAccess::is_attribute(const FieldBase& field) {
  return dynamic_cast<const AttributeField<std::string>*>(&field) ||
         dynamic_cast<const AttributeField<bool>*>(&field);
}

bool FieldAccess::is_button(const FieldBase& field) { return dynamic_cast<const ButtonField*>(&field) != nullptr; }

const Node* FieldAccess::owner(const FieldBase& field) { return dynamic_cast<const Node*>(field.parent()); }

bool FieldAccess::read_only_for_users(const FieldBase& field) { return !WritePath::writable(field, WriteSource::Http); }

#include "web/field_access.hpp"

#include "core/attribute_fields.hpp"
#include "core/io/io.hpp"
#include "core/log.hpp"
#include "core/permissions.hpp"

FieldBase* FieldAccess::field_for(Vertex* vertex) {
  if (!vertex) return nullptr;
  if (vertex->is_field()) return static_cast<FieldBase*>(vertex);
  if (auto* io = dynamic_cast<IOBase*>(vertex)) return io->value_field();
  return nullptr;
}

bool FieldAccess::is_attribute(const FieldBase& field) {
  return dynamic_cast<const AttributeField<std::string>*>(&field) ||
         dynamic_cast<const AttributeField<bool>*>(&field);
}

bool FieldAccess::is_button(const FieldBase& field) { return dynamic_cast<const ButtonField*>(&field) != nullptr; }

const Node* FieldAccess::owner(const FieldBase& field) { return dynamic_cast<const Node*>(field.parent()); }

bool FieldAccess::read_only_for_users(const FieldBase& field) {
  if (is_attribute(field) || field.readonly()) return true;
  if (is_button(field)) return false;
  auto* node = owner(field);
  return node && node->readonly();
}

FieldAccess::Outcome FieldAccess::set(Vertex& tree, std::string_view path, std::string_view text,
                                      const Caller& caller, std::string& error) {
  FieldBase* field = field_for(tree.find(path));
  if (!field) {
    error = fmt::format("There is no field '{}'.", path);
    return Outcome::NotFound;
  }
  return set(*field, text, caller, error);
}

FieldAccess::Outcome FieldAccess::set(FieldBase& field, std::string_view text, const Caller& caller,
                                      std::string& error) {
  if (read_only_for_users(field)) {
    error = is_attribute(field) ? fmt::format("'{}' describes its node and cannot be set.", field.path())
                                : fmt::format("'{}' is read-only.", field.path());
    return Outcome::ReadOnly;
  }
  if (!Permissions::allows(caller.role, field)) {
    auto needed = to_string(Permissions::needed_for(field));
    error = caller.role == Role::Anonymous
                ? fmt::format("Log in to change '{}' (it needs the role {}).", field.path(), needed)
                : fmt::format("'{}' needs the role {}; '{}' is {}.", field.path(), needed, caller.who,
                              to_string(caller.role));
    return Outcome::Forbidden;
  }
  auto shown = x2x::trim(text).substr(0, 80);
  std::string old;
  if (!is_button(field)) field.write_json(old);
  std::string why;
  if (!field.set_from_user(text, &why)) {
    error = fmt::format("'{}' cannot take '{}': {} (a {} is expected).", field.path(), shown, why,
                        field.value_type_name());
    return Outcome::Refused;
  }
  if (is_button(field)) {
    ZEL_INFO("{} ({}) from {} pressed '{}'", caller.who, to_string(caller.role), caller.from, field.path());
  } else {
    std::string now;
    field.write_json(now);
    ZEL_INFO("{} ({}) from {} set '{}' from {} to {}", caller.who, to_string(caller.role), caller.from, field.path(),
             old.substr(0, 80), now.substr(0, 80));
  }
  return Outcome::Done;
}

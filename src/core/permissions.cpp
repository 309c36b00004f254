#include "core/permissions.hpp"

#include "core/button_field.hpp"
#include "core/io/io.hpp"
#include "core/node.hpp"

#include <fmt/format.h>

namespace {
// The slot holds the role plus one, so that zero means "not worked out".
constexpr uint8_t kResolved = 1;

// Installed before main() runs; the hook's slot is constant-initialised.
const bool kHooked = (WritePath::set_permission_check(&Permissions::check), true);
}  // namespace

bool Permissions::check(const Caller& caller, const FieldBase& field, std::string& reason) {
  if (caller.source != WriteSource::Http && caller.source != WriteSource::WebSocket &&
      caller.source != WriteSource::Epics)
    return true;
  auto needed = needed_for(field);
  if (at_least(caller.role, needed)) return true;
  reason = caller.role == Role::Anonymous
               ? fmt::format("log in to change '{}' (it needs the role {})", field.path(), to_string(needed))
               : fmt::format("'{}' needs the role {}, more than {}", field.path(), to_string(needed),
                             to_string(caller.role));
  return false;
}

Role Permissions::needed_for(const FieldBase& field) {
  auto& slot = field.permission_slot();
  auto kept = slot.load(std::memory_order_relaxed);
  if (kept) return static_cast<Role>(kept - kResolved);
  // Two threads may work it out at once; both find the same answer.
  Role role = resolve(field);
  slot.store(static_cast<uint8_t>(static_cast<uint8_t>(role) + kResolved), std::memory_order_relaxed);
  return role;
}

Role Permissions::resolve(const FieldBase& field) {
  if (auto* attributes = field.attributes())
    if (auto role = role_named(attributes->permissions)) return *role;
  const Node* owner = dynamic_cast<const Node*>(field.parent());
  for (Vertex* v = field.parent(); v; v = v->parent())
    if (auto* node = dynamic_cast<const Node*>(v))
      if (auto role = role_named(node->permissions())) return *role;
  if (dynamic_cast<const ButtonField*>(&field) || dynamic_cast<const IOBase*>(owner)) return Role::Operator;
  return Role::Expert;
}

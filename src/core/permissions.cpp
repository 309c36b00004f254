#include "core/permissions.hpp"

#include "core/button_field.hpp"
#include "core/io/io.hpp"
#include "core/node.hpp"

namespace {
// The slot holds the role plus one, so that zero means "not worked out".
constexpr uint8_t kResolved = 1;
}  // namespace

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

#pragma once
// Permissions: which role a write of a field needs, and whether a caller has
// it. The write path asks this after a field is known to exist and be
// writable, before the value is converted.
//
// The role needed is the nearest "permissions" attribute that names a role
// ("viewer", "operator", "expert", "admin"), looking at the field itself and
// then at its node and the node's ancestors. Without one:
//   - values of IO nodes and buttons (commands): operator;
//   - other settings of nodes (drivers, servers, managers: poll rates,
//     addresses, time-outs, that is the machine's configuration): expert.
// The administration node carries "admin" itself, so its buttons (stop,
// restart, reboot, update) need an admin.
//
// The answer is worked out once per field and kept in the field: the tree and
// its attributes do not change after start-up, and the check stays a load
// and a compare on every later write.
//
// It is the write path's permission hook (installed when the program
// starts): writes from the web and over Channel Access need the role; writes through the file system
// (the mount's modes decide who reaches it), from stores and from the
// program itself pass.
#include <string>

#include "core/field.hpp"
#include "core/role.hpp"
#include "core/write_path.hpp"

class Permissions {
 public:
  static Role needed_for(const FieldBase& field);
  static bool allows(Role caller, const FieldBase& field) { return at_least(caller, needed_for(field)); }
  // The hook: may `caller` write `field`? On refusal `reason` says why.
  static bool check(const Caller& caller, const FieldBase& field, std::string& reason);

 private:
  static Role resolve(const FieldBase& field);
};

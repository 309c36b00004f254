#pragma once
// Role: what a caller may change. Roles are ordered: each may do what the
// ones below it may. A client that has not logged in is Anonymous and reads
// only (unless the web server lets anonymous clients write as operators).
//   viewer    reads; writes only where a node's "permissions" names "viewer"
//   operator  sets values and presses the buttons of the process
//   expert    also changes the settings that configure the machine
//   admin     also stops, restarts, reboots and updates it, and manages users
#include <cstdint>
#include <optional>
#include <string_view>

enum class Role : uint8_t { Anonymous = 0, Viewer = 1, Operator = 2, Expert = 3, Admin = 4 };

// "anonymous", "viewer", "operator", "expert", "admin".
std::string_view to_string(Role role);
// The role a name gives; Anonymous is no name a file or attribute may give.
std::optional<Role> role_named(std::string_view name);

inline bool at_least(Role caller, Role needed) { return static_cast<uint8_t>(caller) >= static_cast<uint8_t>(needed); }

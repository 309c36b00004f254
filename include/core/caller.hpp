#pragma once
// Caller: who asks for a change from outside the process, for the permission
// check and the log line of every write.
#include <string>

#include "core/role.hpp"

struct Caller {
  Role role = Role::Anonymous;
  std::string who = "anonymous";  // a user or token name
  std::string from;               // a client address, "file system", ...
};

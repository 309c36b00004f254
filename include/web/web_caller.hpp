#pragma once
// WebCaller: who a web client is, as WebAccess finds it from the request's
// session cookie or token, and the write path's Caller for it.
#include <string>

#include "core/role.hpp"
#include "core/write_path.hpp"

struct WebCaller {
  Role role = Role::Anonymous;
  std::string name = "anonymous";  // a user, "token <name>", or "anonymous"
  std::string client;              // the peer's address and port
  std::string label;               // "olga (operator) 10.0.0.7:5000", as log lines name it

  static WebCaller of(Role role, std::string name, std::string client) {
    WebCaller caller{role, std::move(name), std::move(client), {}};
    caller.label = caller.name + " (" + std::string(to_string(role)) + ")";
    if (!caller.client.empty()) caller.label += " " + caller.client;
    return caller;
  }
  // For one write; lives no longer than this WebCaller.
  Caller for_write(WriteSource source) const { return {source, label, role}; }
};

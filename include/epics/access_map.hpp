#pragma once
// AccessMap: the role a Channel Access client has, from the host it connects
// from and the user name it gives. The rules are a text file
// ("<data root>/config/epics_access"), one rule a line:
//
//   # host        user     role
//   127.0.0.1     *        operator
//   console-3     alice    expert
//   *             *        viewer
//
// The host matches the client's IP address or the host name it announced
// (case does not matter); "*" matches any. The first matching rule decides.
// A role is "viewer", "operator", "expert" or "admin", or "none" for no
// access at all. A client no rule matches is a viewer: it reads everything
// and writes only what a node's "permissions" opens to viewers. Lines that do
// not parse are logged and skipped.
//
// The file is read again when its contents change (reload()), and the server
// then answers every channel's access rights anew.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/role.hpp"

class AccessMap {
 public:
  explicit AccessMap(std::string path);

  // Reads the file when its text changed since the last read; returns
  // whether the rules changed. A missing file means no rules.
  bool reload();

  // The role of a client; nothing for "none".
  std::optional<Role> role_of(std::string_view address, std::string_view host, std::string_view user) const;

  const std::string& path() const { return path_; }

 private:
  struct Rule {
    std::string host;
    std::string user;
    std::optional<Role> role;
  };
  std::string path_;
  std::optional<std::string> text_;  // as last read; nothing before the first read
  std::vector<Rule> rules_;
};

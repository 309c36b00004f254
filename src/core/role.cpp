#include "core/role.hpp"

#include <array>
#include <utility>

namespace {
constexpr std::array<std::pair<Role, std::string_view>, 5> kNames{{{Role::Anonymous, "anonymous"},
                                                                   {Role::Viewer, "viewer"},
                                                                   {Role::Operator, "operator"},
                                                                   {Role::Expert, "expert"},
                                                                   {Role::Admin, "admin"}}};
}  // namespace

std::string_view to_string(Role role) {
  for (auto& [r, name] : kNames)
    if (r == role) return name;
  return "anonymous";
}

std::optional<Role> role_named(std::string_view name) {
  for (auto& [r, n] : kNames)
    if (n == name && r != Role::Anonymous) return r;
  return std::nullopt;
}

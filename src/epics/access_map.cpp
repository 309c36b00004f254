#include "epics/access_map.hpp"

#include <fstream>
#include <sstream>

#include <boost/algorithm/string/predicate.hpp>

#include "core/log.hpp"

AccessMap::AccessMap(std::string path) : path_(std::move(path)) {}

bool AccessMap::reload() {
  std::string text;
  if (std::ifstream in(path_); in) {
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
  }
  if (text_ && *text_ == text) return false;
  text_ = text;
  rules_.clear();
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (auto hash = line.find('#'); hash != std::string::npos) line.erase(hash);
    std::istringstream words(line);
    std::string host, user, role, extra;
    if (!(words >> host)) continue;
    if (!(words >> user >> role) || (words >> extra)) {
      ZEL_ERROR("EPICS access file {} line {}: expected host, user and role", path_, number);
      continue;
    }
    Rule rule{host, user, role_named(role)};
    if (!rule.role && role != "none") {
      ZEL_ERROR("EPICS access file {} line {}: unknown role '{}'", path_, number, role);
      continue;
    }
    rules_.push_back(std::move(rule));
  }
  ZEL_INFO("EPICS access rules read from {}: {} rules", path_, rules_.size());
  return true;
}

std::optional<Role> AccessMap::role_of(std::string_view address, std::string_view host, std::string_view user) const {
  for (auto& rule : rules_) {
    bool host_matches = rule.host == "*" || rule.host == address || boost::iequals(rule.host, host);
    bool user_matches = rule.user == "*" || rule.user == user;
    if (host_matches && user_matches) return rule.role;
  }
  return Role::Viewer;
}

#include "web/sessions.hpp"

#include <algorithm>

#include "web/password_hash.hpp"

std::string Sessions::open(std::string user, Role role, Clock::time_point now) {
  auto id = PasswordHash::random_hex(32);
  std::lock_guard lock(mutex_);
  if (sessions_.size() >= kMax) drop_idle(now);
  if (sessions_.size() >= kMax) {
    auto oldest = std::min_element(sessions_.begin(), sessions_.end(),
                                   [](auto& a, auto& b) { return a.second.last_used < b.second.last_used; });
    sessions_.erase(oldest);
  }
  sessions_.emplace(id, Session{std::move(user), role, now});
  return id;
}

std::optional<Sessions::Session> Sessions::use(std::string_view id, Clock::time_point now) {
  if (id.empty()) return std::nullopt;
  std::lock_guard lock(mutex_);
  auto found = sessions_.find(std::string(id));
  if (found == sessions_.end()) return std::nullopt;
  if (now - found->second.last_used > idle_timeout_) {
    sessions_.erase(found);
    return std::nullopt;
  }
  found->second.last_used = std::max(found->second.last_used, now);
  return found->second;
}

void Sessions::close(std::string_view id) {
  std::lock_guard lock(mutex_);
  sessions_.erase(std::string(id));
}

void Sessions::close_user(std::string_view user) {
  std::lock_guard lock(mutex_);
  std::erase_if(sessions_, [&](auto& entry) { return entry.second.user == user; });
}

void Sessions::drop_idle(Clock::time_point now) {
  std::erase_if(sessions_, [&](auto& entry) { return now - entry.second.last_used > idle_timeout_; });
}

#pragma once
// Sessions: the logged-in browsers. A login gives a random session id (256
// bits, as the cookie "zel_session"); each use keeps the session alive, and
// one unused for longer than the idle time-out is gone. Logout ends it at
// once, also for the WebSocket connections opened with it, which look their
// session up again on every set. Sessions live in memory only: a restart
// logs everybody out.
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "core/role.hpp"

class Sessions {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t kMax = 10000;  // the oldest goes when a new one would pass this

  struct Session {
    std::string user;
    Role role;
    Clock::time_point last_used;
  };

  explicit Sessions(std::chrono::seconds idle_timeout) : idle_timeout_(idle_timeout) {}

  // A new session for `user`; returns its id.
  std::string open(std::string user, Role role, Clock::time_point now = Clock::now());
  // The live session of `id`, marked as used at `now`; nothing when unknown or
  // idle for too long (it is then ended).
  std::optional<Session> use(std::string_view id, Clock::time_point now = Clock::now());
  void close(std::string_view id);
  // Ends every session of a user (removed, or given a new role).
  void close_user(std::string_view user);

  std::chrono::seconds idle_timeout() const { return idle_timeout_; }

 private:
  void drop_idle(Clock::time_point now);

  std::chrono::seconds idle_timeout_;
  std::mutex mutex_;  // guards sessions_
  std::unordered_map<std::string, Session> sessions_;
};

#pragma once
// BreachLog: a client that runs into one of the web server's limits is logged
// once per limit, client address and interval; the breaches in between are
// counted and the count goes with the next line. So an attack costs a few
// lines a minute, however fast it repeats. Thread-safe.
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

class BreachLog {
 public:
  explicit BreachLog(std::chrono::steady_clock::duration interval) : interval_(interval) {}

  // Logs "Web client <address>: <what>" when this limit was not logged for
  // this address within the interval, with the number of breaches not logged.
  void report(std::string_view limit, const std::string& address, std::string_view what);

 private:
  struct Entry {
    std::chrono::steady_clock::time_point logged;
    size_t unlogged = 0;
  };

  std::chrono::steady_clock::duration interval_;
  std::mutex mutex_;  // guards entries_
  std::unordered_map<std::string, Entry> entries_;
};

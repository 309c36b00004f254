#pragma once
// RecentTexts: texts that are costly to make (deep tree descriptions), kept
// for a short while by key, so that a client asking for them again and again
// is answered from memory rather than starving the others. At most `capacity`
// texts are kept; entries older than `max_age` are made afresh. Thread-safe.
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

class RecentTexts {
 public:
  using Clock = std::chrono::steady_clock;

  RecentTexts(Clock::duration max_age, size_t capacity) : max_age_(max_age), capacity_(capacity) {}

  // The text kept under `key` if young enough, else make() (kept).
  std::string get(const std::string& key, const std::function<std::string()>& make);

 private:
  struct Entry {
    Clock::time_point made;
    std::string text;
  };

  Clock::duration max_age_;
  size_t capacity_;
  std::mutex mutex_;  // guards entries_; make() runs outside it
  std::unordered_map<std::string, Entry> entries_;
};

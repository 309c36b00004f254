#pragma once
// LogThrottle: keeps a flood of one kind of record (one place in the code)
// from drowning the log. Within each window a place writes its first
// `burst` records; the rest are counted, and the count is written as one
// summary record of that place once the window has passed. Operator events
// are never held back. Thread-safe.
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

class LogThrottle {
 public:
  struct Summary {
    std::string_view source;
    int line;
    uint64_t suppressed;
  };

  LogThrottle(std::chrono::nanoseconds window, uint64_t burst) : window_(window), burst_(burst) {}

  // Whether a record from `source`:`line` at `now` is written. Summaries of
  // places whose window has ended are appended to `due`, to be written first.
  bool admit(std::string_view source, int line, std::chrono::nanoseconds now, std::vector<Summary>& due);
  // Starts every place afresh; counts not yet summarised are dropped.
  void forget();

 private:
  struct Place {
    std::chrono::nanoseconds window_start{};
    uint64_t written = 0;
    uint64_t suppressed = 0;
  };
  void close_window(std::pair<const std::pair<std::string_view, int>, Place>& place, std::vector<Summary>& due);

  std::chrono::nanoseconds window_;
  uint64_t burst_;
  std::mutex mutex_;  // guards the members below
  // Sources are names fixed at compile time, so their views stay valid.
  std::map<std::pair<std::string_view, int>, Place> places_;
  std::chrono::nanoseconds next_sweep_{};
};

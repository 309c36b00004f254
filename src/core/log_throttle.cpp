#include "core/log_throttle.hpp"

void LogThrottle::close_window(std::pair<const std::pair<std::string_view, int>, Place>& place,
                               std::vector<Summary>& due) {
  if (place.second.suppressed) due.push_back({place.first.first, place.first.second, place.second.suppressed});
  place.second.written = 0;
  place.second.suppressed = 0;
}

void LogThrottle::forget() {
  std::lock_guard lock(mutex_);
  places_.clear();
}

bool LogThrottle::admit(std::string_view source, int line, std::chrono::nanoseconds now, std::vector<Summary>& due) {
  std::lock_guard lock(mutex_);
  // Places that went quiet with records held back get their summary with
  // the next record of any place, at most a sweep per window.
  if (now >= next_sweep_) {
    next_sweep_ = now + window_;
    for (auto& place : places_)
      if (now - place.second.window_start >= window_) close_window(place, due);
  }
  auto& place = *places_.try_emplace({source, line}).first;
  if (now - place.second.window_start >= window_) {
    close_window(place, due);
    place.second.window_start = now;
  }
  if (place.second.written < burst_) {
    ++place.second.written;
    return true;
  }
  ++place.second.suppressed;
  return false;
}

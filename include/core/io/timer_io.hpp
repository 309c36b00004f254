#pragma once
// TimerIO: measures the time since it was last restarted, in seconds on the
// steady clock (nanoseconds divided by 1e9). Its value field holds the elapsed
// time as of the last refresh(), for clients that want to see it. Made by
// code (an interlock's condition timer); not a configuration type, since
// nothing refreshes a configured one.
#include <atomic>
#include <cstdint>

#include "core/clock.hpp"
#include "core/io/io.hpp"

class TimerIO : public IO<double> {
 public:
  // Starts counting at construction.
  explicit TimerIO(const VTree& config);

  void restart() { start_ns_.store(Clock::steady_ns(), std::memory_order_relaxed); }
  double elapsed() const { return Clock::seconds_since(start_ns_.load(std::memory_order_relaxed)); }
  // Publishes the elapsed time as the value.
  void refresh() { set(elapsed()); }

 private:
  std::atomic<uint64_t> start_ns_;
};

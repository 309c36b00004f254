#pragma once
// The process-wide clocks.
//
// Stamps: every assignment of a value is stamped with wall-clock nanoseconds
// since the epoch taken from one cached reading, refreshed every millisecond by
// a ticker thread, so that stamping costs an atomic load instead of a clock
// call. Stamps advance with the steady clock from a reference point (so a step
// of the wall clock does not make them jump back); the application resets the
// reference at start-up. Zero is never a stamp: it means "never assigned".
//
// Elapsed times come from the steady clock, in nanoseconds, turned into
// seconds as a double by dividing by 1e9.
#include <atomic>
#include <cstdint>

class Clock {
 public:
  // A replaceable time source, so tests can drive time themselves.
  class Source {
   public:
    virtual ~Source() = default;
    virtual uint64_t steady_ns() = 0;
    virtual uint64_t wall_ns() = 0;
  };

  static uint64_t steady_ns();
  static uint64_t wall_ns();
  static double seconds_since(uint64_t steady_start_ns) {
    return static_cast<double>(steady_ns() - steady_start_ns) / 1e9;
  }

  // The cached stamp clock.
  static uint64_t cached_ns();
  // A stamp for a new assignment that follows `previous`: never equal to it,
  // so that two changes within one tick still count as two changes.
  static uint64_t next_stamp(uint64_t previous) {
    uint64_t now = cached_ns();
    return now > previous ? now : previous + 1;
  }
  static void refresh();
  static void reset_reference();

  // nullptr restores the system clocks. The source must outlive its use.
  static void set_source(Source* source);
};

// A source whose time only moves when told to; for tests and benchmarks.
class ManualClock : public Clock::Source {
 public:
  explicit ManualClock(uint64_t start_ns = 1'000'000'000ULL) : now_(start_ns) {}
  uint64_t steady_ns() override { return now_.load(std::memory_order_acquire); }
  uint64_t wall_ns() override { return now_.load(std::memory_order_acquire); }
  void advance_ns(uint64_t ns) {
    now_.fetch_add(ns, std::memory_order_acq_rel);
    Clock::refresh();
  }
  void advance(double seconds) { advance_ns(static_cast<uint64_t>(seconds * 1e9)); }

 private:
  std::atomic<uint64_t> now_;
};

// Installs a ManualClock for the lifetime of the guard.
class ManualClockScope {
 public:
  explicit ManualClockScope(uint64_t start_ns = 1'000'000'000ULL) : clock(start_ns) {
    Clock::set_source(&clock);
  }
  ~ManualClockScope() { Clock::set_source(nullptr); }
  ManualClock clock;
};

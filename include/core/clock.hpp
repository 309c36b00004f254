#pragma once
// The process-wide clocks.
//
// Stamps: every assignment of a value is stamped with wall-clock nanoseconds
// since the epoch. A stamp is the kernel's coarse monotonic clock (the time of
// its last tick, which the kernel keeps anyway) plus the offset of the wall
// clock from it, taken when the reference is reset. No thread of ours keeps
// it up to date: the clock costs nothing while nobody stamps, and a stamp is
// one read of the vDSO's data page where the kernel serves the coarse clocks
// there (docs/idle.md says where it does not). Its resolution is one kernel
// tick (clock_getres(CLOCK_MONOTONIC_COARSE): 4 ms at HZ=250); next_stamp()
// keeps two changes within one tick apart. Zero is never a stamp: it means
// "never assigned".
//
// Stamps never go back, across threads either: the coarse monotonic clock
// does not, and a reset of the reference only ever moves the offset forward.
// A step of the wall clock between resets does not move stamps at all; a
// step back before a reset leaves them ahead of the wall clock by the step
// until the next start. The application resets the reference at start-up.
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

  // The stamp clock: wall-clock nanoseconds at tick resolution.
  static uint64_t cached_ns();
  // A stamp for a new assignment that follows `previous`: never equal to it,
  // so that two changes within one tick still count as two changes.
  static uint64_t next_stamp(uint64_t previous) {
    uint64_t now = cached_ns();
    return now > previous ? now : previous + 1;
  }
  // Takes the wall clock's offset again; stamps move forward only.
  static void reset_reference();

  // nullptr restores the system clocks. A new source starts a new time line
  // (stamps follow its wall clock, also backwards). The source must outlive
  // its use.
  static void set_source(Source* source);
};

// A source whose time only moves when told to; for tests and benchmarks. Its
// wall clock moves with its steady clock unless stepped on its own.
class ManualClock : public Clock::Source {
 public:
  explicit ManualClock(uint64_t start_ns = 1'000'000'000ULL) : steady_(start_ns), wall_(start_ns) {}
  uint64_t steady_ns() override { return steady_.load(std::memory_order_acquire); }
  uint64_t wall_ns() override { return wall_.load(std::memory_order_acquire); }
  void advance_ns(uint64_t ns) {
    steady_.fetch_add(ns, std::memory_order_acq_rel);
    wall_.fetch_add(ns, std::memory_order_acq_rel);
  }
  void advance(double seconds) { advance_ns(static_cast<uint64_t>(seconds * 1e9)); }
  // Sets the wall clock alone, as an administrator or a time service would.
  void step_wall_ns(int64_t ns) { wall_.fetch_add(static_cast<uint64_t>(ns), std::memory_order_acq_rel); }

 private:
  std::atomic<uint64_t> steady_;
  std::atomic<uint64_t> wall_;
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

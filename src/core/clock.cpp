#include "core/clock.hpp"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <mutex>

namespace {

constexpr int64_t kNoReference = std::numeric_limits<int64_t>::min();

std::atomic<Clock::Source*> source{nullptr};
// Wall clock minus steady clock at the reference, in nanoseconds.
std::atomic<int64_t> wall_offset{kNoReference};
// Serialises resets against a change of source, so an offset taken from the
// old source never lands after the switch.
std::mutex reference_mutex;

uint64_t nanoseconds(const timespec& t) {
  return static_cast<uint64_t>(t.tv_sec) * 1'000'000'000ULL + static_cast<uint64_t>(t.tv_nsec);
}

// The kernel's time as of its last tick: no counter is read, so where the
// vDSO serves it this is a few loads from its data page.
uint64_t coarse_steady() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return nanoseconds(now);
}

uint64_t stamp_steady() {
  auto* s = source.load(std::memory_order_acquire);
  return s ? s->steady_ns() : coarse_steady();
}

// The wall clock is read first: a delay between the two reads can only make
// the offset smaller, never put stamps ahead of the wall clock.
int64_t current_offset() {
  auto wall = static_cast<int64_t>(Clock::wall_ns());
  auto steady = static_cast<int64_t>(Clock::steady_ns());
  return wall - steady;
}

// The offset only grows: a stamp taken after another (on any thread) is
// never smaller, whatever the wall clock did in between.
int64_t advance_offset_locked() {
  int64_t offset = std::max(wall_offset.load(std::memory_order_relaxed), current_offset());
  wall_offset.store(offset, std::memory_order_release);
  return offset;
}

int64_t first_offset() {
  std::lock_guard lock(reference_mutex);
  return advance_offset_locked();
}

}  // namespace

uint64_t Clock::steady_ns() {
  auto* s = source.load(std::memory_order_acquire);
  return s ? s->steady_ns()
           : static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                       std::chrono::steady_clock::now().time_since_epoch())
                                       .count());
}

uint64_t Clock::wall_ns() {
  auto* s = source.load(std::memory_order_acquire);
  return s ? s->wall_ns()
           : static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count());
}

uint64_t Clock::cached_ns() {
  uint64_t steady = stamp_steady();
  int64_t offset = wall_offset.load(std::memory_order_acquire);
  if (offset == kNoReference) [[unlikely]]
    offset = first_offset();
  uint64_t stamp = steady + static_cast<uint64_t>(offset);
  return stamp ? stamp : 1;
}

void Clock::reset_reference() {
  std::lock_guard lock(reference_mutex);
  advance_offset_locked();
}

void Clock::set_source(Source* s) {
  std::lock_guard lock(reference_mutex);
  source.store(s, std::memory_order_release);
  wall_offset.store(current_offset(), std::memory_order_release);
}

#include "core/clock.hpp"

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <chrono>
#include <thread>

namespace {

std::atomic<Clock::Source*> source{nullptr};
std::atomic<uint64_t> reference_wall{0};
std::atomic<uint64_t> reference_steady{0};
std::atomic<uint64_t> cached{0};
// Serialises refreshes against a change of source, so a tick computed from the
// old source never lands after the switch.
std::mutex refresh_mutex;

uint64_t system_steady() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}
uint64_t system_wall() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

void refresh_locked();
void reset_reference_locked();

// A replaced time source only moves when its owner advances it.
void tick() {
  std::lock_guard lock(refresh_mutex);
  if (!source.load(std::memory_order_acquire)) refresh_locked();
}

uint64_t compute_stamp() {
  uint64_t steady = Clock::steady_ns();
  return reference_wall.load(std::memory_order_relaxed) + steady -
         reference_steady.load(std::memory_order_relaxed);
}

// Refreshes the cached stamp every millisecond for the life of the process.
class Ticker {
 public:
  Ticker() {
    {
      std::lock_guard lock(refresh_mutex);
      reset_reference_locked();
    }
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "clock");
      while (!stop_.load(std::memory_order_relaxed)) {
        tick();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }
  ~Ticker() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

void ensure_ticker() {
  static Ticker ticker;
}

}  // namespace

uint64_t Clock::steady_ns() {
  auto* s = source.load(std::memory_order_acquire);
  return s ? s->steady_ns() : system_steady();
}

uint64_t Clock::wall_ns() {
  auto* s = source.load(std::memory_order_acquire);
  return s ? s->wall_ns() : system_wall();
}

uint64_t Clock::cached_ns() {
  uint64_t now = cached.load(std::memory_order_relaxed);
  if (now == 0) [[unlikely]] {
    ensure_ticker();
    now = cached.load(std::memory_order_relaxed);
  }
  return now;
}

namespace {
void refresh_locked() {
  uint64_t stamp = compute_stamp();
  // Stamps never go backwards, also not across a reference reset.
  uint64_t prev = cached.load(std::memory_order_relaxed);
  while (stamp > prev && !cached.compare_exchange_weak(prev, stamp, std::memory_order_relaxed)) {
  }
  if (prev == 0 && stamp == 0) cached.store(1, std::memory_order_relaxed);
}

void reset_reference_locked() {
  reference_steady.store(Clock::steady_ns(), std::memory_order_relaxed);
  reference_wall.store(Clock::wall_ns(), std::memory_order_relaxed);
  refresh_locked();
}
}  // namespace

void Clock::refresh() {
  std::lock_guard lock(refresh_mutex);
  refresh_locked();
}

void Clock::reset_reference() {
  // The ticker must run before the cached stamp is set: cached_ns() starts it
  // only while the stamp is still zero.
  ensure_ticker();
  std::lock_guard lock(refresh_mutex);
  reset_reference_locked();
}

void Clock::set_source(Source* s) {
  ensure_ticker();
  std::lock_guard lock(refresh_mutex);
  source.store(s, std::memory_order_release);
  // A new time line: the cached stamp follows the new source from here on.
  cached.store(0, std::memory_order_relaxed);
  reset_reference_locked();
}

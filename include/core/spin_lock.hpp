#pragma once
// A one-byte lock for the short critical sections of field values (copying a
// string or a vector). Cheaper in memory than a mutex on every field.
#include <atomic>
#include <thread>

class SpinLock {
 public:
  void lock() noexcept {
    for (int spins = 0; flag_.exchange(true, std::memory_order_acquire); ++spins) {
      while (flag_.load(std::memory_order_relaxed)) {
        if (++spins > 64) std::this_thread::yield();
      }
    }
  }
  void unlock() noexcept { flag_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> flag_{false};
};

#pragma once
// Polls a condition until it holds or the limit passes, for tests that wait
// on another thread or process; true when it held.
#include <chrono>
#include <functional>
#include <thread>

inline bool wait_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

#pragma once
// LoginLimiter: failed logins per client address. After kFailures failures
// within kWindow an address is refused further tries until the window that
// began with its first failure has passed; a success clears its count. This
// bounds password guessing to a few tries a minute per address, and the
// slow hash bounds what the tries cost the instrument.
#include <chrono>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

class LoginLimiter {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kFailures = 5;
  static constexpr std::chrono::seconds kWindow{60};
  static constexpr size_t kAddressesKept = 10000;

  // Whether `address` may try now.
  bool may_try(std::string_view address, Clock::time_point now = Clock::now());
  void failed(std::string_view address, Clock::time_point now = Clock::now());
  void succeeded(std::string_view address);

 private:
  struct Record {
    int failures = 0;
    Clock::time_point first;
  };

  std::mutex mutex_;  // guards records_
  std::unordered_map<std::string, Record> records_;
};

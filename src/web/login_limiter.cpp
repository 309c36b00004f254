#include "web/login_limiter.hpp"

bool LoginLimiter::may_try(std::string_view address, Clock::time_point now) {
  std::lock_guard lock(mutex_);
  auto found = records_.find(std::string(address));
  if (found == records_.end()) return true;
  if (now - found->second.first >= kWindow) {
    records_.erase(found);
    return true;
  }
  return found->second.failures < kFailures;
}

void LoginLimiter::failed(std::string_view address, Clock::time_point now) {
  std::lock_guard lock(mutex_);
  if (records_.size() >= kAddressesKept)
    std::erase_if(records_, [&](auto& entry) { return now - entry.second.first >= kWindow; });
  // Still full: as many addresses as this already guess in parallel.
  if (records_.size() >= kAddressesKept) records_.clear();
  auto& record = records_[std::string(address)];
  if (record.failures == 0 || now - record.first >= kWindow) record = {0, now};
  ++record.failures;
}

void LoginLimiter::succeeded(std::string_view address) {
  std::lock_guard lock(mutex_);
  records_.erase(std::string(address));
}

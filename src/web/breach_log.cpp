#include "web/breach_log.hpp"

#include <utility>

#include "core/log.hpp"

namespace {
// Entries of quiet clients are dropped when the table grows past this, so
// a scan of many addresses cannot grow it without end.
constexpr size_t kEntriesBeforePruning = 1024;
}  // namespace

void BreachLog::report(std::string_view limit, const std::string& address, std::string_view what) {
  auto now = std::chrono::steady_clock::now();
  size_t unlogged = 0;
  {
    std::lock_guard lock(mutex_);
    if (entries_.size() >= kEntriesBeforePruning)
      std::erase_if(entries_, [&](const auto& entry) { return now - entry.second.logged >= interval_; });
    if (entries_.size() >= 4 * kEntriesBeforePruning) entries_.clear();  // a scan of addresses: start over
    std::string key = std::string(limit) + ' ' + address;
    auto [entry, fresh] = entries_.try_emplace(std::move(key));
    if (!fresh && now - entry->second.logged < interval_) {
      ++entry->second.unlogged;
      return;
    }
    unlogged = std::exchange(entry->second.unlogged, 0);
    entry->second.logged = now;
  }
  if (unlogged == 0) ZEL_WARN("Web client {}: {}", address, what);
  else ZEL_WARN("Web client {}: {} ({} more times since the last report)", address, what, unlogged);
}

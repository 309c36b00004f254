#pragma once
// PushTrigger: how field changes made on any thread reach one WebSocket
// session. A change queues the number of the subscription that saw it (once
// until the session takes it) and, when the queue was empty, wakes the
// session (the wake posts to the session's strand). A push pass then visits
// only the subscriptions that changed. Once cut, nothing is woken any more: a
// session cuts its trigger when it ends, the server cuts all of them when it
// stops, before its threads and their queues go away.
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

class PushTrigger {
 public:
  using Wake = std::function<void()>;

  // Sets what a change does (post to the session's strand); ignored once cut.
  void set_wake(Wake wake) {
    std::lock_guard lock(mutex_);
    if (!cut_) wake_ = std::move(wake);
  }

  // Any thread: subscription `id` saw a change.
  void notify(uint64_t id) {
    std::lock_guard lock(mutex_);
    changed_.push_back(id);
    if (changed_.size() == 1 && wake_) wake_();
  }
  // Any thread: something other than a subscription wants a pass (a reply).
  void wake() {
    std::lock_guard lock(mutex_);
    if (wake_) wake_();
  }
  // The session: the subscriptions that changed since the last take, in the
  // order the changes came.
  void take(std::vector<uint64_t>& out) {
    std::lock_guard lock(mutex_);
    out.insert(out.end(), changed_.begin(), changed_.end());
    changed_.clear();
  }
  // No wake after this returns; a wake in progress is waited for.
  void cut() {
    std::lock_guard lock(mutex_);
    cut_ = true;
    wake_ = nullptr;
  }

 private:
  std::mutex mutex_;  // guards all below, between notify(), take() and cut()
  std::vector<uint64_t> changed_;
  Wake wake_;
  bool cut_ = false;
};

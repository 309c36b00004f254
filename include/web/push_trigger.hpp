#pragma once
// PushTrigger: how field changes made on any thread reach one WebSocket
// session. The first change after a push pass wakes the session (the wake
// posts to the session's strand); later changes find a wake pending and cost
// one atomic exchange each. Once cut, nothing is woken any more: a session
// cuts its trigger when it ends, the server cuts all of them when it stops,
// before its threads and their queues go away.
#include <atomic>
#include <functional>
#include <mutex>

class PushTrigger {
 public:
  using Wake = std::function<void()>;

  PushTrigger() = default;

  // Sets what a change does (post to the session's strand); ignored once cut.
  void set_wake(Wake wake) {
    std::lock_guard lock(mutex_);
    if (!cut_) wake_ = std::move(wake);
  }
  // Any thread: a watched field changed.
  void notify() {
    if (pending_.exchange(true, std::memory_order_acq_rel)) return;
    std::lock_guard lock(mutex_);
    if (wake_) wake_();
  }
  // The session, as a push pass begins: changes from now on wake it again.
  void rearm() { pending_.store(false, std::memory_order_release); }
  // No wake after this returns; a wake in progress is waited for.
  void cut() {
    std::lock_guard lock(mutex_);
    cut_ = true;
    wake_ = nullptr;
  }

 private:
  std::atomic<bool> pending_{false};
  std::mutex mutex_;  // guards wake_ and cut_ between notify() and cut()
  Wake wake_;
  bool cut_ = false;
};

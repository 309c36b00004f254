#pragma once
// PendingTripPoller: an error condition that outlasts its interlock's
// error_time_duration must trip even when no further event arrives. Called
// periodically, the poller re-evaluates the interlocks whose error is
// pending, each on its own context (the thread its events run on), so a trip
// is late by at most one period plus the time that context needs to get to
// the job.
#include <atomic>
#include <memory>
#include <vector>

#include "core/io/interlock_io.hpp"

class Context;

class PendingTripPoller {
 public:
  // Groups `interlocks` by their contexts; call once the tree has them.
  explicit PendingTripPoller(const std::vector<InterlockIO*>& interlocks);

  // Re-evaluates pending interlocks: at once for those of the calling
  // thread's context (or of none, or of one that is not running), by a job
  // posted to their context for the others (one job in flight per context).
  void poll();

 private:
  struct Group {
    Context* context = nullptr;
    std::vector<InterlockIO*> interlocks;
    std::atomic<bool> queued{false};
  };
  static bool any_pending(const Group& group);
  static void reevaluate(Group& group);

  std::vector<std::unique_ptr<Group>> groups_;
};

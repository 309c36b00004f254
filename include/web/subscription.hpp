#pragma once
// Subscription: one field a WebSocket client watches, known to its session by
// a number that grows with each subscription made. It keeps the key text the
// field is reported under (the field's path in double quotes) and the change
// stamp it last reported. A change of the field queues the subscription on
// the session's PushTrigger, once until the next report. In history mode it
// also collects every change between two reports (at most kHistoryMax; the
// oldest are dropped, and counted), so a client can draw a trace and knows
// when it misses changes. A field that was never assigned is reported once as
// [null,0].
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/field_subscription.hpp"
#include "web/push_trigger.hpp"

class Subscription {
 public:
  enum class Mode {
    Latest,   // the current value, once per change seen by a pass
    History,  // every change since the last report
  };
  static constexpr size_t kHistoryMax = 64;

  Subscription(uint64_t id, FieldBase& field, Mode mode, const std::shared_ptr<PushTrigger>& trigger);

  uint64_t id() const { return id_; }
  FieldBase& field() const { return *field_; }
  Mode mode() const { return mode_; }
  const std::string& key() const { return key_; }

  // Whether the field changed since the last report.
  bool changed() const;
  // For a pass that took this subscription from the queue: whether it has
  // something to report. Changes from now on queue it again.
  bool due();
  // Appends the report: key text, ":", and the array of samples, each
  // [value text,change stamp].
  void write_report(std::string& out);
  // The next pass reports the current value again (a repeated subscribe).
  void report_again();
  // History mode: how many changes were dropped before the samples of the
  // last report (more than kHistoryMax came between two reports).
  uint64_t dropped() const { return last_dropped_; }

  // One sample: "[" value text "," stamp "]".
  static void write_sample(const FieldBase& field, std::string& out);

 private:
  // Shared with the field's listener, which may run after the subscription
  // is gone.
  struct Watch {
    std::atomic<bool> queued{false};
    std::mutex mutex;  // guards samples: changes arrive on the changing thread
    // A vector, not a deque: an idle subscription then holds no block at all
    // (a deque allocates one on construction), and 64 short strings move fast.
    std::vector<std::string> samples;
    uint64_t dropped = 0;  // changes pushed out of samples since the last report
  };

  uint64_t id_;
  FieldBase* field_;
  Mode mode_;
  std::string key_;
  uint64_t reported_stamp_ = 0;
  bool first_report_pending_ = false;  // latest mode: report even a never-assigned field
  uint64_t last_dropped_ = 0;
  std::shared_ptr<Watch> watch_;
  std::shared_ptr<PushTrigger> trigger_;
  FieldSubscription listener_;
};

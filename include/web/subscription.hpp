#pragma once
// Subscription: one field a WebSocket client watches. It keeps the key text
// the field is reported under (the field's path in double quotes) and the
// change stamp it last reported. In history mode it also collects every
// change between two pushes (at most kHistoryMax; older ones are dropped), so
// a client can draw a trace without missing fast changes.
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "core/field_subscription.hpp"
#include "web/push_trigger.hpp"

class Subscription {
 public:
  enum class Mode {
    Latest,   // the current value, once per change seen by a pass
    History,  // every change since the last push
  };
  static constexpr size_t kHistoryMax = 64;

  Subscription(FieldBase& field, Mode mode, const std::shared_ptr<PushTrigger>& trigger);

  FieldBase& field() const { return *field_; }
  Mode mode() const { return mode_; }
  const std::string& key() const { return key_; }

  // Whether the field changed since the last report.
  bool changed() const;
  // Appends the report: key text, ":", and the array of samples; each sample
  // is [value text,change stamp].
  void write_report(std::string& out);
  // The next pass reports the current value again (a repeated subscribe).
  void report_again();

  // One sample: "[" value text "," stamp "]".
  static void write_sample(const FieldBase& field, std::string& out);

 private:
  struct History {
    std::mutex mutex;  // changes arrive on the changing thread, reports on the session's
    std::deque<std::string> samples;
  };

  FieldBase* field_;
  Mode mode_;
  std::string key_;
  uint64_t reported_stamp_ = 0;
  std::shared_ptr<History> history_;
  FieldSubscription watch_;
};

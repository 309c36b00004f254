#include "web/subscription.hpp"

#include <utility>

#include <nlohmann/json.hpp>

Subscription::Subscription(uint64_t id, FieldBase& field, Mode mode, const std::shared_ptr<PushTrigger>& trigger)
    : id_(id),
      field_(&field),
      mode_(mode),
      key_(nlohmann::json(field.path()).dump()),
      watch_(std::make_shared<Watch>()),
      trigger_(trigger) {
  listener_ = FieldSubscription(field, [id, mode, trigger, watch = watch_, f = field_] {
    if (mode == Mode::History) {
      // The sample is taken on the changing thread, so no change goes unseen.
      std::string sample;
      write_sample(*f, sample);
      std::lock_guard lock(watch->mutex);
      watch->samples.push_back(std::move(sample));
      if (watch->samples.size() > kHistoryMax) {
        watch->samples.erase(watch->samples.begin());
        ++watch->dropped;
      }
    }
    if (!watch->queued.exchange(true, std::memory_order_acq_rel)) trigger->notify(id);
  });
  // The first push carries the current value.
  report_again();
}

void Subscription::write_sample(const FieldBase& field, std::string& out) {
  // A field never assigned has no value to show yet: null, stamp 0.
  if (!field.assigned()) {
    out.append("[null,0]");
    return;
  }
  out.push_back('[');
  field.write_json(out);
  out.push_back(',');
  field.write_stamp_json(out);
  out.push_back(']');
}

bool Subscription::due() {
  // Cleared before the field is read: a change from here on queues it again.
  watch_->queued.store(false, std::memory_order_release);
  return changed();
}

bool Subscription::changed() const {
  if (mode_ == Mode::Latest) return field_->stamp() != reported_stamp_ || first_report_pending_;
  std::lock_guard lock(watch_->mutex);
  return !watch_->samples.empty();
}

void Subscription::write_report(std::string& out) {
  out.append(key_);
  out.append(":[");
  if (mode_ == Mode::Latest) {
    // The stamp is taken before the value: a change in between is reported
    // again by the next pass, never lost.
    reported_stamp_ = field_->stamp();
    first_report_pending_ = false;
    write_sample(*field_, out);
  } else {
    std::vector<std::string> samples;
    {
      std::lock_guard lock(watch_->mutex);
      samples.swap(watch_->samples);
      last_dropped_ = std::exchange(watch_->dropped, 0);
    }
    bool first = true;
    for (auto& s : samples) {
      if (!first) out.push_back(',');
      first = false;
      out.append(s);
    }
  }
  out.push_back(']');
}

void Subscription::report_again() {
  if (mode_ == Mode::Latest) {
    reported_stamp_ = 0;
    first_report_pending_ = true;
  } else {
    std::string sample;
    write_sample(*field_, sample);
    std::lock_guard lock(watch_->mutex);
    if (watch_->samples.empty()) watch_->samples.push_back(std::move(sample));
  }
  if (!watch_->queued.exchange(true, std::memory_order_acq_rel)) trigger_->notify(id_);
}

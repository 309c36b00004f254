#include "web/subscription.hpp"

#include <nlohmann/json.hpp>

Subscription::Subscription(FieldBase& field, Mode mode, const std::shared_ptr<PushTrigger>& trigger)
    : field_(&field), mode_(mode), key_(nlohmann::json(field.path()).dump()) {
  if (mode_ == Mode::Latest) {
    watch_ = FieldSubscription(field, [trigger] { trigger->notify(); });
    return;
  }
  history_ = std::make_shared<History>();
  // The sample is taken on the changing thread, so no change goes unseen.
  watch_ = FieldSubscription(field, [trigger, history = history_, f = field_] {
    std::string sample;
    write_sample(*f, sample);
    {
      std::lock_guard lock(history->mutex);
      history->samples.push_back(std::move(sample));
      if (history->samples.size() > kHistoryMax) history->samples.pop_front();
    }
    trigger->notify();
  });
  // The value at the time of subscribing starts the history.
  if (field.assigned()) {
    std::string sample;
    write_sample(field, sample);
    history_->samples.push_back(std::move(sample));
  }
}

void Subscription::write_sample(const FieldBase& field, std::string& out) {
  out.push_back('[');
  field.write_json(out);
  out.push_back(',');
  field.write_stamp_json(out);
  out.push_back(']');
}

bool Subscription::changed() const {
  if (mode_ == Mode::Latest) return field_->stamp() != reported_stamp_;
  std::lock_guard lock(history_->mutex);
  return !history_->samples.empty();
}

void Subscription::write_report(std::string& out) {
  out.append(key_);
  out.append(":[");
  if (mode_ == Mode::Latest) {
    // The stamp is taken before the value: a change in between is reported
    // again by the next pass, never lost.
    reported_stamp_ = field_->stamp();
    write_sample(*field_, out);
  } else {
    std::deque<std::string> samples;
    {
      std::lock_guard lock(history_->mutex);
      samples.swap(history_->samples);
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
    return;
  }
  std::string sample;
  write_sample(*field_, sample);
  std::lock_guard lock(history_->mutex);
  history_->samples.push_back(std::move(sample));
}

#include "core/component.hpp"

#include <cmath>

#include "core/log.hpp"

ZEL_REGISTER_NODE("component", Component);

Component::Component(const VTree& config) : Node(config) {}

// The staged stop ends the periodic work (stop0); the context may be gone by
// the time a component is destroyed.
Component::~Component() = default;

std::string Component::render_html() const {
  return fmt::format("<zel-component path=\"{}\" type=\"{}\"></zel-component>", path(), type());
}

struct Component::PollState {
  std::mutex mutex;  // guards the fields below; rate changes come from any thread
  ValueField<double>* rate = nullptr;
  Context* context = nullptr;
  Context::TimerId timer = 0;
  bool started = false;
};

void Component::enable_poll(const VTree& config, double rate_hz) {
  poll_ = std::make_unique<PollState>();
  auto poll_config = config.child_or_empty("poll");
  auto& poll_node = add_node<Node>(config, "poll");
  auto& rate = poll_node.add_setting<ValueField<double>>(poll_config, "rate");
  if (!rate.assigned()) rate.set(rate_hz);
  poll_node.restrict_setting(poll_config, rate, kPollRange, rate_hz);
  rate.attributes_for_update().units = "Hz";
  poll_->rate = &rate;
  rate.listen([this] { schedule_poll(); });
}

double Component::poll_rate() const { return poll_ ? poll_->rate->get() : 0.0; }

void Component::start() {
  if (!poll_) return;
  {
    std::lock_guard lock(poll_->mutex);
    poll_->started = true;
    poll_->context = context();
  }
  schedule_poll();
}

void Component::schedule_poll() {
  if (!poll_) return;
  std::lock_guard lock(poll_->mutex);
  if (!poll_->started || !poll_->context) return;
  if (poll_->timer) poll_->context->cancel(poll_->timer);
  poll_->timer = 0;
  double rate = poll_->rate->get();
  if (!(rate > 0.0) || !std::isfinite(rate)) return;
  auto period = std::chrono::nanoseconds(static_cast<int64_t>(1e9 / rate));
  poll_->timer = poll_->context->every(period, [this] { poll(); });
}

void Component::stop(StopStage stage) {
  if (stage != StopStage::Stop0 || !poll_) return;
  std::lock_guard lock(poll_->mutex);
  if (poll_->timer) poll_->context->cancel(poll_->timer);
  poll_->timer = 0;
  poll_->started = false;
}

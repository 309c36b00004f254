#include "core/pulse.hpp"

#include <cmath>

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("pulse", Pulse);

Pulse::Pulse(const VTree& config)
    : CtxComp(config),
      rate_(add_setting<ValueField<double>>(config, "rate")),
      count_(add<ValueField<unsigned long long>>("count")) {
  if (!rate_.assigned()) rate_.set(1.0);
  restrict_setting(config, rate_, Component::kPollRange, 1.0);
  rate_.attributes_for_update().units = "Hz";
  count_.set_readonly(true);
  set_default("label", std::string("Pulse"));
  set_default("icon", std::string("pulse"));
  set_default("detail", std::string("The system's heartbeat: counts at the pulse rate."));
  // Timers are rescheduled on the pulse's own thread.
  rate_.listen([this] {
    if (running()) post([this] { schedule(); });
  });
}

void Pulse::start() {
  CtxComp::start();
  post([this] { schedule(); });
}

void Pulse::schedule() {
  if (auto id = timer_.exchange(0)) cancel(id);
  double hz = rate_.get();
  if (!(hz > 0.0) || !std::isfinite(hz)) return;
  timer_ = every(std::chrono::nanoseconds(static_cast<int64_t>(1e9 / hz)), [this] { count_.set(count_.get() + 1); });
}

void Pulse::stop(StopStage stage) {
  if (stage == StopStage::Stop0) {
    if (auto id = timer_.exchange(0)) cancel(id);
  }
  CtxComp::stop(stage);
}

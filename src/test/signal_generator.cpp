#include "test/signal_generator.hpp"

#include <cmath>
#include <numbers>

#include "core/clock.hpp"

ZEL_REGISTER_NODE("signal_generator", SignalGenerator);

SignalGenerator::SignalGenerator(const VTree& config)
    : Component(config),
      enabled_(add_setting<ValueField<bool>>(config, "enabled")),
      amplitude_(add_setting<ValueField<double>>(config, "amplitude")),
      period_(add_setting<ValueField<double>>(config, "period")),
      value_(add<ValueField<double>>("value")),
      restarts_(add<ValueField<unsigned int>>("restarts")) {
  describe("Signal Generator", "A test source: a sine wave at the poll rate.", "pulse");
  set_default("confirm", std::string("Restart the test signal from zero?"));
  if (!enabled_.assigned()) enabled_.set(true);
  if (!amplitude_.assigned()) amplitude_.set(1.0);
  if (!period_.assigned()) period_.set(10.0);
  period_.attributes_for_update().units = "s";
  value_.attributes_for_update().units = units();
  value_.set_readonly(true);
  restarts_.set_readonly(true);
  value_.set(0.0);
  restarts_.set(0);
  add<ButtonField>("restart_button", "Restart", [this] { restart(); });
  enable_poll(config, 10.0);
}

void SignalGenerator::start() {
  phase_start_ns_ = Clock::steady_ns();
  Component::start();
}

void SignalGenerator::restart() {
  phase_start_ns_ = Clock::steady_ns();
  restarts_.set(restarts_.get() + 1);
  value_.set(0.0);
}

void SignalGenerator::poll() {
  if (!enabled_.get()) return;
  double period = period_.get();
  if (!(period > 0.0)) return;
  double t = Clock::seconds_since(phase_start_ns_);
  value_.set(amplitude_.get() * std::sin(2.0 * std::numbers::pi * t / period));
}

#pragma once
// SignalGenerator ("signal_generator"): a built-in test source. While
// "enabled", it writes a sine wave of "amplitude" and "period" (seconds) into
// its read-only "value" at its poll rate ("poll/rate", default 10 Hz), so
// clients, demos and load tests have values that move. "restart_button"
// starts the wave again from zero; it asks for confirmation first
// ("confirm"), and "restarts" counts how often it was pressed.
#include "core/component.hpp"

class SignalGenerator : public Component {
 public:
  explicit SignalGenerator(const VTree& config);

  void start() override;
  void poll() override;
  void restart();

  ValueField<double>& value() const { return value_; }

 private:
  ValueField<bool>& enabled_;
  ValueField<double>& amplitude_;
  ValueField<double>& period_;
  ValueField<double>& value_;
  ValueField<unsigned int>& restarts_;
  std::atomic<uint64_t> phase_start_ns_{0};
};

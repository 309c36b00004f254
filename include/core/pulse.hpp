#pragma once
// Pulse: the system's heartbeat, visible to every client. It counts at
// "pulse/rate" (hertz) on its own context, so a frozen count means a stuck
// system.
#include "core/ctx_comp.hpp"
#include "core/io/io.hpp"

class Pulse : public CtxComp {
 public:
  explicit Pulse(const VTree& config);

  void start() override;
  void stop(StopStage stage) override;

  ValueField<double>& rate() const { return rate_; }
  ValueField<unsigned long long>& count() const { return count_; }

 private:
  void schedule();

  ValueField<double>& rate_;
  ValueField<unsigned long long>& count_;
  std::atomic<TimerId> timer_{0};  // touched only on the pulse's own thread and at stop0
};

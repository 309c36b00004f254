#include "test/slow_write.hpp"

#include <chrono>
#include <thread>

ZEL_REGISTER_NODE("slow_write", SlowWrite);

SlowWrite::SlowWrite(const VTree& config)
    : Component(config),
      hold_seconds_(add_setting<ValueField<double>>(config, "hold_seconds")),
      value_(add<ValueField<double>>("value", 0.0)) {
  describe("Slow write", "Holds its context for a while at every write of its value.", "warning");
  hold_seconds_.set_readonly(true);
  if (!hold_seconds_.assigned()) hold_seconds_.set(2.0);
  value_.on_written([this] { std::this_thread::sleep_for(std::chrono::duration<double>(hold_seconds_.get())); });
}

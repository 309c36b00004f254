#include "test/hang_on_destroy.hpp"

#include <chrono>
#include <thread>

#include "core/log.hpp"

ZEL_REGISTER_NODE("hang_on_destroy", HangOnDestroy);

HangOnDestroy::HangOnDestroy(const VTree& config)
    : Component(config), hang_seconds_(add_setting<ValueField<double>>(config, "hang_seconds")) {
  if (!hang_seconds_.assigned()) hang_seconds_.set(3600);
  describe("Hang on destroy", "Takes its time to be destroyed.", "warning");
  set_default("hidden", true);
}

HangOnDestroy::~HangOnDestroy() {
  ZEL_INFO("Hanging on destroy for {} s", hang_seconds_.get());
  std::this_thread::sleep_for(std::chrono::duration<double>(hang_seconds_.get()));
}

#include "test/hang_on_destroy.hpp"

#include <chrono>
#include <thread>

#include "core/log.hpp"

ZEL_REGISTER_NODE("hang_on_destroy", HangOnDestroy);

HangOnDestroy::HangOnDestroy(const VTree& config)
    : Component(config),
      hang_seconds_(add_setting<ValueField<double>>(config, "hang_seconds")),
      hang_at_(add_setting<ValueField<std::string>>(config, "hang_at")) {
  if (!hang_seconds_.assigned()) hang_seconds_.set(3600);
  if (!hang_at_.assigned()) hang_at_.set("destroy");
  describe("Hang on destroy", "Takes its time to be destroyed.", "warning");
  set_default("hidden", true);
}

HangOnDestroy::~HangOnDestroy() {
  if (hang_at_.get() == "destroy") hang();
}

void HangOnDestroy::stop(StopStage stage) {
  Component::stop(stage);
  if (stage == StopStage::Stop0 && hang_at_.get() == "stop0") hang();
}

void HangOnDestroy::hang() {
  ZEL_INFO("Hanging on destroy for {} s", hang_seconds_.get());
  std::this_thread::sleep_for(std::chrono::duration<double>(hang_seconds_.get()));
}

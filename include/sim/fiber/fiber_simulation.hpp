#pragma once
// FiberSimulation ("fiber_simulation"): modules on a simulated fiber loop.
// It gives the PRU simulation named by `simulation` (a tree path, default
// "pru_simulation") a LoopModel as the firmware of its fiber program, with
// the modules at the addresses of `modules` ("1 2 3"); those at the
// addresses of `foreign` identify as a board of another type. `unplugged` lists the
// addresses of modules pulled off the loop (write "2" to unplug module 2,
// "" to plug all back); `loopback` puts a loopback plug in place of the
// modules; the buttons ask for faults in the next slow reply or for line
// noise.
#include <memory>

#include "core/component.hpp"
#include "sim/fiber/loop_model.hpp"

class FiberSimulation : public Component {
 public:
  explicit FiberSimulation(const VTree& config);

  void init() override;
  void poll() override;

  LoopModel& model() { return *model_; }

 private:
  void apply_unplugged();

  ValueField<std::string>& simulation_;
  ValueField<std::string>& modules_;
  ValueField<std::string>& unplugged_;
  ValueField<bool>& loopback_;
  ValueField<unsigned long long>& replies_;
  std::vector<uint8_t> addresses_;
  std::shared_ptr<LoopModel> model_;
};

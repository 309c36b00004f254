#pragma once
// I2CSimulation: the "sim" back end of I2CBus. A bus configured with
// device="sim" gets a simulated adapter carrying a model of each chip
// configured beneath it, at the chip's address, and this node ("simulation",
// beneath the bus) to inject faults from any client: `stuck` holds the bus;
// per chip, `answering` false stops its acknowledgements and `corrupt` damages
// its replies. A clock generator's node also shows `output_hz`, the frequency
// its registers program.
#include <memory>

#include "core/node.hpp"
#include "sim/i2c/sim_bus.hpp"

class I2CSimulation : public Node {
 public:
  I2CSimulation(const VTree& config, const VTree& bus_config);

  SimBus& bus() const { return *bus_; }
  std::shared_ptr<SimBus> shared_bus() const { return bus_; }

  // Registers the "sim" back end with I2CBus.
  static void register_backend();

 private:
  void add_chip_controls(const std::string& name, SimChip& chip);

  std::shared_ptr<SimBus> bus_;
};

#include "sim/i2c/i2c_simulation.hpp"

#include <algorithm>
#include <cctype>

#include "core/log.hpp"
#include "devices/i2c_bus.hpp"
#include "sim/i2c/sim_eeprom.hpp"
#include "sim/i2c/sim_ft5x26.hpp"
#include "sim/i2c/sim_port_expanders.hpp"
#include "sim/i2c/sim_si5351.hpp"
#include "sim/i2c/sim_us2066.hpp"

namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

// The model for a configured chip type; null for types that are no chip.
std::unique_ptr<SimChip> model_for(const std::string& type) {
  auto t = lower(type);
  if (t == "eeprom") return std::make_unique<SimEEPROM>();
  if (t == "pcf8574") return std::make_unique<SimPCF8574>();
  if (t == "pca9536") return std::make_unique<SimPCA9536>();
  if (t == "si5351") return std::make_unique<SimSI5351>();
  if (t == "us2066" || t == "oled64" || t == "id_screen" || t == "idscreen") return std::make_unique<SimUS2066>();
  if (t == "ft5x26") return std::make_unique<SimFT5X26>();
  return nullptr;
}

const bool registered = (I2CSimulation::register_backend(), true);

}  // namespace

void I2CSimulation::register_backend() {
  I2CBus::register_backend("sim", [](I2CBus& bus, const VTree& config) -> std::unique_ptr<I2CTransport> {
    // Opened again: the same simulated chips stay on the bus.
    if (auto* existing = dynamic_cast<I2CSimulation*>(bus.child("simulation")))
      return std::make_unique<SimTransport>(existing->shared_bus());
    auto& simulation = bus.add_node<I2CSimulation>(config, "simulation", config);
    return std::make_unique<SimTransport>(simulation.shared_bus());
  });
}

I2CSimulation::I2CSimulation(const VTree& config, const VTree& bus_config)
    : Node(config), bus_(std::make_shared<SimBus>()) {
  describe("I2C simulation", "Simulated chips on this bus, with faults to inject.", "lab-test");
  auto& stuck = add<ValueField<bool>>("stuck");
  stuck.attributes_for_update().detail = "A slave holds the bus: every transfer fails until the bus recovers.";
  stuck.set(false);
  stuck.listen([this, &stuck] { bus_->stuck = stuck.get(); });
  bus_->on_recovered = [&stuck] { stuck.set(false); };
  for (auto& chip_config : bus_config.children()) {
    auto model = model_for(chip_config.type());
    unsigned address = 0;
    if (!model || !chip_config.get("address", address) || address > 0x7F) continue;
    auto& chip = bus_->attach(static_cast<uint8_t>(address), std::move(model));
    add_chip_controls(chip_config.name(), chip);
  }
}

void I2CSimulation::add_chip_controls(const std::string& name, SimChip& chip) {
  auto& node = add_node<Node>(VTree(name), name);
  node.describe(name, "Faults of this chip's model.", "lab-test");
  auto& answering = node.add<ValueField<bool>>("answering");
  answering.attributes_for_update().detail = "False: the chip acknowledges nothing, as if it were gone.";
  answering.set(true);
  answering.listen([&chip, &answering] { chip.answering = answering.get(); });
  auto& corrupt = node.add<ValueField<bool>>("corrupt");
  corrupt.attributes_for_update().detail = "True: every byte the chip sends arrives damaged.";
  corrupt.set(false);
  corrupt.listen([&chip, &corrupt] { chip.corrupt = corrupt.get(); });
  if (auto* clock = dynamic_cast<SimSI5351*>(&chip)) {
    auto& output = node.add<ValueField<double>>("output_hz", 0.0);
    output.set_readonly(true);
    output.attributes_for_update().units = "Hz";
    output.attributes_for_update().detail = "Output 0's frequency as the chip's registers program it.";
    clock->after_transaction = [clock, &output] { output.set(clock->output_hz()); };
  }
}

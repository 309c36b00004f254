#include "fiber/avocet_slave.hpp"

#include <cstring>
#include <string>

ZEL_REGISTER_NODE("avocet_slave", AvocetSlave);

AvocetSlave::AvocetSlave(const VTree& config) : FiberSlave(config) {
  describe("Avocet", "An IO module on a fiber loop: four analog and four digital inputs, four outputs.", "chip");
  for (size_t i = 0; i < 4; ++i) {
    auto n = std::to_string(i);
    analog_[i] = &add_node<AnalogIO>(config, "analog_" + n);
    analog_[i]->set_default("readonly", true);
    digital_[i] = &add_node<DigitalIO>(config, "digital_" + n);
    digital_[i]->set_default("readonly", true);
    output_[i] = &add_node<DigitalIO>(config, "output_" + n);
    if (!output_[i]->assigned()) output_[i]->set(false);
  }
}

std::vector<uint8_t> AvocetSlave::fast_output() {
  uint8_t bits = 0;
  for (size_t i = 0; i < 4; ++i)
    if (output_[i]->assigned() && output_[i]->get()) bits |= static_cast<uint8_t>(1u << i);
  return {bits};
}

void AvocetSlave::fast_input(const uint8_t* payload, size_t length) {
  if (length < kInputBytes) return;
  for (size_t i = 0; i < 4; ++i) {
    float v;
    std::memcpy(&v, payload + 4 * i, sizeof v);
    analog_[i]->set(v);
  }
  for (size_t i = 0; i < 4; ++i) digital_[i]->set((payload[16] >> i) & 1);
}

#include "devices/pca9536.hpp"

ZEL_REGISTER_NODE("pca9536", PCA9536);

PCA9536::PCA9536(const VTree& config)
    : I2CSlave(config),
      input_(add<ValueField<unsigned char>>("input")),
      output_(add_setting<ValueField<unsigned char>>(config, "output")),
      direction_(add_setting<ValueField<unsigned char>>(config, "direction")) {
  describe("PCA9536", "A 4 channel digital port expander.", "exchange");
  input_.set_readonly(true);
  input_.attributes_for_update().detail = "The four pins' levels as last read.";
  output_.attributes_for_update().detail = "The levels driven on the pins configured as outputs.";
  direction_.attributes_for_update().detail = "One bit per pin: 1 input, 0 output.";
  if (!direction_.assigned()) direction_.set(0x0F);
  enable_poll(config, 10);
}

void PCA9536::poll() {
  uint8_t pins = 0;
  if (ZEL_FAULT(faults_, read_register(kInput, pins), "I2C read failure", "readInput()")) input_.set(pins & 0x0F);
  ZEL_FAULT(faults_, write_register(kOutput, output_.get() & 0x0F), "I2C write failure", "writeOutput()");
  ZEL_FAULT(faults_, write_register(kConfiguration, direction_.get() | 0xF0), "I2C write failure", "writeDirection()");
}

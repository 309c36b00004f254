#include "devices/pcf8574.hpp"

ZEL_REGISTER_NODE("pcf8574", PCF8574);

PCF8574::PCF8574(const VTree& config)
    : I2CSlave(config),
      state_(add<ValueField<unsigned char>>("state")),
      command_(add_setting<ValueField<unsigned char>>(config, "command")) {
  describe("PCF8574", "An 8 channel digital port expander.", "exchange");
  state_.set_readonly(true);
  state_.attributes_for_update().detail = "The port's pin levels as last read.";
  command_.attributes_for_update().detail = "The byte written to the port latch; a 1 lets the pin be an input.";
  if (!command_.assigned()) command_.set(0xFF);
  add_node<ChipTest>(config, "read_write", "Read and write", "Reads and writes to the PCF8574 port expander over I2C.",
                     "ZEL-107", [this] { return read_and_write(); });
  enable_poll(config, 10);
}

void PCF8574::poll() {
  ZEL_FAULT(faults_, readState(), "I2C read failure", "readState()");
  ZEL_FAULT(faults_, sendCommand(), "I2C write failure", "sendCommand()");
}

bool PCF8574::readState() {
  uint8_t byte = 0;
  if (!read(&byte, 1, true)) return false;
  state_.set(byte);
  return true;
}

bool PCF8574::sendCommand() { return write({command_.get()}); }

// A pin whose latch bit is 0 is driven low and must read low.
std::string PCF8574::read_and_write() {
  if (!ZEL_FAULT(faults_, sendCommand(), "I2C write failure", "sendCommand()")) return "I2C write failure";
  if (!ZEL_FAULT(faults_, readState(), "I2C read failure", "readState()")) return "I2C read failure";
  uint8_t driven_low = static_cast<uint8_t>(~command_.get());
  if (state_.get() & driven_low) return "A pin driven low reads high";
  return {};
}

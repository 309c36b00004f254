#pragma once
// PCF8574 ("pcf8574"): an 8-bit quasi-bidirectional port expander. Each poll
// reads the port's pin levels into `state` and writes `command` to the port
// latch; a latch bit of 1 lets the pin be read as an input (weak pull-up).
#include "devices/chip_test.hpp"
#include "devices/i2c_slave.hpp"

class PCF8574 : public I2CSlave {
 public:
  explicit PCF8574(const VTree& config);

  void poll() override;
  bool readState();
  bool sendCommand();

  ValueField<unsigned char>& state() const { return state_; }
  ValueField<unsigned char>& command() const { return command_; }

 private:
  std::string read_and_write();

  ValueField<unsigned char>& state_;
  ValueField<unsigned char>& command_;
};

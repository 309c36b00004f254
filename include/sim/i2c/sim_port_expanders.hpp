#pragma once
// Port expander models. Outside the chip, a pin may be pulled low
// (`pull_low`, one bit per pin), as a switch to ground would.
//
// SimPCF8574: quasi-bidirectional: each written byte sets the latch; a latch
// bit of 1 is a weak pull-up that the outside can pull low, 0 drives low. A
// read returns the pin levels.
//
// SimPCA9536: registers 0 input, 1 output, 2 polarity, 3 configuration (1 =
// input, all inputs at power-up); an input pin floats high unless pulled low.
#include "sim/i2c/sim_chip.hpp"

class SimPCF8574 : public SimChip {
 public:
  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> bytes) override;

  uint8_t latch() const { return latch_; }
  uint8_t pins() const { return latch_ & ~pull_low; }
  std::atomic<uint8_t> pull_low{0};

 private:
  std::atomic<uint8_t> latch_{0xFF};
};

class SimPCA9536 : public SimRegisterChip {
 public:
  SimPCA9536();
  uint8_t pins() const;
  std::atomic<uint8_t> pull_low{0};

 protected:
  uint8_t on_read(uint8_t index) override;
  void on_write(uint8_t index, uint8_t value) override;

 private:
  uint8_t pins_locked() const;
};

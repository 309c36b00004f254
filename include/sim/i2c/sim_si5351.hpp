#pragma once
// SimSI5351: the clock generator's register file with a 25 MHz crystal.
// Register 0 (device status) shows SYS_INIT (bit 7) for a while after power-up,
// LOL_B (bit 6) and LOL_A (bit 5): PLL A is out of lock until it is reset
// (register 177) with a valid feedback divider, and whenever a test says the
// reference is lost. The frequency of output 0 is computed from the registers.
#include <chrono>

#include "sim/i2c/sim_chip.hpp"

class SimSI5351 : public SimRegisterChip {
 public:
  static constexpr double kCrystal_hz = 25e6;

  explicit SimSI5351(std::chrono::milliseconds power_up = std::chrono::milliseconds(300));

  // Output 0's frequency in hertz; 0 when it is disabled or powered down.
  double output_hz() const;
  double pll_a_hz() const;

  std::atomic<bool> reference_lost{false};
  std::atomic<bool> pll_b_unlocked{false};

 protected:
  uint8_t on_read(uint8_t index) override;
  void on_write(uint8_t index, uint8_t value) override;

 private:
  double pll_a_locked() const;  // the multiplier, or 0 when it is out of range
  std::chrono::steady_clock::time_point ready_at_;
  bool pll_a_reset_ = false;
};

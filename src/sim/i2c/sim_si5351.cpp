#include "sim/i2c/sim_si5351.hpp"

namespace {

// A MultiSynth's parameters from its eight registers starting at `base`:
// divider = (P1 + 512 + P2 / P3) / 128.
double divider(const std::array<uint8_t, 256>& r, int base) {
  uint32_t p3 = (uint32_t(r[base + 5] >> 4) << 16) | (r[base] << 8) | r[base + 1];
  uint32_t p1 = (uint32_t(r[base + 2] & 3) << 16) | (r[base + 3] << 8) | r[base + 4];
  uint32_t p2 = (uint32_t(r[base + 5] & 0xF) << 16) | (r[base + 6] << 8) | r[base + 7];
  if (p3 == 0) return 0;
  return (p1 + 512.0 + double(p2) / p3) / 128.0;
}

}  // namespace

SimSI5351::SimSI5351(std::chrono::milliseconds power_up) : ready_at_(std::chrono::steady_clock::now() + power_up) {
  regs_[3] = 0x00;
  for (int r = 16; r <= 23; ++r) regs_[r] = 0x80;  // outputs powered down
}

double SimSI5351::pll_a_locked() const {
  double m = divider(regs_, 26);
  return (m >= 15 && m <= 90) ? m : 0;
}

uint8_t SimSI5351::on_read(uint8_t index) {
  if (index != 0) return regs_[index];
  uint8_t status = 0;
  if (std::chrono::steady_clock::now() < ready_at_) status |= 0x80;
  if (pll_b_unlocked) status |= 0x40;
  if (!pll_a_reset_ || !pll_a_locked() || reference_lost) status |= 0x20;
  return status;
}

void SimSI5351::on_write(uint8_t index, uint8_t value) {
  if (index == 0) return;  // read-only
  if (index == 177) {
    if (value & 0x20) pll_a_reset_ = pll_a_locked() != 0;
    return;  // self-clearing
  }
  if (index >= 26 && index <= 33) pll_a_reset_ = false;  // a new divider locks after a reset
  regs_[index] = value;
}

double SimSI5351::pll_a_hz() const {
  std::lock_guard lock(mutex_);
  return kCrystal_hz * pll_a_locked();
}

double SimSI5351::output_hz() const {
  std::lock_guard lock(mutex_);
  bool disabled = regs_[3] & 0x01;
  bool powered_down = regs_[16] & 0x80;
  bool from_pll_a = !(regs_[16] & 0x20);
  bool from_multisynth = (regs_[16] & 0x0C) == 0x0C;
  double ms = divider(regs_, 42);
  if (disabled || powered_down || !from_pll_a || !from_multisynth || !pll_a_reset_ || ms < 4) return 0;
  int r = 1 << ((regs_[44] >> 4) & 7);
  return kCrystal_hz * pll_a_locked() / (ms * r);
}

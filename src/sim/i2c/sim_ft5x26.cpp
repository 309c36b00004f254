#include "sim/i2c/sim_ft5x26.hpp"

void SimFT5X26::touch(uint16_t x, uint16_t y) {
  std::lock_guard lock(mutex_);
  regs_[kStatus] = 1;
  regs_[3] = 0x80 | ((x >> 8) & 0x0F);  // event: contact
  regs_[4] = x & 0xFF;
  regs_[5] = (y >> 8) & 0x0F;  // touch id 0
  regs_[6] = y & 0xFF;
}

void SimFT5X26::release() {
  std::lock_guard lock(mutex_);
  regs_[kStatus] = 0;
  regs_[3] = 0x40 | (regs_[3] & 0x0F);  // event: lift-up
}

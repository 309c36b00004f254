#include "sim/i2c/sim_port_expanders.hpp"

bool SimPCF8574::write(std::span<const uint8_t> bytes) {
  for (auto b : bytes) latch_ = b;
  return true;
}

bool SimPCF8574::read(std::span<uint8_t> bytes) {
  for (auto& out : bytes) out = pins();
  return true;
}

SimPCA9536::SimPCA9536() {
  regs_[1] = 0xFF;
  regs_[3] = 0xFF;
}

uint8_t SimPCA9536::pins_locked() const {
  uint8_t inputs = regs_[3] & 0x0F;
  uint8_t level = (regs_[1] & ~inputs) | (0x0F & inputs);
  return level & ~pull_low & 0x0F;
}

uint8_t SimPCA9536::pins() const {
  std::lock_guard lock(mutex_);
  return pins_locked();
}

uint8_t SimPCA9536::on_read(uint8_t index) {
  index &= 3;  // the pointer has two bits
  if (index == 0) return 0xF0 | (pins_locked() ^ (regs_[2] & 0x0F));
  return regs_[index];
}

void SimPCA9536::on_write(uint8_t index, uint8_t value) {
  index &= 3;
  if (index != 0) regs_[index] = value;
}

#include "sim/i2c/sim_chip.hpp"

bool SimRegisterChip::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  if (bytes.empty()) return true;
  pointer_ = bytes[0];
  for (auto value : bytes.subspan(1)) {
    on_write(pointer_, value);
    trace_.push_back({false, pointer_, value});
    ++pointer_;
  }
  return true;
}

bool SimRegisterChip::read(std::span<uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  for (auto& out : bytes) {
    out = on_read(pointer_);
    trace_.push_back({true, pointer_, out});
    ++pointer_;
  }
  return true;
}

uint8_t SimRegisterChip::reg(uint8_t index) const {
  std::lock_guard lock(mutex_);
  return regs_[index];
}

void SimRegisterChip::set_reg(uint8_t index, uint8_t value) {
  std::lock_guard lock(mutex_);
  regs_[index] = value;
}

std::vector<SimRegisterChip::Access> SimRegisterChip::trace() const {
  std::lock_guard lock(mutex_);
  return trace_;
}

void SimRegisterChip::clear_trace() {
  std::lock_guard lock(mutex_);
  trace_.clear();
}

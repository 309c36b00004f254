#include "sim/i2c/sim_eeprom.hpp"

SimEEPROM::SimEEPROM(std::chrono::microseconds write_cycle) : memory_(kSize, 0xFF), write_cycle_(write_cycle) {}

bool SimEEPROM::busy() const { return std::chrono::steady_clock::now() < busy_until_; }

bool SimEEPROM::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  if (busy()) return false;
  if (bytes.size() < 2) return true;  // an acknowledge poll, or half an address
  pointer_ = ((std::size_t(bytes[0]) << 8) | bytes[1]) % kSize;
  std::size_t page = pointer_ - pointer_ % kPage;
  std::size_t offset = pointer_ % kPage;
  for (auto value : bytes.subspan(2)) {
    pending_.emplace_back(page + offset, value);
    offset = (offset + 1) % kPage;
  }
  return true;
}

bool SimEEPROM::read(std::span<uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  if (busy()) return false;
  for (auto& out : bytes) {
    out = memory_[pointer_];
    pointer_ = (pointer_ + 1) % kSize;
  }
  return true;
}

void SimEEPROM::stop() {
  std::lock_guard lock(mutex_);
  if (pending_.empty()) return;
  for (auto [address, value] : pending_) memory_[address] = value;
  pending_.clear();
  ++page_writes_;
  busy_until_ = std::chrono::steady_clock::now() + write_cycle_;
}

uint8_t SimEEPROM::peek(std::size_t address) const {
  std::lock_guard lock(mutex_);
  return memory_.at(address);
}

void SimEEPROM::poke(std::size_t address, uint8_t value) {
  std::lock_guard lock(mutex_);
  memory_.at(address) = value;
}

unsigned SimEEPROM::page_writes() const {
  std::lock_guard lock(mutex_);
  return page_writes_;
}

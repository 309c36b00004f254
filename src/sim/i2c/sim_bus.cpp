#include "sim/i2c/sim_bus.hpp"

#include <set>

SimChip* SimBus::chip(uint8_t address) const {
  std::lock_guard lock(mutex_);
  auto found = chips_.find(address);
  return found == chips_.end() ? nullptr : found->second.get();
}

bool SimBus::transfer(std::span<I2CMessage> messages) {
  std::lock_guard lock(mutex_);
  ++transactions_;
  last_.clear();
  for (auto& m : messages) last_.push_back({m.address, m.read, m.length});
  if (stuck) return false;
  std::set<SimChip*> addressed;
  bool acknowledged = true;
  for (auto& m : messages) {
    auto found = chips_.find(m.address);
    SimChip* chip = found == chips_.end() ? nullptr : found->second.get();
    if (!chip || !chip->answering) {
      acknowledged = false;
      break;
    }
    addressed.insert(chip);
    bool ok = m.read ? chip->read({m.data, m.length}) : chip->write({m.data, m.length});
    if (!ok) {
      acknowledged = false;
      break;
    }
    if (m.read && chip->corrupt)
      for (uint16_t i = 0; i < m.length; ++i) m.data[i] ^= 0x5A;
  }
  for (auto* chip : addressed) {
    chip->stop();
    if (chip->after_transaction) chip->after_transaction();
  }
  return acknowledged;
}

bool SimBus::recover() {
  if (stuck.exchange(false) && on_recovered) on_recovered();
  return true;
}

std::vector<SimBus::MessageShape> SimBus::last_transaction() const {
  std::lock_guard lock(mutex_);
  return last_;
}

uint64_t SimBus::transactions() const {
  std::lock_guard lock(mutex_);
  return transactions_;
}

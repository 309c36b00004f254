#include "web/connection_gate.hpp"

ConnectionGate::Slot& ConnectionGate::Slot::operator=(Slot&& other) noexcept {
  if (this != &other) {
    release();
    gate_ = std::move(other.gate_);
    address_ = std::move(other.address_);
  }
  return *this;
}

ConnectionGate::Slot::~Slot() { release(); }

void ConnectionGate::Slot::release() {
  if (gate_) gate_->release(address_);
  gate_.reset();
}

ConnectionGate::Slot ConnectionGate::admit(const std::string& address, Refusal& refusal) {
  std::lock_guard lock(mutex_);
  refusal = Refusal::None;
  if (total_ >= total_max_) refusal = Refusal::Total;
  else if (auto found = per_address_.find(address); found != per_address_.end() && found->second >= per_address_max_)
    refusal = Refusal::PerAddress;
  if (refusal != Refusal::None) return {};
  ++total_;
  ++per_address_[address];
  return Slot(shared_from_this(), address);
}

size_t ConnectionGate::total() const {
  std::lock_guard lock(mutex_);
  return total_;
}

size_t ConnectionGate::closed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

void ConnectionGate::release(const std::string& address) {
  std::lock_guard lock(mutex_);
  --total_;
  ++closed_;
  auto found = per_address_.find(address);
  if (found != per_address_.end() && --found->second == 0) per_address_.erase(found);
}

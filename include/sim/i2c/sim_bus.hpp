#pragma once
// SimBus: a simulated I2C adapter carrying chip models at their addresses.
// A transfer runs its messages in order against the addressed models, as one
// transaction: it stops at the first message not acknowledged, then every
// chip addressed sees the stop. A stuck bus (a slave holding the data line)
// fails every transfer until it is recovered.
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/i2c/sim_chip.hpp"
#include "std/i2c_transport.hpp"

class SimBus {
 public:
  // Takes the model; returns it. One model per address.
  template <class T>
  T& attach(uint8_t address, std::unique_ptr<T> chip) {
    T& ref = *chip;
    std::lock_guard lock(mutex_);
    chips_[address] = std::move(chip);
    return ref;
  }
  SimChip* chip(uint8_t address) const;
  template <class T>
  T* chip_as(uint8_t address) const { return dynamic_cast<T*>(chip(address)); }

  bool transfer(std::span<I2CMessage> messages);
  bool recover();
  uint32_t speed() const { return speed_; }
  void set_speed(uint32_t hz) { speed_ = hz; }

  std::atomic<bool> stuck{false};
  // Called after a recovery freed a stuck bus (set before transfers start).
  std::function<void()> on_recovered;

  // What the last transaction looked like: its messages' addresses and directions.
  struct MessageShape {
    uint8_t address;
    bool read;
    uint16_t length;
  };
  std::vector<MessageShape> last_transaction() const;
  uint64_t transactions() const;

 private:
  mutable std::mutex mutex_;  // one transaction at a time, as on the wire
  std::map<uint8_t, std::unique_ptr<SimChip>> chips_;
  std::vector<MessageShape> last_;
  uint64_t transactions_ = 0;
  std::atomic<uint32_t> speed_{100000};
};

// The simulated bus as an I2CBus back end.
class SimTransport : public I2CTransport {
 public:
  explicit SimTransport(std::shared_ptr<SimBus> bus) : bus_(std::move(bus)) {}
  bool is_open() const override { return bus_ != nullptr; }
  bool transfer(std::span<I2CMessage> messages) override { return bus_->transfer(messages); }
  bool set_speed(uint32_t hz, std::optional<uint32_t>& actual) override {
    bus_->set_speed(hz);
    return true;
  }
  bool recover() override { return bus_->recover(); }
  std::string describe() const override { return "sim"; }

 private:
  std::shared_ptr<SimBus> bus_;
};

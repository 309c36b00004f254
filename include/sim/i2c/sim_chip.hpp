#pragma once
// SimChip: a register-level model of one chip on the simulated I2C bus. The
// bus hands it each message addressed to it, whole, and tells it when the
// transaction ends with a stop. A chip that does not acknowledge returns false.
//
// SimRegisterChip: the common register-file protocol: the first byte written
// sets the register pointer, further bytes write registers, reads read from
// the pointer on; the pointer advances after each byte. Every register access
// is traced, so tests can compare what the chip saw with what was meant.
#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <vector>

class SimChip {
 public:
  virtual ~SimChip() = default;
  virtual bool write(std::span<const uint8_t> bytes) = 0;
  virtual bool read(std::span<uint8_t> bytes) = 0;
  virtual void stop() {}

  // Fault injection: a chip that stopped answering, or whose replies are damaged.
  std::atomic<bool> answering{true};
  std::atomic<bool> corrupt{false};
  // Called by the bus after each transaction that addressed the chip (set
  // before transfers start): lets a view follow the chip's state.
  std::function<void()> after_transaction;
};

class SimRegisterChip : public SimChip {
 public:
  struct Access {
    bool read;
    uint8_t reg;
    uint8_t value;
    bool operator==(const Access&) const = default;
  };

  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> bytes) override;

  uint8_t reg(uint8_t index) const;
  void set_reg(uint8_t index, uint8_t value);
  // The register accesses so far, oldest first; `clear_trace` forgets them.
  std::vector<Access> trace() const;
  void clear_trace();

 protected:
  // A register as a read sees it and a write changes it (models override
  // their special registers); called with the lock held.
  virtual uint8_t on_read(uint8_t index) { return regs_[index]; }
  virtual void on_write(uint8_t index, uint8_t value) { regs_[index] = value; }

  mutable std::mutex mutex_;
  std::array<uint8_t, 256> regs_{};

 private:
  uint8_t pointer_ = 0;
  std::vector<Access> trace_;
};

#pragma once
// SimEEPROM: a 24C32-class EEPROM: 4096 bytes, two address bytes, 32-byte
// pages (a write wraps within its page), a write cycle after each page write
// during which the chip acknowledges nothing, sequential reads across pages.
#include <chrono>
#include <vector>

#include "sim/i2c/sim_chip.hpp"

class SimEEPROM : public SimChip {
 public:
  static constexpr std::size_t kSize = 4096;
  static constexpr std::size_t kPage = 32;

  explicit SimEEPROM(std::chrono::microseconds write_cycle = std::chrono::milliseconds(5));

  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> bytes) override;
  void stop() override;

  // The cells as they are now (tests damage them through `poke`).
  uint8_t peek(std::size_t address) const;
  void poke(std::size_t address, uint8_t value);
  unsigned page_writes() const;

 private:
  bool busy() const;

  mutable std::mutex mutex_;
  std::vector<uint8_t> memory_;
  std::chrono::microseconds write_cycle_;
  std::chrono::steady_clock::time_point busy_until_{};
  std::size_t pointer_ = 0;
  std::vector<std::pair<std::size_t, uint8_t>> pending_;  // cells of a page write, committed at the stop
  unsigned page_writes_ = 0;
};

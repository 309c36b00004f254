#pragma once
// EEPROM ("eeprom"): a 24C32-class serial EEPROM (4096 bytes, two address
// bytes, 32-byte pages, a write cycle of a few milliseconds during which the
// chip does not acknowledge).
//
// Objects are kept redundantly: a record is the object's bytes followed by
// their CRC-32, stored in three copies, one in each of three 1024-byte banks
// (record address + 0, + 1024, + 2048; the last kilobyte is free). Reading
// takes the first copy whose CRC holds and rewrites every copy that differs
// from it, counting each rewrite in `repairs`. Strings use fixed records of
// N bytes (the text, zero-padded; at most N-1 characters).
//
// `write_context` is a text kept on the chip itself (a string record at
// address 0): it is read back at start and written when set. The poll
// (`poll/rate`, default 0.2 Hz) reads it again, repairing damaged copies.
#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>

#include "devices/i2c_slave.hpp"

class EEPROM : public I2CSlave {
 public:
  static constexpr uint16_t kSize = 4096;
  static constexpr uint16_t kPage = 32;
  static constexpr uint16_t kBank = 1024;
  static constexpr int kCopies = 3;
  static constexpr uint16_t kContextAddress = 0;
  static constexpr uint16_t kTestAddress = 0x2C0;  // the self-test's records, up to 0x3C4

  explicit EEPROM(const VTree& config);

  void start() override;
  void poll() override;

  template <class T>
  bool redundantWrite(uint16_t address, const T& object) {
    static_assert(std::is_trivially_copyable_v<T>);
    return redundant_write(address, {reinterpret_cast<const uint8_t*>(&object), sizeof(T)});
  }
  template <class T>
  bool redundantReadRepair(uint16_t address, T& object) {
    static_assert(std::is_trivially_copyable_v<T>);
    return redundant_read_repair(address, {reinterpret_cast<uint8_t*>(&object), sizeof(T)});
  }
  template <std::size_t N>
  bool redundantWriteString(uint16_t address, const std::string& text) {
    return redundant_write_string(address, text, N);
  }
  template <std::size_t N>
  bool redundantReadRepairString(uint16_t address, std::string& text) {
    return redundant_read_repair_string(address, text, N);
  }

  // A plain write of the object's bytes at `address`, no redundancy.
  using I2CSlave::write;
  template <class T>
  bool write(uint16_t address, const T& object) {
    static_assert(std::is_trivially_copyable_v<T>);
    return write_memory(address, {reinterpret_cast<const uint8_t*>(&object), sizeof(T)});
  }

  bool write_memory(uint16_t address, std::span<const uint8_t> bytes);
  bool read_memory(uint16_t address, std::span<uint8_t> bytes);

  // The self-test: "" when it passed, else the first failure's text.
  std::string test_read_write();

  ValueField<unsigned int>& repairs() const { return repairs_; }
  ValueField<std::string>& write_context() const { return write_context_; }

 private:
  bool redundant_write(uint16_t address, std::span<const uint8_t> bytes);
  bool redundant_read_repair(uint16_t address, std::span<uint8_t> bytes);
  bool redundant_write_string(uint16_t address, const std::string& text, std::size_t record);
  bool redundant_read_repair_string(uint16_t address, std::string& text, std::size_t record);
  bool wait_ready();
  bool record_erased(uint16_t address, std::size_t size);
  bool load_context();

  ValueField<unsigned int>& repairs_;
  ValueField<std::string>& write_context_;
  ValueField<std::string>& test_result_;
  std::atomic<bool> loading_{false};
};

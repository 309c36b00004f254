#include "devices/eeprom.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include <boost/crc.hpp>

#include "core/log.hpp"
#include "devices/i2c_bus.hpp"

ZEL_REGISTER_NODE("eeprom", EEPROM);

namespace {

constexpr std::size_t kCrcSize = 4;
// Longer than the chip's longest write cycle (5 ms for the family).
constexpr auto kWriteCycleLimit = std::chrono::milliseconds(25);

uint32_t crc32(std::span<const uint8_t> bytes) {
  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

// The object's bytes and their CRC-32, little-endian.
std::vector<uint8_t> make_record(std::span<const uint8_t> bytes) {
  std::vector<uint8_t> record(bytes.begin(), bytes.end());
  uint32_t crc = crc32(bytes);
  for (int i = 0; i < 4; ++i) record.push_back(static_cast<uint8_t>(crc >> (8 * i)));
  return record;
}

bool record_holds(std::span<const uint8_t> record) {
  auto payload = record.first(record.size() - kCrcSize);
  uint32_t stored = 0;
  for (int i = 0; i < 4; ++i) stored |= uint32_t(record[payload.size() + i]) << (8 * i);
  return crc32(payload) == stored;
}

struct TestRecord {
  int32_t data[4];
};

}  // namespace

EEPROM::EEPROM(const VTree& config)
    : I2CSlave(config),
      repairs_(add<ValueField<unsigned int>>("repairs")),
      write_context_(add_setting<ValueField<std::string>>(config, "write_context")),
      test_result_(add<ValueField<std::string>>("test_result")) {
  describe("EEPROM", "Electrically erasable programmable read-only memory.", "floppy-disk");
  repairs_.set(0);
  repairs_.set_readonly(true);
  repairs_.attributes_for_update().detail = "The number of times the EEPROM had to repair its memory.";
  write_context_.attributes_for_update().detail = "A text kept on the EEPROM itself, redundantly (at most 255 characters).";
  test_result_.set_readonly(true);
  test_result_.attributes_for_update().detail = "The outcome of the last read write repair test.";
  auto& button = add<ButtonField>("test_read_write", "Read write repair", [this] { test_read_write(); });
  button.attributes_for_update().detail = "Fully exercise the reading, writing, and repairing of the EEPROM";
  write_context_.listen([this] {
    if (loading_) return;
    ZEL_FAULT(faults_, redundantWriteString<256>(kContextAddress, write_context_.get()), "I2C write failure",
              "redundantWriteString<256>(write_context)");
  });
  enable_poll(config, 0.2);
}

// A new chip (erased cells) gets the configured text.
void EEPROM::start() {
  if (record_erased(kContextAddress, 256))
    ZEL_FAULT(faults_, redundantWriteString<256>(kContextAddress, write_context_.get()), "I2C write failure",
              "redundantWriteString<256>(write_context)");
  else
    load_context();
  I2CSlave::start();
}

bool EEPROM::record_erased(uint16_t address, std::size_t size) {
  std::vector<uint8_t> cells(size + kCrcSize);
  for (int copy = 0; copy < kCopies; ++copy) {
    if (!read_memory(static_cast<uint16_t>(address + copy * kBank), cells)) return false;
    if (!std::all_of(cells.begin(), cells.end(), [](uint8_t b) { return b == 0xFF; })) return false;
  }
  return true;
}

void EEPROM::poll() { load_context(); }

bool EEPROM::load_context() {
  std::string text;
  if (!ZEL_FAULT(faults_, redundantReadRepairString<256>(kContextAddress, text), "I2C read failure",
                 "redundantReadRepairString<256>(write_context)"))
    return false;
  loading_ = true;
  write_context_.set(text);
  loading_ = false;
  return true;
}

// Acknowledge polling: the chip answers again once its write cycle is over.
bool EEPROM::wait_ready() {
  static const uint8_t nothing = 0;
  auto deadline = std::chrono::steady_clock::now() + kWriteCycleLimit;
  for (;;) {
    bool late = std::chrono::steady_clock::now() > deadline;  // taken before the attempt
    if (write(&nothing, 0, true)) return true;
    if (late) return false;
  }
}

bool EEPROM::write_memory(uint16_t address, std::span<const uint8_t> bytes) {
  if (address + bytes.size() > kSize) return false;
  auto lock = exclusive();
  while (!bytes.empty()) {
    std::size_t room = kPage - address % kPage;  // a page write wraps within its page
    std::size_t n = std::min(room, bytes.size());
    uint8_t message[2 + kPage];
    message[0] = static_cast<uint8_t>(address >> 8);
    message[1] = static_cast<uint8_t>(address);
    std::memcpy(message + 2, bytes.data(), n);
    if (!write(message, 2 + n, true) || !wait_ready()) return false;
    address = static_cast<uint16_t>(address + n);
    bytes = bytes.subspan(n);
  }
  return true;
}

bool EEPROM::read_memory(uint16_t address, std::span<uint8_t> bytes) {
  if (address + bytes.size() > kSize) return false;
  auto lock = exclusive();
  while (!bytes.empty()) {
    std::size_t n = std::min(bytes.size(), I2CBus::kMaxMessage);
    if (!write({static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address)}, false) ||
        !read(bytes.data(), n, true))
      return false;
    address = static_cast<uint16_t>(address + n);
    bytes = bytes.subspan(n);
  }
  return true;
}

bool EEPROM::redundant_write(uint16_t address, std::span<const uint8_t> bytes) {
  auto lock = exclusive();
  auto record = make_record(bytes);
  if (address + record.size() > kBank) return false;
  for (int copy = 0; copy < kCopies; ++copy)
    if (!write_memory(static_cast<uint16_t>(address + copy * kBank), record)) return false;
  return true;
}

bool EEPROM::redundant_read_repair(uint16_t address, std::span<uint8_t> bytes) {
  std::size_t size = bytes.size() + kCrcSize;
  if (address + size > kBank) return false;
  auto lock = exclusive();
  std::vector<std::vector<uint8_t>> copies(kCopies, std::vector<uint8_t>(size));
  for (int copy = 0; copy < kCopies; ++copy)
    if (!read_memory(static_cast<uint16_t>(address + copy * kBank), copies[copy])) return false;
  auto good = std::find_if(copies.begin(), copies.end(), [](auto& c) { return record_holds(c); });
  if (good == copies.end()) {
    ZEL_ERROR("Unable to recover data");
    return false;
  }
  for (int copy = 0; copy < kCopies; ++copy) {
    if (copies[copy] == *good) continue;
    if (!write_memory(static_cast<uint16_t>(address + copy * kBank), *good)) return false;
    repairs_.set(repairs_.get() + 1);
    ZEL_WARN("{} repaired copy {} of the record at {}", path(), copy, address);
  }
  std::memcpy(bytes.data(), good->data(), bytes.size());
  return true;
}

bool EEPROM::redundant_write_string(uint16_t address, const std::string& text, std::size_t record) {
  std::vector<uint8_t> bytes(record, 0);
  std::memcpy(bytes.data(), text.data(), std::min(text.size(), record - 1));
  return redundant_write(address, bytes);
}

bool EEPROM::redundant_read_repair_string(uint16_t address, std::string& text, std::size_t record) {
  std::vector<uint8_t> bytes(record, 0);
  if (!redundant_read_repair(address, bytes)) return false;
  text.assign(reinterpret_cast<const char*>(bytes.data()), strnlen(reinterpret_cast<const char*>(bytes.data()), record));
  return true;
}

std::string EEPROM::test_read_write() {
  auto fail = [this](std::string text) {
    ZEL_ERROR("{} test_read_write: {}", path(), text);
    test_result_.set(text);
    return text;
  };
  // The check counts this run's repairs, so the test may run again.
  unsigned repairs_before = repairs_.get();
  TestRecord foo{};
  foo.data[0] = 123456;
  if (!redundantWrite(kTestAddress, foo)) return fail("Write failed");
  write(kTestAddress, int32_t{444});  // corrupts the first copy
  foo = {};
  if (!redundantReadRepair(kTestAddress, foo)) return fail("Read failed");
  if (repairs_.get() - repairs_before != 1u) return fail("Repair did not happen");
  if (foo.data[0] != 123456) return fail("Read results did not match write");
  std::string str = "This is test of the test system for testing all the systems.1>!@>sd{D}SA:@3";
  if (!redundantWriteString<256>(kTestAddress, str)) return fail("String write failed");
  std::string bstr;
  if (!redundantReadRepairString<256>(kTestAddress, bstr)) return fail("String read fail");
  if (bstr != str) return fail("String read failed");
  test_result_.set("Passed");
  return {};
}

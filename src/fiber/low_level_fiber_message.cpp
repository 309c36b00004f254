#include "fiber/low_level_fiber_message.hpp"

#include <fmt/format.h>

uint16_t LowLevelFiberMessage::checksum(const uint8_t* bytes, size_t count) {
  uint32_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum += bytes[i];
  return static_cast<uint16_t>(0x10000 - (sum & 0xFFFF));
}

uint16_t LowLevelFiberMessage::stored_checksum() const {
  if (data.size() < 2) return 0;
  return static_cast<uint16_t>(data[data.size() - 2] | (data[data.size() - 1] << 8));
}

uint16_t LowLevelFiberMessage::computed_checksum() const {
  return checksum(data.data(), data.size() < 2 ? 0 : data.size() - 2);
}

bool LowLevelFiberMessage::valid() const { return data.size() >= 4 && stored_checksum() == computed_checksum(); }

uint8_t LowLevelFiberMessage::closing_delimiter() const {
  return static_cast<uint8_t>((address & fiber_wire::kAddressMask) | (reply ? fiber_wire::kReplyBit : 0) |
                              (fast ? fiber_wire::kFastBit : 0));
}

std::string LowLevelFiberMessage::dump_header() const {
  return fmt::format("Address:{} Reply:{} Fast:{} Size:{} CS:{} CS:{}", address, reply ? 1 : 0, fast ? 1 : 0,
                     data.size(), stored_checksum(), computed_checksum());
}

std::string LowLevelFiberMessage::dump_bytes() const {
  std::string out;
  out.reserve(data.size() * 3);
  for (uint8_t b : data) fmt::format_to(std::back_inserter(out), "{:02x} ", b);
  return out;
}

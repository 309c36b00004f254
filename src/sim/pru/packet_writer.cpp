#include "sim/pru/packet_writer.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

#include "pru/device_memory.hpp"
#include "pru/inbox_layout.hpp"
#include "pru/packet.hpp"

namespace layout = inbox_layout;

PacketWriter::PacketWriter(uint8_t* header, uint8_t* region, size_t region_size)
    : header_(header), region_(region), region_size_(region_size) {
  reset();
}

void PacketWriter::reset() {
  next_ = 0;
  last_ = layout::kNoPacket;
  if (header_) device_memory::store_release32(header_, layout::kTail, layout::kNoPacket);
}

uint32_t PacketWriter::write(std::span<const uint8_t> payload, Fault fault, bool publish) {
  size_t words = (payload.size() + 3) / 4;
  size_t size = pru_packet::kHeaderSize + 4 * words;
  size_t stored_size = fault == Fault::Oversized ? pru_packet::kMaxSize + 1 : size;
  size_t span = std::max(size, (stored_size + 3) & ~size_t{3});
  if (next_ + span > region_size_) next_ = 0;
  uint8_t* p = region_ + next_;

  std::memset(p + pru_packet::kHeaderSize + payload.size(), 0, 4 * words - payload.size());
  if (!payload.empty()) std::memcpy(p + pru_packet::kHeaderSize, payload.data(), payload.size());
  uint16_t sum = pru_packet::checksum(p + pru_packet::kHeaderSize, words);
  if (fault == Fault::BadChecksum) ++sum;
  uint32_t size_word = static_cast<uint32_t>(stored_size) | (static_cast<uint32_t>(written_ & 0xFFFF) << 16);
  std::memcpy(p + pru_packet::kSizeOffset, &size_word, 4);
  uint32_t checksum_word = sum;
  std::memcpy(p + pru_packet::kChecksumOffset, &checksum_word, 4);
  std::memcpy(p + pru_packet::kPreviousOffset, &last_, 4);

  last_ = next_;
  next_ += static_cast<uint32_t>(span);
  ++written_;
  if (publish) this->publish();
  return last_;
}

uint32_t PacketWriter::write_tagged(uint16_t stream, std::span<const uint8_t> data, Fault fault) {
  std::vector<uint8_t> payload(4 + data.size());
  uint32_t tag = stream | static_cast<uint32_t>(data.size()) << 16;
  std::memcpy(payload.data(), &tag, 4);
  if (!data.empty()) std::memcpy(payload.data() + 4, data.data(), data.size());
  return write(payload, fault);
}

void PacketWriter::publish() { device_memory::store_release32(header_, layout::kTail, last_); }

#pragma once
// A packet of the PRU inbox, as the firmware lays it out in the packet region
// (offsets from the packet's start, little-endian):
//
//   0  u16  total size in bytes, header included; at most 1036
//   2  u16  (firmware's own)
//   4  u16  checksum
//   6  u16  (firmware's own)
//   8  u32  offset of the previous packet in the region (newer to older)
//  12  ...  payload, a whole number of 32-bit words
//
// The checksum is the 16-bit sum of the low half of each payload word; the
// upper halves are deliberately not summed.
//
// Payload tag: the firmware starts every payload that is meant for a
// particular host consumer with one tag word, stream id in the low half and
// the number of meaningful payload bytes after the tag in the upper half (so
// byte streams need not be a multiple of four). See docs/pru.md.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace pru_packet {

inline constexpr size_t kHeaderSize = 12;
inline constexpr size_t kMaxSize = 1036;
inline constexpr size_t kSizeOffset = 0;
inline constexpr size_t kChecksumOffset = 4;
inline constexpr size_t kPreviousOffset = 8;

inline uint32_t word_at(const uint8_t* p) {
  uint32_t w;
  std::memcpy(&w, p, 4);
  return w;  // the host is little-endian, as the firmware
}

// Sum of the low half-words of `words` 32-bit words starting at `p`.
uint16_t checksum(const uint8_t* payload, size_t words);

// Copies a packet of `size` bytes from `from` to `to` and returns the
// checksum of its payload, in one pass over the source.
uint16_t copy_and_checksum(uint8_t* to, const uint8_t* from, size_t size);

// The checksum of a packet of `size` bytes starting at `packet`.
inline uint16_t packet_checksum(const uint8_t* packet, size_t size) {
  return size < kHeaderSize ? 0 : checksum(packet + kHeaderSize, (size - kHeaderSize) / 4);
}

}  // namespace pru_packet

// One delivered packet: a view of bytes that the inbox has copied out of the
// region and verified; valid during the consumer's call.
class PacketView {
 public:
  explicit PacketView(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  std::span<const uint8_t> bytes() const { return bytes_; }
  size_t size() const { return bytes_.size(); }
  uint16_t stored_checksum() const { return half(pru_packet::kChecksumOffset); }
  uint32_t previous() const { return pru_packet::word_at(bytes_.data() + pru_packet::kPreviousOffset); }
  std::span<const uint8_t> payload() const { return bytes_.subspan(pru_packet::kHeaderSize); }

  struct Tagged {
    uint16_t stream;
    std::span<const uint8_t> data;  // the meaningful bytes after the tag
  };
  // The tagged payload; nothing when the payload is too short for a tag or
  // the tag claims more bytes than the packet holds.
  std::optional<Tagged> tagged() const;

 private:
  uint16_t half(size_t offset) const {
    uint16_t h;
    std::memcpy(&h, bytes_.data() + offset, 2);
    return h;
  }
  std::span<const uint8_t> bytes_;
};

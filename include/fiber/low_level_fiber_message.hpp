#pragma once
// LowLevelFiberMessage: one frame on a fiber loop, and its wire form.
//
// On the wire a frame is an opening delimiter (address | 0x40, | 0x20 for a
// reply, | 0x80 for a fast message), the bytes of `data`, the checksum low
// and high byte, and a closing delimiter (the opening one without 0x40). The
// address takes the low five bits (0..31).
//
// To transmit, `data` holds the payload only and the checksum is appended as
// the frame is encoded. A received frame's `data` holds the payload followed
// by the two checksum bytes; valid() checks them.
#include <cstdint>
#include <string>
#include <vector>

namespace fiber_wire {
inline constexpr uint8_t kAddressMask = 0x1F;
inline constexpr uint8_t kReplyBit = 0x20;
inline constexpr uint8_t kOpeningBit = 0x40;
inline constexpr uint8_t kFastBit = 0x80;
inline constexpr char kDelimiterMark = '+';
inline constexpr char kOrdinaryMark = ';';
}  // namespace fiber_wire

struct LowLevelFiberMessage {
  uint8_t address = 0;
  bool reply = false;
  bool fast = false;
  std::vector<uint8_t> data;

  // Two's complement of the 16-bit sum of `count` bytes.
  static uint16_t checksum(const uint8_t* bytes, size_t count);
  // The checksum stored in the last two bytes (little-endian); 0 when fewer
  // than two bytes.
  uint16_t stored_checksum() const;
  // The checksum of every byte before the last two.
  uint16_t computed_checksum() const;
  // At least 4 bytes and the stored checksum equals the computed one.
  bool valid() const;

  uint8_t closing_delimiter() const;
  uint8_t opening_delimiter() const { return closing_delimiter() | fiber_wire::kOpeningBit; }

  // Writes the wire form (delimiters, payload, checksum) through
  // put(byte, mark), with mark '+' for a delimiter and ';' for the rest.
  template <class Put>
  void encode(Put&& put) const {
    uint16_t sum = 0;
    put(opening_delimiter(), fiber_wire::kDelimiterMark);
    for (uint8_t b : data) {
      sum = static_cast<uint16_t>(sum + b);
      put(b, fiber_wire::kOrdinaryMark);
    }
    uint16_t cs = static_cast<uint16_t>(-sum);
    put(static_cast<uint8_t>(cs & 0xFF), fiber_wire::kOrdinaryMark);
    put(static_cast<uint8_t>(cs >> 8), fiber_wire::kOrdinaryMark);
    put(closing_delimiter(), fiber_wire::kDelimiterMark);
  }

  // The two log lines of a frame dump: "Address:3 Reply:1 Fast:0 Size:6
  // CS:65520 CS:65520" and the bytes in hexadecimal, each followed by a blank.
  std::string dump_header() const;
  std::string dump_bytes() const;
};

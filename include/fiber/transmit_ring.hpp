#pragma once
// TransmitRing: the frames a fiber loop sends, in the PRU's shared RAM where
// the core that drives the loop's UART reads them. Two parallel arrays of one
// capacity, the byte values and a mark per byte ('+' delimiter, ';'
// ordinary), and a 16-bit write index in the low half of a 32-bit word. The
// core keeps its own read index and sends the bytes from there up to the
// write index.
//
// Each byte is stored at the index when the index is below the capacity and
// the index becomes (index + 1) modulo the capacity; an index at or above
// the capacity is reset to 0 and that byte is dropped. The index is stored
// (with release order) once per frame, after the frame's bytes, so the core
// never starts on half a frame.
#include <cstddef>
#include <cstdint>

#include "fiber/low_level_fiber_message.hpp"

namespace fiber_layout {
// Offsets in shared RAM: one ring per core, clear of the inbox header
// (bytes 200..223).
inline constexpr size_t kRingOffset[2] = {0x400, 0x1800};
inline constexpr size_t kIndexWord = 0;  // write index, low 16 bits
inline constexpr size_t kBytes = 4;
inline constexpr uint16_t kCapacity = 2048;
inline constexpr size_t kMarks = kBytes + kCapacity;
inline constexpr size_t kRingSize = kMarks + kCapacity;
// Receive stream of the loop's UART in the packet inbox: entries of 16 bits,
// the byte in bits 0..7, bit 8 set for a delimiter (the UART's ninth bit),
// and the receive errors the UART saw on that byte in bits 9..13.
inline constexpr uint16_t kReceiveStream = 2;
inline constexpr uint16_t kDelimiterFlag = 1u << 8;
inline constexpr uint16_t kNoiseFlag = 1u << 9;
inline constexpr uint16_t kBreakFlag = 1u << 10;
inline constexpr uint16_t kFrameErrorFlag = 1u << 11;
inline constexpr uint16_t kOverrunFlag = 1u << 12;
inline constexpr uint16_t kTimeoutFlag = 1u << 13;
inline constexpr uint16_t kErrorFlags = kNoiseFlag | kBreakFlag | kFrameErrorFlag | kOverrunFlag | kTimeoutFlag;
}  // namespace fiber_layout

class TransmitRing {
 public:
  // `ring` points at the ring's index word; `capacity` entries follow.
  TransmitRing(uint8_t* ring = nullptr, uint16_t capacity = fiber_layout::kCapacity)
      : ring_(ring), capacity_(capacity) {}

  bool mapped() const { return ring_ != nullptr; }
  uint16_t capacity() const { return capacity_; }
  // The write index as it is in shared memory.
  uint16_t index() const;

  // Encodes a frame into the ring and publishes the new index.
  void write(const LowLevelFiberMessage& message);
  // One byte, not yet published (tests, raw transmission).
  void put(uint8_t byte, char mark);
  void publish();

  uint8_t byte_at(uint16_t i) const { return ring_[fiber_layout::kBytes + i]; }
  char mark_at(uint16_t i) const { return static_cast<char>(ring_[fiber_layout::kMarks + i]); }

 private:
  void begin();

  uint8_t* ring_;
  uint16_t capacity_;
  uint32_t index_ = 0;
  bool open_ = false;
};

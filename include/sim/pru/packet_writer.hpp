#pragma once
// PacketWriter: the firmware's side of the packet inbox, as a simulated PRU
// program runs it: packets go into the region one after another (wrapping to
// offset 0 when one would not fit), each linked to the one before, and
// `tail` is stored after the packet's bytes.
#include <cstddef>
#include <cstdint>
#include <span>

class PacketWriter {
 public:
  // Faults a test or an operator can ask for, applied to one packet.
  enum class Fault { None, Oversized, BadChecksum };

  PacketWriter() = default;
  PacketWriter(uint8_t* header, uint8_t* region, size_t region_size);

  // A firmware start: no packet yet (`tail` = no packet), writing from 0.
  void reset();

  // Writes one packet around `payload` (padded to whole words) and, when
  // `publish`, stores `tail`. Returns the packet's offset.
  uint32_t write(std::span<const uint8_t> payload, Fault fault = Fault::None, bool publish = true);
  // The same with a payload tag for `stream` in front of `data`.
  uint32_t write_tagged(uint16_t stream, std::span<const uint8_t> data, Fault fault = Fault::None);
  // Stores `tail` for the packets written without publishing.
  void publish();

  uint32_t last() const { return last_; }
  uint64_t written() const { return written_; }

 private:
  uint8_t* header_ = nullptr;
  uint8_t* region_ = nullptr;
  size_t region_size_ = 0;
  uint32_t next_ = 0;
  uint32_t last_ = 0;
  uint64_t written_ = 0;
};

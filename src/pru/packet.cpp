#include "pru/packet.hpp"

#include <algorithm>

namespace pru_packet {

uint16_t checksum(const uint8_t* payload, size_t words) {
  // Two payload words per 64-bit load; the mask keeps the two low halves in
  // separate 32-bit lanes. A lane takes at most 65536 half-words before it
  // is folded, so it never carries into its neighbour.
  constexpr uint64_t kLowHalves = 0x0000FFFF0000FFFFull;
  constexpr size_t kPairsPerFold = 65536;
  uint32_t sum = 0;
  size_t i = 0;
  while (i + 2 <= words) {
    uint64_t lanes = 0;
    size_t end = std::min(words & ~size_t{1}, i + 2 * kPairsPerFold);
    for (; i < end; i += 2) {
      uint64_t pair;
      std::memcpy(&pair, payload + 4 * i, 8);
      lanes += pair & kLowHalves;
    }
    sum += static_cast<uint32_t>(lanes) + static_cast<uint32_t>(lanes >> 32);
  }
  if (i < words) sum += word_at(payload + 4 * i) & 0xFFFFu;
  return static_cast<uint16_t>(sum);
}

}  // namespace pru_packet

std::optional<PacketView::Tagged> PacketView::tagged() const {
  auto p = payload();
  if (p.size() < 4) return std::nullopt;
  uint32_t tag = pru_packet::word_at(p.data());
  size_t length = tag >> 16;
  if (length > p.size() - 4) return std::nullopt;
  return Tagged{static_cast<uint16_t>(tag & 0xFFFFu), p.subspan(4, length)};
}

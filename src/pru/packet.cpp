#include "pru/packet.hpp"

#include <algorithm>

namespace pru_packet {

namespace {

// Four payload words per vector step (SSE2 on x86, NEON on ARM, plain words
// elsewhere); the mask keeps each word's low half in its own 32-bit lane.
// Two accumulators hide the add latency. A lane takes at most 65536
// half-words between folds, so it cannot overflow. With `to`, the words are
// copied there on the way: one pass over the source.
using Lanes = uint32_t __attribute__((vector_size(16)));

template <bool Copy>
uint16_t sum_low_halves(uint8_t* to, const uint8_t* from, size_t words) {
  constexpr Lanes kLowHalf = {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF};
  constexpr size_t kWordsPerFold = 4 * 65536;
  uint32_t sum = 0;
  size_t i = 0;
  while (i + 8 <= words) {
    Lanes a = {}, b = {};
    size_t end = std::min(words & ~size_t{7}, i + kWordsPerFold);
    for (; i < end; i += 8) {
      Lanes x, y;
      std::memcpy(&x, from + 4 * i, 16);
      std::memcpy(&y, from + 4 * i + 16, 16);
      if constexpr (Copy) {
        std::memcpy(to + 4 * i, &x, 16);
        std::memcpy(to + 4 * i + 16, &y, 16);
      }
      a += x & kLowHalf;
      b += y & kLowHalf;
    }
    a += b;
    sum += a[0] + a[1] + a[2] + a[3];
  }
  for (; i < words; ++i) {
    uint32_t w = word_at(from + 4 * i);
    if constexpr (Copy) std::memcpy(to + 4 * i, &w, 4);
    sum += w & 0xFFFFu;
  }
  return static_cast<uint16_t>(sum);
}

}  // namespace

uint16_t checksum(const uint8_t* payload, size_t words) { return sum_low_halves<false>(nullptr, payload, words); }

uint16_t copy_and_checksum(uint8_t* to, const uint8_t* from, size_t size) {
  std::memcpy(to, from, std::min(size, kHeaderSize));
  if (size <= kHeaderSize) return 0;
  size_t words = (size - kHeaderSize) / 4;
  uint16_t sum = sum_low_halves<true>(to + kHeaderSize, from + kHeaderSize, words);
  size_t copied = kHeaderSize + 4 * words;
  std::memcpy(to + copied, from + copied, size - copied);
  return sum;
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

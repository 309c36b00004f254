#include "devices/oled64_fonts.hpp"

#include <cctype>

namespace {

// Five 3-bit rows packed top row first into 15 bits.
constexpr uint16_t kDigits[10] = {
    0b111'101'101'101'111, 0b010'110'010'010'111, 0b111'001'111'100'111, 0b111'001'111'001'111,
    0b101'101'111'001'001, 0b111'100'111'001'111, 0b111'100'111'101'111, 0b111'001'001'001'001,
    0b111'101'111'101'111, 0b111'101'111'001'111};
constexpr uint16_t kLetters[26] = {
    0b010'101'111'101'101, 0b110'101'110'101'110, 0b011'100'100'100'011, 0b110'101'101'101'110,
    0b111'100'110'100'111, 0b111'100'110'100'100, 0b011'100'101'101'011, 0b101'101'111'101'101,
    0b111'010'010'010'111, 0b001'001'001'101'010, 0b101'101'110'101'101, 0b100'100'100'100'111,
    0b101'111'111'101'101, 0b110'101'101'101'101, 0b010'101'101'101'010, 0b110'101'110'100'100,
    0b010'101'101'110'011, 0b110'101'110'101'101, 0b011'100'010'001'110, 0b111'010'010'010'010,
    0b101'101'101'101'111, 0b101'101'101'101'010, 0b101'101'111'111'101, 0b101'101'010'101'101,
    0b101'101'010'010'010, 0b111'001'010'100'111};
constexpr uint16_t kUnknown = 0b111'001'010'000'010;

uint16_t packed(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  if (std::isdigit(u)) return kDigits[u - '0'];
  if (std::isalpha(u)) return kLetters[std::toupper(u) - 'A'];
  switch (c) {
    case ' ': return 0;
    case '.': return 0b000'000'000'000'010;
    case ':': return 0b000'010'000'010'000;
    case '-': return 0b000'000'111'000'000;
    case '/': return 0b001'001'010'100'100;
    default: return kUnknown;
  }
}

}  // namespace

std::array<uint8_t, OLED64Fonts::kHeight> OLED64Fonts::glyph(char c) {
  uint16_t bits = packed(c);
  std::array<uint8_t, kHeight> rows{};
  for (int r = 0; r < kHeight; ++r) rows[r] = (bits >> (3 * (kHeight - 1 - r))) & 0x7;
  return rows;
}

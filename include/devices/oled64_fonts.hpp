#pragma once
// OLED64Fonts: the character bitmaps of the 64 x 64 display: 3 x 5 pixel
// glyphs for digits, letters (lower case drawn as upper case) and a little
// punctuation, each row three bits, most significant pixel on the left.
#include <array>
#include <cstdint>

class OLED64Fonts {
 public:
  static constexpr int kWidth = 3, kHeight = 5;
  // The glyph of `c`: five rows of three bits; unknown characters get '?'.
  static std::array<uint8_t, kHeight> glyph(char c);
};

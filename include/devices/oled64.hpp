#pragma once
// OLED64 ("oled64"): a 64 x 64 pixel graphic display on the US2066 link.
// An image goes over as 64 pixel rows, each one message: a command selecting
// the row (0x78, row) and its 8 bytes of pixels, left pixel in the most
// significant bit. The `text` field is drawn with OLED64Fonts (3 x 5 glyphs at
// twice their size, 8 characters a line, 5 lines) whenever it changes or the
// display comes back.
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "devices/i2c_slave.hpp"

class OLED64 : public I2CSlave {
 public:
  static constexpr int kSize = 64;

  // One byte per pixel, row by row; non-zero is lit.
  struct Image {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;
  };
  static Image render_text(const std::string& text);

  explicit OLED64(const VTree& config);

  void poll() override;
  // Refuses an image that is not 64 x 64 ("Image size must be 64x64 pixels").
  bool draw(const Image& image);

  ValueField<std::string>& text() const { return text_; }

 private:
  ValueField<std::string>& text_;
  std::atomic<bool> dirty_{true};
};

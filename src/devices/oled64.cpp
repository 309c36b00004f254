#include "devices/oled64.hpp"

#include "core/log.hpp"
#include "devices/oled64_fonts.hpp"
#include "devices/us2066.hpp"

ZEL_REGISTER_NODE("oled64", OLED64);

namespace {
constexpr int kScale = 2, kCellWidth = 8, kCellHeight = 12;
}

OLED64::OLED64(const VTree& config) : I2CSlave(config), text_(add_setting<ValueField<std::string>>(config, "text")) {
  describe("OLED64", "A 64 x 64 pixel graphic display.", "media");
  text_.attributes_for_update().detail = "Text drawn on the display, 8 characters a line; a line break starts a new line.";
  if (!text_.assigned()) text_.set("");
  text_.listen([this] { dirty_ = true; });
  enable_poll(config, 2);
}

OLED64::Image OLED64::render_text(const std::string& text) {
  Image image{kSize, kSize, std::vector<uint8_t>(kSize * kSize, 0)};
  int column = 0, line = 0;
  for (char c : text) {
    if (c == '\n' || column == kSize / kCellWidth) {
      ++line;
      column = 0;
      if (c == '\n') continue;
    }
    if (line >= kSize / kCellHeight) break;
    auto rows = OLED64Fonts::glyph(c);
    for (int r = 0; r < OLED64Fonts::kHeight * kScale; ++r)
      for (int x = 0; x < OLED64Fonts::kWidth * kScale; ++x)
        if (rows[r / kScale] & (4 >> (x / kScale)))
          image.pixels[(line * kCellHeight + 1 + r) * kSize + column * kCellWidth + 1 + x] = 1;
    ++column;
  }
  return image;
}

void OLED64::poll() {
  if (!us2066_check_link(*this)) {
    dirty_ = true;  // drawn again when it answers
    return;
  }
  if (dirty_.exchange(false) && !draw(render_text(text_.get()))) dirty_ = true;
}

bool OLED64::draw(const Image& image) {
  if (image.width != kSize || image.height != kSize ||
      image.pixels.size() != static_cast<std::size_t>(kSize * kSize)) {
    ZEL_ERROR("Image size must be 64x64 pixels");
    return false;
  }
  for (int y = 0; y < kSize; ++y) {
    uint8_t message[5 + kSize / 8] = {US2066::kOneCommand, 0x78, US2066::kOneCommand, static_cast<uint8_t>(y),
                                      US2066::kData};
    for (int x = 0; x < kSize; ++x)
      if (image.pixels[y * kSize + x]) message[5 + x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
    if (!ZEL_FAULT(faults_, write(message, sizeof message, true), "I2C write failure", "drawRow()")) return false;
  }
  return true;
}

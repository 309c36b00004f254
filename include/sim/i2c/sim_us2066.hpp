#pragma once
// SimUS2066: the character OLED controller's I2C protocol. Each message
// starts with a control byte: bit 6 set means data (to display RAM), clear
// means commands; bit 7 (Co) set means one byte follows before the next
// control byte. Commands understood: clear (0x01), entry mode (0x04..0x07,
// under RE its bits flip the display), display on/off (0x08..0x0F), function
// set (0x20..0x3F: RE in bit 1, two lines in bit 3), extended function set
// (0x08..0x0F under RE: four lines in bit 0), set display RAM address
// (0x80 | address) and, for the graphic variant, 0x78 followed by a pixel row
// index (data then fills that row, 8 bytes of 8 pixels). A read returns the
// busy flag (never busy here) and the address counter.
#include <string>

#include "sim/i2c/sim_chip.hpp"

class SimUS2066 : public SimChip {
 public:
  static constexpr int kColumns = 20;

  SimUS2066();

  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> bytes) override;

  // The characters of a display row (0-based) as the glass shows them.
  std::string row(int index) const;
  int lines() const;
  bool flipped() const;
  bool display_on() const;
  bool pixel(int x, int y) const;
  unsigned commands() const;

 private:
  void command(uint8_t c);
  void data(uint8_t d);

  mutable std::mutex mutex_;
  std::array<uint8_t, 128> ddram_{};
  std::array<std::array<uint8_t, 8>, 64> gdram_{};
  uint8_t address_ = 0;
  bool re_ = false, two_lines_ = false, four_lines_ = false, flipped_ = false, on_ = false;
  int graphic_row_ = -1;       // the pixel row data goes to, -1 for text
  bool expect_row_ = false;    // the byte after 0x78
  int graphic_column_ = 0;
  unsigned commands_ = 0;
};

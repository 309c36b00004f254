#pragma once
// US2066 ("us2066"): the character OLED controller (20 columns, up to four
// rows). Every message starts with a control byte: 0x00 commands, 0x40 data,
// 0x80 one command byte then another control byte.
//
// Rows: `lines` (1 to 4, from the configuration) string fields `row_0`...;
// row r starts at display address 0x20 * r in four-line mode, 0x40 * r in
// two-line mode. `upsidedown` flips characters and rows with the extended
// entry mode (0x05 under RE instead of 0x06). The poll (default 2 Hz) checks
// the link, sets the screen up after the chip was lost (`initalized`), and
// writes rows that changed.
#include <atomic>
#include <vector>

#include "devices/chip_test.hpp"
#include "devices/i2c_slave.hpp"

// The link check of the controller (also of the graphic OLED64): send the
// byte 0x08, then receive one byte; each result goes to the chip's faults.
inline bool us2066_check_link(I2CSlave& chip) {
  uint8_t c = 0;
  return ZEL_FAULT(chip.faults(), chip.write({0x08}), "I2C write failure", "send({0x08})") &&
         ZEL_FAULT(chip.faults(), chip.read(&c, 1, true), "I2C read failure", "receive(c)");
}

class US2066 : public I2CSlave {
 public:
  static constexpr int kColumns = 20;
  static constexpr uint8_t kCommands = 0x00, kData = 0x40, kOneCommand = 0x80;

  explicit US2066(const VTree& config);

  void poll() override;

  bool check_link() { return us2066_check_link(*this); }
  // Sets the display up (lines, orientation, cleared, on) and writes every row.
  bool init_screen();
  bool write_row(unsigned row);

  unsigned lines() const { return lines_.get(); }
  ValueField<std::string>& row(unsigned index) const { return *rows_.at(index); }
  ValueField<bool>& initalized() const { return initalized_; }
  ValueField<bool>& upsidedown() const { return upsidedown_; }

 protected:
  // Fills the rows' texts for derived screens; called before each write.
  virtual void refresh_rows() {}

 private:
  std::string link_test();

  ValueField<bool>& upsidedown_;
  ValueField<bool>& initalized_;
  ValueField<unsigned int>& lines_;
  std::vector<ValueField<std::string>*> rows_;
  std::atomic<bool> dirty_{true};
};

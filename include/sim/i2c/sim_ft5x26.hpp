#pragma once
// SimFT5X26: the touch controller's registers as the driver reads them:
// 0x02 the number of touch points, then the first point at 0x03..0x06
// (event flag in bits 7..6 and X bits 11..8, X bits 7..0, touch id in bits
// 7..4 and Y bits 11..8, Y bits 7..0). Tests touch and release the panel.
#include "sim/i2c/sim_chip.hpp"

class SimFT5X26 : public SimRegisterChip {
 public:
  static constexpr uint8_t kStatus = 0x02;

  void touch(uint16_t x, uint16_t y);
  void release();
};

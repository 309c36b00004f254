#pragma once
// FT5X26 ("ft5x26"): the capacitive touch panel controller. Each poll
// (default 20 Hz) reads five registers from 0x02 in one combined transfer:
// the number of touch points, then the first point's X and Y (12 bits each).
// `touches` is the count, `x` and `y` the first point while touched.
#include "devices/i2c_slave.hpp"

class FT5X26 : public I2CSlave {
 public:
  static constexpr uint8_t kStatus = 0x02;

  explicit FT5X26(const VTree& config);

  void poll() override;
  bool read_touch();

  ValueField<unsigned char>& touches() const { return touches_; }
  ValueField<unsigned int>& x() const { return x_; }
  ValueField<unsigned int>& y() const { return y_; }

 private:
  ValueField<unsigned char>& touches_;
  ValueField<unsigned int>& x_;
  ValueField<unsigned int>& y_;
};

#include "devices/ft5x26.hpp"

ZEL_REGISTER_NODE("ft5x26", FT5X26);

FT5X26::FT5X26(const VTree& config)
    : I2CSlave(config),
      touches_(add<ValueField<unsigned char>>("touches")),
      x_(add<ValueField<unsigned int>>("x")),
      y_(add<ValueField<unsigned int>>("y")) {
  describe("FT5X26", "I2C capacitive touch panel controller.", "hand-up");
  for (auto* f : {static_cast<FieldBase*>(&touches_), static_cast<FieldBase*>(&x_), static_cast<FieldBase*>(&y_)})
    f->set_readonly(true);
  touches_.set(0);
  x_.set(0);
  y_.set(0);
  enable_poll(config, 20);
}

void FT5X26::poll() { ZEL_FAULT(faults_, read_touch(), "I2C read failure", "readTouch()"); }

bool FT5X26::read_touch() {
  uint8_t r[5] = {};
  auto lock = exclusive();
  if (!write({kStatus}, false) || !read(r, sizeof r, true)) return false;
  unsigned count = r[0] & 0x0F;
  touches_.set(static_cast<unsigned char>(count));
  if (count > 0) {
    x_.set(((r[1] & 0x0F) << 8) | r[2]);
    y_.set(((r[3] & 0x0F) << 8) | r[4]);
  }
  return true;
}

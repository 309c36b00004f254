#include "devices/us2066.hpp"

#include <algorithm>

ZEL_REGISTER_NODE("us2066", US2066);

US2066::US2066(const VTree& config)
    : I2CSlave(config),
      upsidedown_(add_setting<ValueField<bool>>(config, "upsidedown")),
      initalized_(add<ValueField<bool>>("initalized")),
      lines_(add_setting<ValueField<unsigned int>>(config, "lines")) {
  describe("US2066", "A modular character display control chip.", "widget");
  upsidedown_.attributes_for_update().label = "Upside down";
  upsidedown_.attributes_for_update().detail = "Flip the characters and rows for mounting the screen upside down.";
  if (!upsidedown_.assigned()) upsidedown_.set(false);
  initalized_.set(false);
  initalized_.set_readonly(true);
  if (!lines_.assigned()) lines_.set(4);
  lines_.set(std::clamp(lines_.get(), 1u, 4u));
  lines_.set_readonly(true);
  lines_.attributes_for_update().label = "Lines";
  lines_.attributes_for_update().detail = "The number of active lines for this display.";
  for (unsigned i = 0; i < lines_.get(); ++i) {
    auto& row = add_setting<ValueField<std::string>>(config, "row_" + std::to_string(i));
    row.attributes_for_update().detail = "String to display on this row";
    if (!row.assigned()) row.set("");
    row.listen([this] { dirty_ = true; });
    rows_.push_back(&row);
  }
  upsidedown_.listen([this] { initalized_.set(false); });
  add<ButtonField>("init_screen", "Initialize screen", [this] { init_screen(); });
  add_node<ChipTest>(config, "i2c_communication", "I2C communication",
                     "Reads and writes to the US2066 OLED controller.", "ZEL-110", [this] { return link_test(); });
  enable_poll(config, 2);
}

void US2066::poll() {
  if (!check_link()) {
    initalized_.set(false);  // set up again once it answers
    return;
  }
  if (!initalized_.get()) {
    init_screen();
    return;
  }
  refresh_rows();
  if (!dirty_.exchange(false)) return;
  for (unsigned r = 0; r < rows_.size(); ++r)
    if (!write_row(r)) {
      dirty_ = true;
      return;
    }
}

bool US2066::init_screen() {
  uint8_t extended = lines_.get() >= 3 ? 0x09 : 0x08;            // four-line mode or not
  uint8_t function = lines_.get() >= 2 ? 0x28 : 0x20;            // two-line bit
  uint8_t entry = upsidedown_.get() ? 0x05 : 0x06;               // common/segment direction
  const uint8_t setup[] = {kCommands, 0x2A, extended, entry, function, 0x01, 0x80, 0x0C};
  bool ok = ZEL_FAULT(faults_, write(setup, sizeof setup, true), "I2C write failure", "initScreen()");
  refresh_rows();
  for (unsigned r = 0; ok && r < rows_.size(); ++r) ok = write_row(r);
  initalized_.set(ok);
  if (ok) dirty_ = false;
  return ok;
}

bool US2066::write_row(unsigned row) {
  uint8_t stride = lines_.get() >= 3 ? 0x20 : 0x40;
  std::string text = rows_.at(row)->get();
  text.resize(kColumns, ' ');
  uint8_t message[3 + kColumns] = {kOneCommand, static_cast<uint8_t>(0x80 | (row * stride)), kData};
  std::copy(text.begin(), text.end(), message + 3);
  return ZEL_FAULT(faults_, write(message, sizeof message, true), "I2C write failure", "writeRow()");
}

std::string US2066::link_test() { return check_link() ? std::string() : "The US2066 does not answer"; }

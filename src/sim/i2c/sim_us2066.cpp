#include "sim/i2c/sim_us2066.hpp"

SimUS2066::SimUS2066() { ddram_.fill(' '); }

bool SimUS2066::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  std::size_t i = 0;
  while (i < bytes.size()) {
    uint8_t control = bytes[i++];
    bool is_data = control & 0x40;
    bool single = control & 0x80;
    std::size_t end = single ? std::min(i + 1, bytes.size()) : bytes.size();
    for (; i < end; ++i) is_data ? data(bytes[i]) : command(bytes[i]);
  }
  return true;
}

bool SimUS2066::read(std::span<uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  for (auto& out : bytes) out = address_ & 0x7F;
  return true;
}

void SimUS2066::command(uint8_t c) {
  ++commands_;
  if (expect_row_) {
    expect_row_ = false;
    graphic_row_ = c & 0x3F;
    graphic_column_ = 0;
    return;
  }
  if (c == 0x78) {
    expect_row_ = true;
  } else if (c & 0x80) {
    address_ = c & 0x7F;
    graphic_row_ = -1;
  } else if ((c & 0xE0) == 0x20) {
    re_ = c & 0x02;
    two_lines_ = c & 0x08;
  } else if ((c & 0xF0) == 0x10) {
    // cursor or display shift: not modelled
  } else if ((c & 0xF8) == 0x08) {
    if (re_) four_lines_ = c & 0x01;
    else on_ = c & 0x04;
  } else if ((c & 0xFC) == 0x04) {
    if (re_) flipped_ = (c & 0x03) == 0x01;
  } else if (c == 0x01) {
    ddram_.fill(' ');
    address_ = 0;
  }
}

void SimUS2066::data(uint8_t d) {
  if (graphic_row_ >= 0) {
    if (graphic_column_ < 8) gdram_[graphic_row_][graphic_column_++] = d;
    return;
  }
  ddram_[address_ & 0x7F] = d;
  address_ = (address_ + 1) & 0x7F;
}

int SimUS2066::lines() const {
  std::lock_guard lock(mutex_);
  return four_lines_ ? 4 : two_lines_ ? 2 : 1;
}

std::string SimUS2066::row(int index) const {
  std::lock_guard lock(mutex_);
  int rows = four_lines_ ? 4 : two_lines_ ? 2 : 1;
  int stride = rows == 4 ? 0x20 : 0x40;
  if (index < 0 || index >= rows) return {};
  auto start = ddram_.begin() + index * stride;
  return std::string(start, start + kColumns);
}

bool SimUS2066::flipped() const {
  std::lock_guard lock(mutex_);
  return flipped_;
}

bool SimUS2066::display_on() const {
  std::lock_guard lock(mutex_);
  return on_;
}

bool SimUS2066::pixel(int x, int y) const {
  std::lock_guard lock(mutex_);
  return gdram_.at(y).at(x / 8) & (0x80 >> (x % 8));
}

unsigned SimUS2066::commands() const {
  std::lock_guard lock(mutex_);
  return commands_;
}

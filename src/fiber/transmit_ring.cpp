#include "fiber/transmit_ring.hpp"

#include "pru/device_memory.hpp"

namespace fl = fiber_layout;

uint16_t TransmitRing::index() const {
  return static_cast<uint16_t>(device_memory::load_acquire32(ring_, fl::kIndexWord) & 0xFFFF);
}

void TransmitRing::begin() {
  if (open_) return;
  index_ = index();
  open_ = true;
}

void TransmitRing::put(uint8_t byte, char mark) {
  if (!ring_) return;
  begin();
  if (index_ >= capacity_) {
    index_ = 0;  // a corrupted index: start over and lose this byte
    return;
  }
  ring_[fl::kBytes + index_] = byte;
  ring_[fl::kMarks + index_] = static_cast<uint8_t>(mark);
  index_ = (index_ + 1) % capacity_;
}

void TransmitRing::publish() {
  if (!ring_ || !open_) return;
  device_memory::store_release32(ring_, fl::kIndexWord, index_);
  open_ = false;
}

void TransmitRing::write(const LowLevelFiberMessage& message) {
  message.encode([this](uint8_t byte, char mark) { put(byte, mark); });
  publish();
}

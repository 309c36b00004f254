#include "fiber/frame_decoder.hpp"

#include "fiber/transmit_ring.hpp"

namespace fl = fiber_layout;
namespace fw = fiber_wire;

void FrameDecoder::feed(std::span<const uint8_t> bytes) {
  for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    feed_entry(static_cast<uint16_t>(bytes[i] | (bytes[i + 1] << 8)));
}

void FrameDecoder::drop_open_frame() {
  if (!open_) return;
  open_ = false;
  ++counts_.broken_frames;
}

void FrameDecoder::feed_entry(uint16_t entry) {
  if (entry & fl::kErrorFlags) {
    if (entry & fl::kNoiseFlag) ++counts_.noise;
    if (entry & fl::kBreakFlag) ++counts_.breaks;
    if (entry & fl::kFrameErrorFlag) ++counts_.frame_errors;
    if (entry & fl::kOverrunFlag) ++counts_.overruns;
    if (entry & fl::kTimeoutFlag) ++counts_.timeouts;
    drop_open_frame();
    return;
  }
  auto byte = static_cast<uint8_t>(entry & 0xFF);
  if (!(entry & fl::kDelimiterFlag)) {
    if (!open_) {
      ++counts_.noise;
    } else if (frame_.data.size() >= kMaxFrame) {
      drop_open_frame();
    } else {
      frame_.data.push_back(byte);
    }
    return;
  }
  if (byte & fw::kOpeningBit) {
    drop_open_frame();
    open_ = true;
    opening_ = byte;
    frame_.address = byte & fw::kAddressMask;
    frame_.reply = byte & fw::kReplyBit;
    frame_.fast = byte & fw::kFastBit;
    frame_.data.clear();
    return;
  }
  if (!open_) {
    ++counts_.noise;
    return;
  }
  if (byte != (opening_ & ~fw::kOpeningBit)) {
    drop_open_frame();
    return;
  }
  open_ = false;
  ++counts_.frames;
  sink_(frame_);
}

#pragma once
// FrameDecoder: rebuilds frames from the bytes a loop's UART received (the
// 16-bit entries of the receive stream, see fiber_layout). An opening
// delimiter starts a frame; the closing delimiter that matches it (same
// address, reply and fast bits, no 0x40) ends it. Everything else is counted,
// never thrown:
// - ordinary bytes and closing delimiters outside a frame (line noise);
// - broken frames: a new opening delimiter before the close, a closing one
//   that does not match, a frame longer than kMaxFrame, a UART error inside a
//   frame (the frame is dropped);
// - the UART's own error flags, one counter each.
#include <cstdint>
#include <functional>
#include <span>

#include "fiber/low_level_fiber_message.hpp"

struct FiberReceiveCounts {
  uint64_t noise = 0;
  uint64_t breaks = 0;
  uint64_t frame_errors = 0;
  uint64_t overruns = 0;
  uint64_t timeouts = 0;
  uint64_t broken_frames = 0;
  uint64_t frames = 0;
};

class FrameDecoder {
 public:
  static constexpr size_t kMaxFrame = 300;
  using Sink = std::function<void(const LowLevelFiberMessage&)>;

  explicit FrameDecoder(Sink sink) : sink_(std::move(sink)) { frame_.data.reserve(kMaxFrame); }

  // Entries as the inbox hands them over: little-endian 16-bit words.
  void feed(std::span<const uint8_t> bytes);
  void feed_entry(uint16_t entry);

  const FiberReceiveCounts& counts() const { return counts_; }

 private:
  void drop_open_frame();

  Sink sink_;
  LowLevelFiberMessage frame_;
  uint8_t opening_ = 0;
  bool open_ = false;
  FiberReceiveCounts counts_;
};

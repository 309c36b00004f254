#pragma once
// FiberLoop ("fiber_loop"): a fiber optic loop driven by one core of a PRU
// subsystem. Frames go out through the core's transmit ring in shared RAM;
// the bytes the loop's UART receives come back through the packet inbox on
// the receive stream, are rebuilt into frames (FrameDecoder) and handed to
// the FiberSlave child whose address they carry.
//
// Settings: `pru` (tree path of the pru_icss; by default the parent),
// `pru_index` (the core that carries the loop, 0 or 1), `repeat` (how often
// an unanswered slow message is sent again). Read-only: the receive counters
// rx_noise_count (UART noise and bytes between frames), rx_break_count,
// rx_frame_error_count, rx_overrun_count, rx_timeout_count,
// rx_broken_frame_count, rx_frame_count. `transmit` takes a frame as text
// ("3 10": address, then payload bytes in hexadecimal) and sends it;
// `loopback_test` sends a frame and expects it back unchanged.
//
// The receive callback runs on the subsystem's thread and only queues the
// bytes; decoding and the slaves run on the loop's own context.
#include <array>
#include <mutex>
#include <span>
#include <vector>

#include "core/component.hpp"
#include "fiber/frame_decoder.hpp"
#include "fiber/transmit_ring.hpp"

class FiberSlave;
class PRUICSS;

class FiberLoop : public Component {
 public:
  static constexpr uint8_t kLoopbackAddress = 31;
  static constexpr double kLoopbackTimeout = 0.5;
  // Received bytes waiting for the loop's poll, at most; more (a loop whose
  // context has stalled) are dropped and counted as overruns.
  static constexpr size_t kMaxPendingBytes = 256 * 1024;

  explicit FiberLoop(const VTree& config);

  void init() override;
  void poll() override;

  void transmit(const LowLevelFiberMessage& message);
  // Bytes of the receive stream (any thread).
  void receive_bytes(std::span<const uint8_t> bytes);
  // One rebuilt frame: to the slave of its address.
  void receive(const LowLevelFiberMessage& frame);
  void loopback_test();

  unsigned repeat() const { return repeat_.get(); }
  std::string loopback_result() const { return loopback_result_.get(); }

 private:
  void publish_counts();
  void transmit_text();

  ValueField<unsigned int>& repeat_;
  ValueField<unsigned int>& pru_index_;
  ValueField<std::string>& pru_;
  ValueField<unsigned long long>& rx_noise_count_;
  ValueField<unsigned long long>& rx_break_count_;
  ValueField<unsigned long long>& rx_frame_error_count_;
  ValueField<unsigned long long>& rx_overrun_count_;
  ValueField<unsigned long long>& rx_timeout_count_;
  ValueField<unsigned long long>& rx_broken_frame_count_;
  ValueField<unsigned long long>& rx_frame_count_;
  ValueField<std::string>& transmit_;
  ValueField<std::string>& loopback_result_;

  PRUICSS* subsystem_ = nullptr;
  std::array<FiberSlave*, 32> slaves_{};
  std::mutex ring_mutex_;
  TransmitRing ring_;
  std::mutex received_mutex_;
  std::vector<uint8_t> received_;
  uint64_t received_dropped_ = 0;  // under received_mutex_
  std::vector<uint8_t> decoding_;
  FrameDecoder decoder_;
  uint64_t overruns_ = 0;  // entries dropped before decoding
  LowLevelFiberMessage loopback_sent_;
  uint64_t loopback_since_ns_ = 0;
};

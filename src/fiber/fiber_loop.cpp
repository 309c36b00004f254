#include "fiber/fiber_loop.hpp"

#include <sstream>
#include <utility>

#include "core/clock.hpp"
#include "core/log.hpp"
#include "fiber/fiber_slave.hpp"
#include "pru/pruicss.hpp"

ZEL_REGISTER_NODE("fiber_loop", FiberLoop);

namespace {

ValueField<unsigned long long>& counter(Node& node, const char* name, const char* detail) {
  auto& f = node.add<ValueField<unsigned long long>>(name);
  f.set(0);
  f.set_readonly(true);
  f.attributes_for_update().detail = detail;
  return f;
}

}  // namespace

FiberLoop::FiberLoop(const VTree& config)
    : Component(config),
      repeat_(add_setting<ValueField<unsigned int>>(config, "repeat")),
      pru_index_(add_setting<ValueField<unsigned int>>(config, "pru_index")),
      pru_(add_setting<ValueField<std::string>>(config, "pru")),
      rx_noise_count_(counter(*this, "rx_noise_count", "Bytes received with noise or between frames.")),
      rx_break_count_(counter(*this, "rx_break_count", "Breaks on the receive line.")),
      rx_frame_error_count_(counter(*this, "rx_frame_error_count", "Bytes received without their stop bit.")),
      rx_overrun_count_(counter(*this, "rx_overrun_count", "Bytes the receiver lost to an overrun.")),
      rx_timeout_count_(counter(*this, "rx_timeout_count", "Frames the receiver gave up on mid-way.")),
      rx_broken_frame_count_(counter(*this, "rx_broken_frame_count", "Frames dropped for a missing or wrong delimiter.")),
      rx_frame_count_(counter(*this, "rx_frame_count", "Frames received whole.")),
      transmit_(add<ValueField<std::string>>("transmit")),
      loopback_result_(add<ValueField<std::string>>("loopback_result")),
      decoder_([this](const LowLevelFiberMessage& frame) { receive(frame); }) {
  describe("Fiber loop", "Fiber optic loop", "share");
  if (!repeat_.assigned()) repeat_.set(2);
  if (!pru_index_.assigned()) pru_index_.set(1);
  repeat_.attributes_for_update().detail = "How often a message without a reply is sent again.";
  pru_index_.attributes_for_update().detail = "The PRU core that carries this loop.";
  pru_index_.set_readonly(true);
  pru_.set_readonly(true);
  transmit_.attributes_for_update().detail = "Sends a frame: the address, then the payload bytes, in hexadecimal.";
  transmit_.listen([this] { transmit_text(); });
  loopback_result_.set("");
  loopback_result_.set_readonly(true);
  add<ButtonField>("loopback_test", "Fiber Loopback", [this] { loopback_test(); })
      .attributes_for_update().detail = "Sends and receives data on this fiber loop, assuming a loopback.";
  enable_poll(config, 100.0);
}

void FiberLoop::init() {
  subsystem_ = pru_.get().empty() ? dynamic_cast<PRUICSS*>(parent()) : nullptr;
  if (!pru_.get().empty()) {
    const Vertex* top = this;
    while (top->parent()) top = top->parent();
    subsystem_ = dynamic_cast<PRUICSS*>(top->find(pru_.get()));
  }
  if (!subsystem_) report_build_failure(path(), type(), "a fiber loop needs its pru_icss: beneath it, or named by 'pru'");
  if (pru_index_.get() > 1) {
    report_build_failure(path(), type(), "pru_index is 0 or 1");
    subsystem_ = nullptr;
  }
  if (subsystem_)
    subsystem_->subscribe(fiber_layout::kReceiveStream,
                          [this](std::span<const uint8_t> bytes) { receive_bytes(bytes); });
  for (auto& child : children()) {
    auto* slave = dynamic_cast<FiberSlave*>(child.get());
    if (!slave || slave->address() > fiber_wire::kAddressMask) continue;
    if (slaves_[slave->address()])
      report_build_failure(slave->path(), slave->type(), "the address is taken by another slave of the loop");
    else
      slaves_[slave->address()] = slave;
  }
}

void FiberLoop::transmit(const LowLevelFiberMessage& message) {
  std::lock_guard lock(ring_mutex_);
  if (!ring_.mapped() && subsystem_) {
    auto ram = subsystem_->shared_ram();
    size_t offset = fiber_layout::kRingOffset[pru_index_.get()];
    if (ram.size() >= offset + fiber_layout::kRingSize) ring_ = TransmitRing(ram.data() + offset);
  }
  ring_.write(message);
}

void FiberLoop::receive_bytes(std::span<const uint8_t> bytes) {
  std::lock_guard lock(received_mutex_);
  if (received_.size() + bytes.size() > kMaxPendingBytes) {
    received_dropped_ += bytes.size() / 2;
    return;
  }
  received_.insert(received_.end(), bytes.begin(), bytes.end());
}

void FiberLoop::poll() {
  uint64_t dropped = 0;
  {
    std::lock_guard lock(received_mutex_);
    decoding_.swap(received_);
    dropped = std::exchange(received_dropped_, 0);
  }
  if (dropped) overruns_ += dropped;
  decoder_.feed(decoding_);
  decoding_.clear();
  publish_counts();
  if (loopback_result_.get() == "waiting" &&
      Clock::seconds_since(loopback_since_ns_) > kLoopbackTimeout) {
    ZEL_WARN("{} loopback test failed: nothing came back", name());
    loopback_result_.set("failed");
  }
}

void FiberLoop::receive(const LowLevelFiberMessage& frame) {
  if (frame.address == kLoopbackAddress && !frame.reply && loopback_result_.get() == "waiting") {
    auto expected = loopback_sent_.data;
    uint16_t cs = LowLevelFiberMessage::checksum(expected.data(), expected.size());
    expected.push_back(static_cast<uint8_t>(cs & 0xFF));
    expected.push_back(static_cast<uint8_t>(cs >> 8));
    loopback_result_.set(frame.data == expected && !frame.fast ? "passed" : "failed");
    return;
  }
  if (auto* slave = slaves_[frame.address & fiber_wire::kAddressMask]) slave->receive(frame);
}

void FiberLoop::loopback_test() {
  loopback_sent_ = {};
  loopback_sent_.address = kLoopbackAddress;
  for (uint8_t i = 0; i < 16; ++i) loopback_sent_.data.push_back(static_cast<uint8_t>(i * 17));
  loopback_since_ns_ = Clock::steady_ns();
  loopback_result_.set("waiting");
  transmit(loopback_sent_);
}

void FiberLoop::transmit_text() {
  std::istringstream in(transmit_.get());
  LowLevelFiberMessage m;
  unsigned value = 0;
  if (!(in >> std::hex >> value) || value > fiber_wire::kAddressMask) {
    ZEL_WARN("{} transmit: an address 0 to 1f comes first", name());
    return;
  }
  m.address = static_cast<uint8_t>(value);
  while (in >> std::hex >> value) {
    if (value > 0xFF || m.data.size() >= FrameDecoder::kMaxFrame) {
      ZEL_WARN("{} transmit: bytes are 0 to ff, at most {}", name(), FrameDecoder::kMaxFrame);
      return;
    }
    m.data.push_back(static_cast<uint8_t>(value));
  }
  transmit(m);
}

void FiberLoop::publish_counts() {
  const auto& c = decoder_.counts();
  auto update = [](ValueField<unsigned long long>& f, uint64_t v) {
    if (f.get() != v) f.set(v);
  };
  update(rx_noise_count_, c.noise);
  update(rx_break_count_, c.breaks);
  update(rx_frame_error_count_, c.frame_errors);
  update(rx_overrun_count_, c.overruns + overruns_);
  update(rx_timeout_count_, c.timeouts);
  update(rx_broken_frame_count_, c.broken_frames);
  update(rx_frame_count_, c.frames);
}

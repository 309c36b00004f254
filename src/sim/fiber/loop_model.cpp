#include "sim/fiber/loop_model.hpp"

#include <chrono>
#include <cmath>
#include <cstring>
#include <numbers>
#include <utility>

#include "fiber/avocet_slave.hpp"
#include "fiber/high_level_fiber_message.hpp"
#include "fiber/transmit_ring.hpp"
#include "pru/device_memory.hpp"
#include "pru/subsystem_layout.hpp"
#include "sim/pru/packet_writer.hpp"

namespace fl = fiber_layout;

namespace {

uint64_t now_ns() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count());
}

// Entries per inbox packet: its payload less the tag, two bytes each.
constexpr size_t kEntriesPerPacket = (1024 - 4) / 2;

// The bytes of a reply record after its status and length.
template <class Reply>
std::vector<uint8_t> record_payload(const Reply& r) {
  std::vector<uint8_t> out(sizeof r - 2);
  std::memcpy(out.data(), reinterpret_cast<const uint8_t*>(&r) + 2, out.size());
  return out;
}

}  // namespace

LoopModel::LoopModel(std::vector<uint8_t> addresses, std::vector<uint8_t> foreign)
    : decoder_([this](const LowLevelFiberMessage& frame) { answer(frame); }), start_ns_(now_ns()) {
  for (uint8_t a : addresses)
    if (a <= fiber_wire::kAddressMask) present_ |= 1u << a;
  for (uint8_t a : foreign)
    if (a <= fiber_wire::kAddressMask) foreign_ |= 1u << a;
}

void LoopModel::set_plugged(uint8_t address, bool plugged) {
  if (address > fiber_wire::kAddressMask) return;
  if (plugged)
    unplugged_ &= ~(1u << address);
  else
    unplugged_ |= 1u << address;
}

bool LoopModel::plugged(uint8_t address) const {
  return address <= fiber_wire::kAddressMask && !(unplugged_ & (1u << address));
}

void LoopModel::step(int core, uint8_t* memory, PacketWriter& writer) {
  uint8_t* ring = memory + pru_layout::kSharedRam + fl::kRingOffset[core];
  uint32_t write = device_memory::load_acquire32(ring, fl::kIndexWord) & 0xFFFF;
  if (!started_[core]) {  // a firmware start sends from the index as it finds it
    started_[core] = true;
    read_index_[core] = static_cast<uint16_t>(write);
  }
  if (noise_.exchange(false)) {
    for (size_t i = 0; i < kNoiseBytes; ++i) out_.push_back(static_cast<uint16_t>(0x55 + i));
    out_.push_back(static_cast<uint16_t>(0xAA | fl::kNoiseFlag));
    out_.push_back(static_cast<uint16_t>(0x41 | fl::kDelimiterFlag));  // opened, never closed
    out_.push_back(0x12);
  }
  if (write < fl::kCapacity) {
    uint16_t& r = read_index_[core];
    while (r != write) {
      uint16_t entry = ring[fl::kBytes + r];
      if (ring[fl::kMarks + r] == static_cast<uint8_t>(fiber_wire::kDelimiterMark)) entry |= fl::kDelimiterFlag;
      if (loopback_)
        out_.push_back(entry);
      else
        decoder_.feed_entry(entry);
      r = static_cast<uint16_t>((r + 1) % fl::kCapacity);
    }
  }
  flush(writer);
}

void LoopModel::answer(const LowLevelFiberMessage& frame) {
  // A module takes a command of a single byte (3 bytes with the checksum),
  // which the host's rule for replies (at least 4 bytes) would refuse.
  bool intact = frame.data.size() >= 3 && frame.stored_checksum() == frame.computed_checksum();
  if (frame.reply || !intact) return;
  uint8_t a = frame.address;
  if (!(present_ & (1u << a)) || !plugged(a)) {
    sessions_[a] = 0;  // unplugged: powered down
    return;
  }
  LowLevelFiberMessage reply;
  reply.address = a;
  reply.reply = true;
  reply.fast = frame.fast;
  std::vector<uint8_t> command(frame.data.begin(), frame.data.end() - 2);
  if (frame.fast) {
    reply.data = fast_reply();
    ++fast_messages_;
  } else {
    if (command.empty()) return;
    reply.data = slow_reply(a, command);
  }
  ++replies_;
  emit(reply);
}

std::vector<uint8_t> LoopModel::slow_reply(uint8_t address, const std::vector<uint8_t>& command) {
  std::vector<uint8_t> payload;
  switch (static_cast<FiberCommand>(command[0])) {
    case FiberCommand::Identify: {
      FiberIdentifyReply r{};
      r.board_id = (foreign_ & (1u << address)) ? kForeignBoardId : AvocetSlave::kBoardId;
      r.hardware_version = 2;
      r.pic_major_version = 1;
      r.pic_minor_version = 4;
      r.pic_letter_version = 'c';
      r.fpga_major_version = 3;
      r.fpga_minor_version = 1;
      r.fpga_build_version = 17;
      r.io_input_length = AvocetSlave::kInputBytes;
      r.io_output_length = AvocetSlave::kOutputBytes;
      payload = record_payload(r);
      break;
    }
    case FiberCommand::Connect: {
      FiberConnectReply r{};
      r.address = command.size() > 1 ? command[1] : 0xFF;
      r.session = ++sessions_[address];
      payload = record_payload(r);
      break;
    }
    default:
      break;
  }
  uint8_t status = 0;
  auto fault = Fault::None;
  uint8_t target = fault_address_;
  if (target == kAnyModule || target == address) fault = static_cast<Fault>(fault_.exchange(0));
  if (fault == Fault::StatusError) status = 0x40;
  if (fault == Fault::StatusWarning) status = 0x04;
  if (fault == Fault::ShortReply) payload.clear();
  std::vector<uint8_t> data(2 + payload.size());
  data[0] = status;
  data[1] = static_cast<uint8_t>(payload.size());
  std::copy(payload.begin(), payload.end(), data.begin() + 2);
  corrupt_next_ = fault == Fault::BadChecksum;
  return data;
}

std::vector<uint8_t> LoopModel::fast_reply() {
  double t = static_cast<double>(now_ns() - start_ns_) / 1e9;
  std::vector<uint8_t> data{0, static_cast<uint8_t>(AvocetSlave::kInputBytes)};
  for (int k = 0; k < 4; ++k) {
    auto v = static_cast<float>((k + 1) * std::sin(2 * std::numbers::pi * 0.2 * t + k));
    uint8_t raw[4];
    std::memcpy(raw, &v, 4);
    data.insert(data.end(), raw, raw + 4);
  }
  uint8_t bits = 0;
  for (int k = 0; k < 4; ++k) bits |= static_cast<uint8_t>((static_cast<int>(t * (k + 1)) & 1) << k);
  data.push_back(bits);
  return data;
}

void LoopModel::emit(const LowLevelFiberMessage& reply) {
  size_t position = 0, checksum_low = reply.data.size() + 1;
  bool corrupt = std::exchange(corrupt_next_, false);
  reply.encode([&](uint8_t byte, char mark) {
    if (corrupt && position++ == checksum_low) byte ^= 0xFF;
    out_.push_back(static_cast<uint16_t>(byte | (mark == fiber_wire::kDelimiterMark ? fl::kDelimiterFlag : 0)));
  });
}

void LoopModel::flush(PacketWriter& writer) {
  for (size_t at = 0; at < out_.size(); at += kEntriesPerPacket) {
    size_t n = std::min(kEntriesPerPacket, out_.size() - at);
    writer.write_tagged(fl::kReceiveStream, {reinterpret_cast<const uint8_t*>(out_.data() + at), n * 2});
  }
  out_.clear();
}

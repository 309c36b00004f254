#pragma once
// LoopModel: the fiber loop as the PRU firmware and the modules on it see
// it, run as the firmware step of a core that runs the fiber program. Each
// step reads the transmit ring from where it last stopped, decodes the
// frames as a module would and answers, as the module of the frame's
// address, through the packet inbox on the loop's receive stream (16-bit
// entries, bit 8 for a delimiter).
//
// Modules answer identify (board id AvocetSlave's, versions, IO lengths
// 17/1), connect (echoing the address), initiate, error code and power off
// with their replies, and fast messages with four analog inputs that move
// (sines) and four digital inputs that toggle. A frame with a bad checksum
// or for an absent or unplugged module gets no answer.
//
// Faults on request: a module unplugged and plugged back; the next slow
// reply with a bad checksum, status 0x40 or 0x04, or cut short (length 0,
// no payload); line noise (stray bytes, a byte with the UART's noise flag
// and a broken frame); a loopback plug.
#include <atomic>
#include <cstdint>
#include <vector>

#include "fiber/frame_decoder.hpp"

class PacketWriter;

class LoopModel {
 public:
  enum class Fault : int { None, BadChecksum, StatusError, StatusWarning, ShortReply };
  static constexpr size_t kNoiseBytes = 5;

  // The board id of a module of another type than AvocetSlave.
  static constexpr uint16_t kForeignBoardId = 0x0B01;

  // Modules at `addresses`; those also in `foreign` identify as kForeignBoardId.
  explicit LoopModel(std::vector<uint8_t> addresses, std::vector<uint8_t> foreign = {});

  // The firmware step (model thread).
  void step(int core, uint8_t* memory, PacketWriter& writer);

  // Control, from any thread.
  void set_plugged(uint8_t address, bool plugged);
  bool plugged(uint8_t address) const;
  static constexpr uint8_t kAnyModule = 0xFF;
  // The next slow reply of `address` (or of any module) carries the fault.
  void inject(Fault fault, uint8_t address = kAnyModule) {
    fault_address_ = address;
    fault_ = static_cast<int>(fault);
  }
  void add_noise() { noise_ = true; }
  // A loopback plug in place of the modules: every byte sent comes back as
  // it was sent, and no module answers.
  void set_loopback(bool on) { loopback_ = on; }

  uint64_t replies() const { return replies_; }
  uint64_t fast_messages() const { return fast_messages_; }

 private:
  void answer(const LowLevelFiberMessage& frame);
  std::vector<uint8_t> slow_reply(uint8_t address, const std::vector<uint8_t>& command);
  std::vector<uint8_t> fast_reply();
  void emit(const LowLevelFiberMessage& reply);
  void flush(PacketWriter& writer);

  uint32_t present_ = 0;  // address bits
  uint32_t foreign_ = 0;
  std::atomic<uint32_t> unplugged_{0};
  std::atomic<int> fault_{0};
  std::atomic<uint8_t> fault_address_{kAnyModule};
  std::atomic<bool> noise_{false};
  std::atomic<bool> loopback_{false};
  std::atomic<uint64_t> replies_{0};
  std::atomic<uint64_t> fast_messages_{0};
  uint32_t sessions_[32] = {};
  bool corrupt_next_ = false;
  uint16_t read_index_[2] = {};
  bool started_[2] = {};
  FrameDecoder decoder_;
  std::vector<uint16_t> out_;  // entries waiting for the inbox
  uint64_t start_ns_ = 0;
};

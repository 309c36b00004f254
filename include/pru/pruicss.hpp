#pragma once
// PRUICSS ("pru_icss"): the PRU subsystem. It maps the subsystem's registers
// and memories ("device" at "address", "reg_size" bytes) and the 8 MiB packet
// region ("region_device" at "region_address"), restarts the subsystem
// (standby handshake, program load, start of both cores, inbox enabled), and
// on every poll reads the packet inbox and hands each tagged packet to the
// consumer of its stream. It is a context of its own: its cores ("pru0",
// "pru1") and the stream consumers beneath it run on its thread.
//
// "device" and "region_device" are "/dev/mem" on the board (a UIO device
// fits too); a relative path names a file under the data root that stands in
// for the memory, as a simulated subsystem uses it.
#include <atomic>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <unordered_map>

#include "core/ctx_comp.hpp"
#include "pru/packet_inbox.hpp"
#include "std/memory_map.hpp"

class PRU;

class PRUICSS : public CtxComp {
 public:
  using StreamConsumer = std::function<void(std::span<const uint8_t> data)>;

  explicit PRUICSS(const VTree& config);
  ~PRUICSS() override;

  void start() override;
  void stop(StopStage stage) override;
  void poll() override;

  // Registers the consumer of a stream's packets (before start). Packets of
  // a stream nobody consumes, and packets without a tag, are counted only.
  void subscribe(uint16_t stream, StreamConsumer consumer);

  // Asks for a restart at the next poll.
  void request_restart() { restart_requested_ = true; }
  // The restart sequence itself (on the node's context).
  void restart();
  bool is_running() const { return running_; }

  // The mapped subsystem (null when not mapped) and its shared RAM, for the
  // cores and for drivers that keep their own structures there (a transmit
  // ring). Accesses go through pru/device_memory.hpp.
  uint8_t* memory() const { return subsystem_.data(); }
  size_t memory_size() const { return subsystem_.size(); }
  std::span<uint8_t> shared_ram() const;
  PacketInbox& inbox() { return *inbox_; }

  PRU& core(int index) const { return *cores_[index]; }

  // "device" and "region_device" made absolute.
  static std::string device_path(const std::string& setting);
  // The region's device when none is configured: the subsystem's device
  // ("/dev/mem" maps both), or for a file the file's name + ".region".
  static std::string default_region_device(const std::string& device);

 private:
  // Writes SYSCFG keeping its read-only status bit (bit 5) as the model of
  // the register needs; on the chip the write ignores that bit anyway.
  void write_syscfg(uint32_t value);
  void dispatch(const PacketView& packet);
  void update_status();

  ValueField<std::string>& device_;
  ValueField<std::string>& address_;
  ValueField<unsigned int>& reg_size_;
  ValueField<std::string>& region_device_;
  ValueField<std::string>& region_address_;
  ValueField<unsigned int>& build_;
  ValueField<bool>& running_field_;
  ValueField<unsigned long long>& packet_count_;
  ValueField<unsigned long long>& unrouted_count_;
  ValueField<unsigned long long>& fault_count_;
  ValueField<unsigned int>& dropped_count_;
  PRU* cores_[2];

  MemoryMap subsystem_;
  MemoryMap region_;
  std::unique_ptr<PacketInbox> inbox_;
  std::unordered_map<uint16_t, StreamConsumer> consumers_;
  std::atomic<bool> restart_requested_{false};
  std::atomic<bool> running_{false};
  uint64_t packets_ = 0;
  uint64_t unrouted_ = 0;
  uint64_t last_status_ns_ = 0;
  unsigned faulted_reads_ = 0;
};

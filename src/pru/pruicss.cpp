#include "pru/pruicss.hpp"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <thread>

#include "core/clock.hpp"
#include "core/log.hpp"
#include "pru/device_memory.hpp"
#include "pru/inbox_layout.hpp"
#include "pru/pru.hpp"
#include "pru/subsystem_layout.hpp"
#include "std/paths.hpp"

using device_memory::read32;
using device_memory::write32;
namespace pl = pru_layout;
namespace il = inbox_layout;

ZEL_REGISTER_NODE("pru_icss", PRUICSS);

namespace {

constexpr double kDefaultPollHz = 1000;
constexpr uint64_t kStatusPeriodNs = 100'000'000;  // core fields at 10 Hz
constexpr int kHandshakeTries = 21;
// A bad packet stays in the chain until the firmware writes past it, and the
// inbox retries it on every read. After this many failed reads in a row
// (about a second at the default poll rate) the subsystem is restarted.
constexpr unsigned kFaultedReadsBeforeRestart = 1000;

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// "0x4A300000" or a decimal number; nothing on a malformed text.
std::optional<uint64_t> parse_address(const std::string& text) {
  if (text.empty()) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(text.c_str(), &end, 0);
  if (errno || !end || *end) return std::nullopt;
  return v;
}

template <class F>
F& shown(F& field, std::string label, std::string detail) {
  auto& a = field.attributes_for_update();
  a.label = std::move(label);
  a.detail = std::move(detail);
  return field;
}

template <class T>
ValueField<T>& output_field(ValueField<T>& field, T initial) {
  field.set(initial);
  field.set_readonly(true);
  return field;
}

}  // namespace

std::string PRUICSS::device_path(const std::string& setting) {
  if (setting.empty() || setting.front() == '/') return setting;
  std::string root = Paths::data_root();
  return root.empty() || root.back() == '/' ? root + setting : root + "/" + setting;
}

std::string PRUICSS::default_region_device(const std::string& device) {
  return device.starts_with("/dev/") ? device : device + ".region";
}

PRUICSS::PRUICSS(const VTree& config)
    : CtxComp(config),
      device_(add_setting<ValueField<std::string>>(config, "device")),
      address_(add_setting<ValueField<std::string>>(config, "address")),
      reg_size_(add_setting<ValueField<unsigned int>>(config, "reg_size")),
      region_device_(add_setting<ValueField<std::string>>(config, "region_device")),
      region_address_(add_setting<ValueField<std::string>>(config, "region_address")),
      build_(add<ValueField<unsigned int>>("build")),
      running_field_(add<ValueField<bool>>("running")),
      packet_count_(add<ValueField<unsigned long long>>("packet_count")),
      unrouted_count_(add<ValueField<unsigned long long>>("unrouted_count")),
      fault_count_(add<ValueField<unsigned long long>>("fault_count")),
      dropped_count_(add<ValueField<unsigned int>>("dropped_count")) {
  describe("PRUSS", "Monitor and configure the programable realtime unit (PRU) subsystem.", "chip");
  if (!device_.assigned()) device_.set("/dev/mem");
  if (!address_.assigned()) address_.set(fmt::format("0x{:X}", pl::kDefaultBaseAddress));
  if (!reg_size_.assigned()) reg_size_.set(static_cast<unsigned int>(pl::kDefaultRegSize));
  if (!region_device_.assigned()) region_device_.set(default_region_device(device_.get()));
  if (!region_address_.assigned()) region_address_.set("0x9F800000");
  shown(device_, "Device", "Physical memory device, or a file under the data root standing for it.");
  shown(address_, "Address", "Physical address of the subsystem.");
  shown(reg_size_, "Register size", "Size of the subsystem registers.");
  shown(region_device_, "Region device", "Physical memory device of the packet region.");
  shown(region_address_, "Region address", "Physical address of the 8 MiB packet region (reserved memory).");
  shown(output_field(build_, 0u), "Build", "Build number the firmware reports.");
  shown(output_field(running_field_, false), "Running", "The subsystem was restarted and runs.");
  shown(output_field(packet_count_, 0ull), "Packets", "Packets received from the firmware.");
  shown(output_field(unrouted_count_, 0ull), "Unrouted packets", "Packets no consumer here takes.");
  shown(output_field(fault_count_, 0ull), "Inbox faults", "Reads dropped for a bad packet size or checksum.");
  shown(output_field(dropped_count_, 0u), "Dropped by firmware", "Packets the firmware discarded while the inbox was off.");
  for (auto* f : {&device_, &address_, &region_device_, &region_address_}) f->set_readonly(true);
  reg_size_.set_readonly(true);

  cores_[0] = &add_node<PRU>(config, "pru0", 0);
  cores_[1] = &add_node<PRU>(config, "pru1", 1);
  add<ButtonField>("restart_button", "Restart", [this] { request_restart(); })
      .attributes_for_update().detail = "Resets the subsystem and reloads both cores.";
  enable_poll(config, kDefaultPollHz);
}

PRUICSS::~PRUICSS() { stop_context(); }

void PRUICSS::subscribe(uint16_t stream, StreamConsumer consumer) { consumers_[stream] = std::move(consumer); }

std::span<uint8_t> PRUICSS::shared_ram() const {
  if (!subsystem_.mapped()) return {};
  return {subsystem_.data() + pl::kSharedRam, pl::kSharedRamSize};
}

void PRUICSS::start() {
  auto address = parse_address(address_.get());
  auto region_address = parse_address(region_address_.get());
  size_t size = reg_size_.get();
  if (!address || !region_address || size < pl::kDefaultRegSize) {
    ZEL_ERROR("PRU shared memory not mapped: address '{}', region address '{}', reg_size {}", address_.get(),
              region_address_.get(), size);
  } else {
    subsystem_ = MemoryMap::open(device_path(device_.get()), *address, size);
    if (subsystem_.mapped()) region_ = MemoryMap::open(device_path(region_device_.get()), *region_address, il::kRegionBytes);
    if (!subsystem_.mapped() || !region_.mapped())
      ZEL_ERROR("PRU shared memory not mapped: {}", subsystem_.mapped() ? region_.error() : subsystem_.error());
  }
  if (subsystem_.mapped() && region_.mapped()) {
    inbox_ = std::make_unique<PacketInbox>(subsystem_.data() + il::kHeaderOffset, region_.data(), region_.size(),
                                           *region_address);
    restart_requested_ = true;
  } else {
    inbox_ = std::make_unique<PacketInbox>();
  }
  CtxComp::start();
}

void PRUICSS::stop(StopStage stage) {
  if (stage == StopStage::Stop0 && inbox_) inbox_->disable();
  CtxComp::stop(stage);
}

void PRUICSS::write_syscfg(uint32_t value) {
  uint8_t* m = subsystem_.data();
  write32(m, pl::kSysCfg, value | (read32(m, pl::kSysCfg) & pl::kSysCfgMasterWait));
}

void PRUICSS::restart() {
  if (!subsystem_.mapped()) return;
  ZEL_INFO("Reset PRU");
  restart_requested_ = false;
  running_ = false;
  running_field_.set(false);
  inbox_->disable();
  write_syscfg(pl::kSysCfgStandbyRequest);
  for (auto* core : cores_) core->hold();
  sleep_ms(10);

  write_syscfg(pl::kSysCfgNoIdleNoStandby);
  bool ready = false;
  for (int i = 0; i < kHandshakeTries && !ready; ++i) {
    ready = !(read32(subsystem_.data(), pl::kSysCfg) & pl::kSysCfgMasterWait);
    if (!ready) {
      write_syscfg(pl::kSysCfgNoIdleNoStandby);
      sleep_ms(50);
    }
  }
  if (!ready) {
    ZEL_ERROR("PRU restart failed");
    sleep_ms(100);
    restart_requested_ = true;  // a later poll tries again
    return;
  }

  for (auto* core : cores_) {
    core->load();
    core->start_core();
  }
  inbox_->enable();
  sleep_ms(10);
  running_ = true;
  running_field_.set(true);
}

void PRUICSS::dispatch(const PacketView& packet) {
  ++packets_;
  auto tagged = packet.tagged();
  if (tagged) {
    auto it = consumers_.find(tagged->stream);
    if (it != consumers_.end()) {
      it->second(tagged->data);
      return;
    }
  }
  ++unrouted_;
}

void PRUICSS::update_status() {
  for (auto* core : cores_) core->update();
  packet_count_.set(packets_);
  unrouted_count_.set(unrouted_);
  fault_count_.set(inbox_->faults());
  if (subsystem_.mapped()) {
    const uint8_t* header = subsystem_.data() + il::kHeaderOffset;
    build_.set(read32(header, il::kBuild));
    dropped_count_.set(read32(header, il::kDropped));
  }
}

void PRUICSS::poll() {
  if (restart_requested_) restart();
  if (!inbox_) return;
  uint64_t faults = inbox_->faults();
  inbox_->read([this](const PacketView& packet) { dispatch(packet); });
  faulted_reads_ = inbox_->faults() != faults ? faulted_reads_ + 1 : 0;
  if (faulted_reads_ >= kFaultedReadsBeforeRestart) {
    ZEL_ERROR("PRU inbox failed {} reads in a row; restarting the subsystem", faulted_reads_);
    faulted_reads_ = 0;
    request_restart();
  }
  uint64_t now = Clock::steady_ns();
  if (now - last_status_ns_ >= kStatusPeriodNs) {
    last_status_ns_ = now;
    update_status();
  }
}

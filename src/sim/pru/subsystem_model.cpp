#include "sim/pru/subsystem_model.hpp"

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numbers>

#include <fmt/format.h>

#include "pru/device_memory.hpp"
#include "pru/inbox_layout.hpp"
#include "pru/subsystem_layout.hpp"

using device_memory::read32;
using device_memory::write32;
namespace pl = pru_layout;
namespace il = inbox_layout;

namespace {

constexpr uint32_t kImageMagic = 0x5A505255;  // "URPZ" in memory
constexpr size_t kMaxPacketsPerTick = 10000;

uint64_t now_ns() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

const char* program_name(SubsystemModel::Program program) {
  switch (program) {
    case SubsystemModel::Program::Sampler: return "sampler";
    case SubsystemModel::Program::Fiber: return "fiber";
    default: return "idle";
  }
}

}  // namespace

std::vector<uint8_t> SubsystemModel::app_image(Program program) {
  std::vector<uint8_t> image(256);
  for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<uint8_t>(i * 37 + 11);
  uint32_t words[2] = {kImageMagic, static_cast<uint32_t>(program)};
  std::memcpy(image.data(), words, sizeof words);
  return image;
}

std::vector<uint8_t> SubsystemModel::data_image() {
  std::vector<uint8_t> image(64, 0);
  std::memcpy(image.data(), &kBuild, 4);
  return image;
}

void SubsystemModel::install_images(const std::string& bin_dir) {
  std::filesystem::create_directories(bin_dir);
  auto write = [&](const std::string& name, const std::vector<uint8_t>& bytes) {
    auto path = std::filesystem::path(bin_dir) / name;
    if (std::filesystem::exists(path)) return;
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
  };
  for (auto program : {Program::Sampler, Program::Idle, Program::Fiber}) {
    write(std::string(program_name(program)) + "_app.bin", app_image(program));
    write(std::string(program_name(program)) + "_data.bin", data_image());
  }
}

SubsystemModel::SubsystemModel(Options options)
    : options_(std::move(options)),
      subsystem_(MemoryMap::create(options_.subsystem_path, pl::kDefaultRegSize)),
      region_(MemoryMap::create(options_.region_path, il::kRegionBytes)),
      rate_(options_.packet_rate) {
  if (subsystem_.mapped() && region_.mapped())
    writer_ = PacketWriter(subsystem_.data() + il::kHeaderOffset, region_.data(), region_.size());
}

SubsystemModel::~SubsystemModel() { stop(); }

std::string SubsystemModel::error() const {
  if (!subsystem_.mapped()) return subsystem_.error();
  if (!region_.mapped()) return region_.error();
  return {};
}

void SubsystemModel::start() {
  if (thread_.joinable() || !error().empty()) return;
  stopping_ = false;
  thread_ = std::thread([this] { run(); });
}

void SubsystemModel::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

void SubsystemModel::set_stuck_handshake(bool stuck) {
  stuck_ = stuck;
  if (stuck && subsystem_.mapped()) {
    uint8_t* mem = subsystem_.data();
    write32(mem, pl::kSysCfg, read32(mem, pl::kSysCfg) | pl::kSysCfgMasterWait);
  }
}

std::vector<std::string> SubsystemModel::trace() const {
  std::lock_guard lock(trace_mutex_);
  return trace_;
}

void SubsystemModel::clear_trace() {
  std::lock_guard lock(trace_mutex_);
  trace_.clear();
}

void SubsystemModel::note(std::string event) {
  std::lock_guard lock(trace_mutex_);
  trace_.push_back(std::move(event));
}

void SubsystemModel::run() {
  while (!stopping_) {
    tick();
    std::this_thread::sleep_for(options_.tick);
  }
}

void SubsystemModel::tick() {
  tick_syscfg();
  tick_core(0);
  tick_core(1);
  tick_inbox();
  if (!inbox_enabled_ || !fiber_firmware_) return;
  for (int index = 0; index < 2; ++index)
    if (cores_[index].running && cores_[index].program == Program::Fiber) fiber_firmware_(index, subsystem_.data(), writer_);
}

// SUB_MWAIT is a read-only status bit: the host keeps it when it writes the
// register, the model alone sets and clears it.
void SubsystemModel::tick_syscfg() {
  uint8_t* mem = subsystem_.data();
  uint32_t v = read32(mem, pl::kSysCfg);
  bool request = v & pl::kSysCfgStandbyRequest;
  bool waiting = v & pl::kSysCfgMasterWait;
  if (request && !(syscfg_ & pl::kSysCfgStandbyRequest)) note("standby request");
  if (!request && (syscfg_ & pl::kSysCfgStandbyRequest)) note(stuck_ ? "standby stuck" : "standby released");
  if ((request || stuck_) && !waiting) v |= pl::kSysCfgMasterWait;
  if (!request && !stuck_ && waiting) v &= ~pl::kSysCfgMasterWait;
  if (v != read32(mem, pl::kSysCfg)) write32(mem, pl::kSysCfg, v);
  syscfg_ = v;
}

void SubsystemModel::tick_core(int index) {
  uint8_t* mem = subsystem_.data();
  uint8_t* control = mem + pl::kControlOffset[index];
  Core& core = cores_[index];
  uint32_t c = read32(control, pl::kControl);
  uint32_t requested = c & ~pl::kControlRunState;
  if (requested != (core.control & ~pl::kControlRunState) && requested == pl::kControlStopped)
    note(fmt::format("core {} stopped", index));
  bool enabled = (c & pl::kControlSoftResetN) && (c & pl::kControlEnable);
  if (!(c & pl::kControlSoftResetN)) core.pc = 0;

  if (enabled && !core.running) {
    const uint8_t* iram = mem + pl::kInstructionOffset[index];
    uint32_t magic = read32(iram, 0), program = read32(iram, 4);
    if (magic == kImageMagic && program >= 1 && program <= 3) {
      core.running = true;
      core.program = static_cast<Program>(program);
      c |= pl::kControlRunState;
      note(fmt::format("core {} runs {}", index, program_name(core.program)));
      if (core.program == Program::Sampler || core.program == Program::Fiber) {
        writer_.reset();
        write32(mem + il::kHeaderOffset, il::kBuild, kBuild);
      }
    } else {
      c &= ~(pl::kControlEnable | pl::kControlRunState);  // halts on its first instruction
      note(fmt::format("core {} has no program", index));
    }
    write32(control, pl::kControl, c);
  } else if (!enabled && core.running) {
    core.running = false;
    write32(control, pl::kControl, c & ~pl::kControlRunState);
  }
  core.control = read32(control, pl::kControl);
  if (!core.running) return;

  core.pc = (core.pc + 7) % 0x800;
  write32(control, pl::kStatus, core.pc);
  write32(control, pl::kStall, read32(control, pl::kStall) + 3);
  write32(control, pl::kCycle, read32(control, pl::kCycle) + 20000);
  uint32_t timeslice = 38000 + (core.pc % 16) * 250;  // about 190 us at 200 MHz
  write32(mem + pl::kDataOffset[index], pl::kTimesliceWord, timeslice);
}

void SubsystemModel::tick_inbox() {
  uint8_t* header = subsystem_.data() + il::kHeaderOffset;
  bool sampling = (cores_[0].running && cores_[0].program == Program::Sampler) ||
                  (cores_[1].running && cores_[1].program == Program::Sampler);
  bool enabled = read32(header, il::kEnable) != 0;
  if (enabled != inbox_enabled_) note(enabled ? "inbox enabled" : "inbox disabled");
  if (enabled != inbox_enabled_ || sampling != sampling_) {
    // Packets fall due at the rate from here on.
    enabled_at_ns_ = now_ns();
    produced_since_enable_ = 0;
  }
  inbox_enabled_ = enabled;
  sampling_ = sampling;
  if (!sampling) return;

  if (!enabled) {
    // Nothing goes into the region while the host does not accept packets.
    double due = static_cast<double>(now_ns() - enabled_at_ns_) / 1e9 * rate_ - static_cast<double>(produced_since_enable_);
    if (due >= 1) {
      write32(header, il::kDropped, read32(header, il::kDropped) + static_cast<uint32_t>(due));
      produced_since_enable_ += static_cast<uint64_t>(due);
    }
    return;
  }
  if (size_t n = burst_.exchange(0)) {
    for (size_t i = 0; i < n; ++i) writer_.write({}, PacketWriter::Fault::None, false);
    writer_.publish();
    written_ += n;
  }
  double due = static_cast<double>(now_ns() - enabled_at_ns_) / 1e9 * rate_ - static_cast<double>(produced_since_enable_);
  if (due >= 1) produce(std::min(static_cast<size_t>(due), kMaxPacketsPerTick));
}

void SubsystemModel::produce(size_t packets) {
  std::vector<float> samples(options_.samples_per_packet);
  double sample_rate = rate_ * static_cast<double>(options_.samples_per_packet);
  for (size_t p = 0; p < packets; ++p) {
    for (auto& s : samples) {
      double t = static_cast<double>(sample_index_++) / sample_rate;
      s = static_cast<float>(10.0 * std::sin(2.0 * std::numbers::pi * options_.wave_hz * t));
    }
    auto fault = static_cast<PacketWriter::Fault>(fault_.exchange(0));
    writer_.write_tagged(kSampleStream,
                         {reinterpret_cast<const uint8_t*>(samples.data()), samples.size() * sizeof(float)},
                         fault);
    ++written_;
  }
  produced_since_enable_ += packets;
}

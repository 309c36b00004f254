#include "pru/pru.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "core/log.hpp"
#include "pru/device_memory.hpp"
#include "pru/pruicss.hpp"
#include "pru/subsystem_layout.hpp"
#include "std/paths.hpp"

using device_memory::read32;
using device_memory::write32;
namespace pl = pru_layout;

ZEL_REGISTER_NODE("PRU", PRU);

namespace {

template <class F>
F& described(F& field, std::string label, std::string detail, bool readonly = true) {
  auto& a = field.attributes_for_update();
  a.label = std::move(label);
  a.detail = std::move(detail);
  field.set_readonly(readonly);
  return field;
}

template <class T>
void default_to(ValueField<T>& field, T value) {
  if (!field.assigned()) field.set(value);
}

}  // namespace

PRU::PRU(const VTree& config, int index)
    : Component(config),
      index_(add_setting<ValueField<int>>(config, "index")),
      state_(add<ValueField<std::string>>("state")),
      ioffset_(add_setting<ValueField<unsigned int>>(config, "ioffset")),
      doffset_(add_setting<ValueField<unsigned int>>(config, "doffset")),
      coffset_(add_setting<ValueField<unsigned int>>(config, "coffset")),
      program_(add_setting<ValueField<std::string>>(config, "program")),
      program_counter_(add<ValueField<unsigned int>>("program_counter")),
      stall_counter_(add<ValueField<unsigned int>>("stall_counter")),
      cycle_time_(add<ValueField<double>>("cycle_time")),
      max_cycle_time_(add<ValueField<double>>("max_cycle_time")) {
  default_to(index_, std::clamp(index, 0, 1));
  int i = std::clamp(index_.get(), 0, 1);
  describe(fmt::format("PRU {}", i), "One core of the programable realtime unit subsystem.", "chip");
  default_to(ioffset_, static_cast<unsigned int>(pl::kInstructionOffset[i]));
  default_to(doffset_, static_cast<unsigned int>(pl::kDataOffset[i]));
  default_to(coffset_, static_cast<unsigned int>(pl::kControlOffset[i]));
  default_to(program_, fmt::format("pru{}", i));
  state_.set("uninitialized");
  program_counter_.set(0);
  stall_counter_.set(0);
  cycle_time_.set(0.0);
  max_cycle_time_.set(0.0);

  described(state_, "State", "The state of the PRU");
  described(index_, "Core", "Which PRU core this is");
  described(ioffset_, "Instruction offset", "Offset of the core's instruction memory in the subsystem map.");
  described(doffset_, "Data offset", "Offset of the core's data memory in the subsystem map.");
  described(coffset_, "Control offset", "Offset of the core's control registers in the subsystem map.");
  described(program_, "Program", "The program files to be loaded", false);
  described(program_counter_, "Program Counter", "This field reflects the instruction the PRU application is on.");
  described(stall_counter_, "Stall Counter",
            "Increments each time the PRU is unable to fetch a new instruction for any reason.");
  described(cycle_time_, "Cycle time", "The time in seconds of the last timeslice");
  described(max_cycle_time_, "Max cycle time", "The maximum time in seconds of last several timeslices");
  cycle_time_.attributes_for_update().units = "s";
  max_cycle_time_.attributes_for_update().units = "s";

  add<ButtonField>("program_button", "Program", [this] {
    stop_core();
    load();
    start_core();
  }).attributes_for_update().detail = "Re-program the PRU core";
  add<ButtonField>("start_button", "Start", [this] {
    auto s = state();
    if (s == "stopped" || s == "sleeping") start_core();
  }).attributes_for_update().detail = "Starts the PRU if it is stopped or sleeping.";
  add<ButtonField>("stop_button", "Stop", [this] { stop_core(); }).attributes_for_update().detail =
      "Stops the PRU from running.";
}

PRUICSS* PRU::subsystem() const { return dynamic_cast<PRUICSS*>(parent()); }

bool PRU::inside_map(unsigned int offset, size_t bytes) const {
  auto* s = subsystem();
  return s && s->memory() && offset % 4 == 0 && offset <= s->memory_size() && bytes <= s->memory_size() - offset;
}

uint8_t* PRU::control() const {
  return inside_map(coffset_.get(), pl::kStall + 4) ? subsystem()->memory() + coffset_.get() : nullptr;
}

namespace {

// A program is named, not given as a path: the images stay in the bin folder.
bool valid_program_name(const std::string& name) {
  if (name.empty() || name.front() == '.') return false;
  return std::all_of(name.begin(), name.end(),
                     [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.'; });
}

}  // namespace

bool PRU::load_image(const std::string& path, unsigned int offset) {
  if (!subsystem() || !subsystem()->memory()) return false;  // "PRU shared memory not mapped" was logged
  if (!inside_map(offset, pl::kCoreMemorySize)) {
    ZEL_ERROR("{}: memory offset {:#x} lies outside the subsystem map", label(), offset);
    return false;
  }
  uint8_t* memory = subsystem()->memory();
  for (size_t at = 0; at < pl::kCoreMemorySize; at += 4) write32(memory, offset + at, 0);
  if (path.empty()) return false;
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) {
    ZEL_ERROR("fopen {}: {}", path, std::strerror(errno));
    return false;
  }
  std::vector<uint8_t> image(pl::kCoreMemorySize + 1);
  size_t length = std::fread(image.data(), 1, image.size(), file.get());
  if (length > pl::kCoreMemorySize) {
    ZEL_ERROR("{} is larger than the core's {} bytes; only those are loaded", path, pl::kCoreMemorySize);
    length = pl::kCoreMemorySize;
  }
  // Whole 32-bit words, as device memory wants them; the last one padded.
  for (size_t at = 0; at < length; at += 4) {
    uint32_t word = 0;
    std::memcpy(&word, image.data() + at, std::min<size_t>(4, length - at));
    write32(memory, offset + at, word);
  }
  return true;
}

void PRU::load() {
  std::string name = program_.get();
  std::string base = Paths::bin_dir() + name;
  if (!valid_program_name(name)) {
    ZEL_ERROR("{}: invalid program name '{}'", label(), name);
    base.clear();  // the memories are cleared, nothing is loaded
  }
  load_image(base.empty() ? "" : base + "_app.bin", ioffset_.get());
  load_image(base.empty() ? "" : base + "_data.bin", doffset_.get());
  loaded_ = true;
  update();
}

bool PRU::start_core() {
  uint8_t* c = control();
  if (!c) return false;
  write32(c, pl::kControl, pl::kControlRun);
  // The run state follows within a few core cycles on the chip; a simulated
  // subsystem on a busy machine may take a while.
  bool runs = false;
  for (int i = 0; i < 100 && !runs; ++i) {
    runs = read32(c, pl::kControl) & pl::kControlRunState;
    if (!runs) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!runs) ZEL_ERROR("{} start running failed", label());
  update();
  return runs;
}

void PRU::stop_core() {
  if (uint8_t* c = control()) write32(c, pl::kControl, pl::kControlHalt);
  update();
}

void PRU::hold() {
  if (uint8_t* c = control()) write32(c, pl::kControl, pl::kControlStopped);
}

void PRU::update() {
  uint8_t* c = control();
  if (!c) return;
  uint32_t control_word = read32(c, pl::kControl);
  std::string s = "uninitialized";
  if (loaded_) {
    if (control_word & pl::kControlRunState) s = "running";
    else if (control_word & pl::kControlSingleStep) s = "single_step";
    else if (control_word & pl::kControlSleeping) s = "sleeping";
    else s = "stopped";
  }
  state_.set(s);
  program_counter_.set(read32(c, pl::kStatus) & 0xFFFFu);
  stall_counter_.set(read32(c, pl::kStall));
  if (s != "running" || !inside_map(doffset_.get(), pl::kCoreMemorySize)) return;
  double slice = read32(subsystem()->memory() + doffset_.get(), pl::kTimesliceWord) / pl::kCoreClockHz;
  cycle_time_.set(slice);
  recent_max_[recent_at_++ % std::size(recent_max_)] = slice;
  max_cycle_time_.set(*std::max_element(std::begin(recent_max_), std::end(recent_max_)));
}

#pragma once
// SubsystemModel: a PRU subsystem and its firmware, simulated on the far side
// of the memory the host maps. It maps the same files as the host's
// `pru_icss` node and meets the host only there, on a thread of its own:
//
// - SYSCFG: a standby request (0x10) puts the master port in standby (bit 5
//   set); clearing the request releases it (bit 5 clear) unless the model is
//   told that the port is stuck, in which case bit 5 stays set.
// - Each core's CONTROL: enabled and out of reset, a core whose instruction
//   RAM holds a program image of this model runs (RUNSTATE, a moving program
//   counter, stall and cycle counts, a timeslice length in data RAM); any
//   other image halts at once.
// - A core running the sampler program writes packets of a sampled sine wave
//   (stream kSampleStream, float samples) into the inbox at the packet rate
//   while the inbox is enabled, and counts the ones it discards while not.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "std/memory_map.hpp"
#include "sim/pru/packet_writer.hpp"

class SubsystemModel {
 public:
  enum class Program : uint32_t { Sampler = 1, Idle = 2, Fiber = 3 };
  // The firmware step of a core running the fiber program, on the model's
  // thread at every tick while the inbox is enabled: the core's index, the
  // subsystem's memory and the inbox's writer.
  using CoreFirmware = std::function<void(int core, uint8_t* memory, PacketWriter& writer)>;
  static constexpr uint16_t kSampleStream = 1;
  static constexpr uint32_t kBuild = 1017;

  struct Options {
    std::string subsystem_path;  // file standing for the subsystem's memory
    std::string region_path;     // file standing for the 8 MiB packet region
    double packet_rate = 100;    // sampler packets per second
    size_t samples_per_packet = 32;
    double wave_hz = 0.5;        // frequency of the sampled sine
    // How often the firmware steps: a real core never sleeps, the model
    // sleeps this long between steps (longer: fewer wake-ups, later answers).
    std::chrono::microseconds tick{100};
  };

  // The instruction and data images of a program, as a firmware build makes
  // them; the model recognises the instruction image after a load.
  static std::vector<uint8_t> app_image(Program program);
  static std::vector<uint8_t> data_image();
  // Writes the images of every program ("sampler_app.bin",
  // "sampler_data.bin", "idle_...", "fiber_...") into `bin_dir` where they
  // are missing.
  static void install_images(const std::string& bin_dir);

  explicit SubsystemModel(Options options);
  ~SubsystemModel();
  SubsystemModel(const SubsystemModel&) = delete;
  SubsystemModel& operator=(const SubsystemModel&) = delete;

  // Empty when both files are mapped.
  std::string error() const;

  void start();
  void stop();

  // What a core running the fiber program does (set before start).
  void set_fiber_firmware(CoreFirmware firmware) { fiber_firmware_ = std::move(firmware); }
  void set_packet_rate(double per_second) { rate_ = per_second; }
  // A stuck master port shows its wait bit at once, also before the model's
  // thread runs, so a host that starts right after sees it.
  void set_stuck_handshake(bool stuck);
  // The next sampler packet carries this fault.
  void inject(PacketWriter::Fault fault) { fault_ = static_cast<int>(fault); }
  // Writes `packets` short packets at once, published by one `tail` store.
  void burst(size_t packets) { burst_ = packets; }

  uint64_t packets_written() const { return written_; }
  // What the model saw the host do, in order ("standby request", "core 0
  // stopped", "standby released", "core 0 runs sampler", "inbox enabled", ...).
  std::vector<std::string> trace() const;
  void clear_trace();

 private:
  struct Core {
    uint32_t control = 0;  // last value seen
    bool running = false;
    Program program{};
    uint32_t pc = 0;
  };
  void run();
  void tick();
  void tick_syscfg();
  void tick_core(int index);
  void tick_inbox();
  void produce(size_t packets);
  void note(std::string event);

  Options options_;
  MemoryMap subsystem_;
  MemoryMap region_;
  PacketWriter writer_;
  CoreFirmware fiber_firmware_;
  Core cores_[2];
  uint32_t syscfg_ = 0;
  bool inbox_enabled_ = false;
  bool sampling_ = false;
  uint64_t enabled_at_ns_ = 0;
  uint64_t produced_since_enable_ = 0;
  uint64_t sample_index_ = 0;

  std::atomic<double> rate_;
  std::atomic<bool> stuck_{false};
  std::atomic<int> fault_{0};
  std::atomic<size_t> burst_{0};
  std::atomic<uint64_t> written_{0};
  std::atomic<bool> stopping_{false};
  std::thread thread_;
  mutable std::mutex trace_mutex_;
  std::vector<std::string> trace_;
};

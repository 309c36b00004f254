// The fiber loop: frames encoded into the transmit ring and decoded with
// their checksum checked, frames per second on one core (beside them a
// plain copy of the same bytes); the time from a module's unplugging to the
// permit's output off; and the CPU of a loop of 31 modules exchanging fast
// messages, beside the same loop with none.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "../tests/tree_access.hpp"
#include "../tests/zel_process.hpp"
#include "core/io/permit_command_io.hpp"
#include "core/root.hpp"
#include "fiber/avocet_slave.hpp"
#include "fiber/frame_decoder.hpp"
#include "fiber/transmit_ring.hpp"
#include "formats/format_xml.hpp"
#include "sim/fiber/fiber_simulation.hpp"
#include "std/paths.hpp"

#include "process_cpu.hpp"

namespace {

namespace fl = fiber_layout;

// A fast reply of an Avocet: status, length and 17 bytes of inputs.
LowLevelFiberMessage fast_reply_frame() {
  LowLevelFiberMessage m;
  m.address = 7;
  m.reply = true;
  m.fast = true;
  m.data = {0, 17};
  for (uint8_t i = 0; i < 17; ++i) m.data.push_back(static_cast<uint8_t>(i * 13));
  return m;
}

void BM_FiberFrameEncodeIntoRing(benchmark::State& state) {
  std::vector<uint8_t> memory(fl::kRingSize);
  TransmitRing ring(memory.data());
  auto frame = fast_reply_frame();
  for (auto _ : state) {
    ring.write(frame);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_FiberFrameEncodeIntoRing);

constexpr size_t kFrames = 1000;

std::vector<uint8_t> received_stream() {
  std::vector<uint8_t> bytes;
  auto frame = fast_reply_frame();
  for (size_t i = 0; i < kFrames; ++i)
    frame.encode([&](uint8_t b, char mark) {
      uint16_t e = static_cast<uint16_t>(b | (mark == '+' ? fl::kDelimiterFlag : 0));
      bytes.push_back(static_cast<uint8_t>(e & 0xFF));
      bytes.push_back(static_cast<uint8_t>(e >> 8));
    });
  return bytes;
}

void BM_FiberFrameDecodeAndValidate(benchmark::State& state) {
  auto bytes = received_stream();
  size_t valid = 0;
  FrameDecoder decoder([&](const LowLevelFiberMessage& f) { valid += f.valid(); });
  for (auto _ : state) decoder.feed(bytes);
  if (valid != state.iterations() * kFrames) state.SkipWithError("a frame was lost or invalid");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrames));
}
BENCHMARK(BM_FiberFrameDecodeAndValidate)->Unit(benchmark::kMicrosecond);

void BM_FiberStreamMemcpy(benchmark::State& state) {
  auto bytes = received_stream();
  std::vector<uint8_t> out(bytes.size());
  for (auto _ : state) {
    std::memcpy(out.data(), bytes.data(), bytes.size());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrames));
}
BENCHMARK(BM_FiberStreamMemcpy)->Unit(benchmark::kMicrosecond);

// A simulated PRU with a loop of `modules` modules (addresses 0..), all
// beneath a permit that drives "pump".
struct LoopTree {
  TempDir dir;
  std::unique_ptr<Root> root;

  explicit LoopTree(int modules) {
    Paths::set_data_root(dir.path().string());
    std::string slaves, addresses;
    for (int a = 0; a < modules; ++a) {
      slaves += fmt::format(R"(<m{0} type="avocet_slave" address="{0}"/>)", a);
      addresses += fmt::format("{} ", a);
    }
    root = FormatXML::instance().build(fmt::format(R"(<root>
      <pru_simulation type="pru_simulation" device="pru/s.mem" rate="50"/>
      <modules type="fiber_simulation" modules="{}"/>
      <pru type="pru_icss" device="pru/s.mem"><pru0 program="idle"/><pru1 program="fiber"/></pru>
      <pump type="digital_io" value="false"/>
      <permit type="permit_command_io" output="pump">
        <loop type="fiber_loop" pru="pru" pru_index="1">{}</loop>
      </permit></root>)", addresses, slaves));
    root->initialize();
  }
  AvocetSlave& slave(int a) { return at<AvocetSlave>(*root, fmt::format("permit/loop/m{}", a)); }
  LoopModel& model() { return at<FiberSimulation>(*root, "modules").model(); }
  PermitCommandIO& permit() { return at<PermitCommandIO>(*root, "permit"); }
  bool wait(const std::function<bool()>& condition, double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition())
      if (std::chrono::steady_clock::now() > end) return false;
      else std::this_thread::sleep_for(std::chrono::microseconds(200));
    return true;
  }
};

// From the model's unplugging of module 1 to the pump's output off.
void BM_FiberLossDetection(benchmark::State& state) {
  constexpr int kUnplugs = 60;
  LoopTree tree(2);
  auto& pump = at<DigitalIO>(*tree.root, "pump");
  std::vector<double> ms;
  for (auto _ : state) {
    for (int i = 0; i < kUnplugs; ++i) {
      if (!tree.wait([&] { return tree.slave(1).state() == "running" && tree.permit().granted(); }, 10)) {
        state.SkipWithError("module did not connect");
        return;
      }
      tree.permit().context()->post([&] { tree.permit().user_command().set(true); });
      tree.wait([&] { return pump.get(); }, 1);
      // Unplug at phases spread over the fast-message period.
      std::this_thread::sleep_for(std::chrono::microseconds(100000 + (i * 7919) % 100000));
      auto t0 = std::chrono::steady_clock::now();
      tree.model().set_plugged(1, false);
      if (!tree.wait([&] { return !pump.get(); }, 5)) {
        state.SkipWithError("the output stayed on");
        return;
      }
      ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
      tree.model().set_plugged(1, true);
    }
  }
  std::sort(ms.begin(), ms.end());
  state.counters["p50_ms"] = ms[ms.size() / 2];
  state.counters["p99_ms"] = ms[static_cast<size_t>(0.99 * static_cast<double>(ms.size() - 1))];
  state.counters["max_ms"] = ms.back();
}
BENCHMARK(BM_FiberLossDetection)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// Process CPU (host and simulated firmware together) over 5 s of running
// loop; the run with 0 modules is the comparison.
void BM_FiberLoopCpu(benchmark::State& state) {
  int modules = static_cast<int>(state.range(0));
  LoopTree tree(modules);
  for (int a = 0; a < modules; ++a)
    if (!tree.wait([&] { return tree.slave(a).state() == "running"; }, 20)) {
      state.SkipWithError("a module did not connect");
      return;
    }
  double cpu = 0, wall = 0;
  uint64_t fast = 0;
  for (auto _ : state) {
    for (int a = 0; a < modules; ++a) fast -= tree.slave(a).fast_message_count();
    double c0 = process_cpu_seconds();
    auto t0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    cpu = process_cpu_seconds() - c0;
    wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    for (int a = 0; a < modules; ++a) fast += tree.slave(a).fast_message_count();
  }
  state.counters["cpu_percent"] = 100 * cpu / wall;
  state.counters["fast_replies_per_s"] = static_cast<double>(fast) / wall;
}
BENCHMARK(BM_FiberLoopCpu)->Arg(0)->Arg(31)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

// The I2C bus layer: its own cost per register read on the simulated adapter,
// side by side with the bare model call beneath it; and the latency of a
// WebSocket push and of a file read elsewhere in the tree while the clock
// generator initialises (a 500 ms sleep each time), against none.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "../tests/web_client.hpp"
#include "core/clock.hpp"
#include "core/io/io.hpp"
#include "core/io_server.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "devices/si5351.hpp"
#include "formats/format_xml.hpp"
#include "sim/i2c/i2c_simulation.hpp"
#include "sim/i2c/sim_si5351.hpp"
#include "std/paths.hpp"
#include "web/web_server.hpp"

namespace {

constexpr const char* kClockBus = R"(<root><bus type="i2c_bus" device="sim">
  <clock type="si5351" address="96"><poll rate="0"/></clock></bus></root>)";

// The register pointer written and one byte read, straight into the model.
void BM_I2CRegisterRead_BareModel(benchmark::State& state) {
  SimSI5351 chip;
  chip.set_reg(45, 0x36);
  uint8_t pointer = 45, value = 0;
  for (auto _ : state) {
    chip.write({&pointer, 1});
    chip.read({&value, 1});
    chip.stop();
    benchmark::DoNotOptimize(value);
    if (state.iterations() % 4096 == 0) chip.clear_trace();
  }
}
BENCHMARK(BM_I2CRegisterRead_BareModel);

// The same read through the driver: I2CSlave, the bus's checks and combined
// transaction, the simulated adapter, the model.
void BM_I2CRegisterRead_ThroughBus(benchmark::State& state) {
  Log::set_level(LogLevel::Warning);
  auto root = FormatXML::instance().build(kClockBus);
  auto& clock = static_cast<SI5351&>(*root->find_path("bus/clock"));
  auto& model = *static_cast<I2CSimulation&>(*root->find_path("bus/simulation")).bus().chip_as<SimSI5351>(96);
  model.set_reg(45, 0x36);
  uint8_t value = 0;
  for (auto _ : state) {
    if (!clock.read_register(45, value)) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(value);
    if (state.iterations() % 4096 == 0) model.clear_trace();
  }
  root->stop_all();
  Log::set_level(LogLevel::Info);
}
BENCHMARK(BM_I2CRegisterRead_ThroughBus);

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[static_cast<size_t>(p * static_cast<double>(v.size() - 1))];
}

double ms_since(uint64_t start_ns) { return static_cast<double>(Clock::steady_ns() - start_ns) / 1e6; }

// Argument 1: the clock generator initialises over and over meanwhile.
void BM_LatencyWhileClockInitialises(benchmark::State& state) {
  const bool initialising = state.range(0) != 0;
  Log::set_level(LogLevel::Warning);
  std::string pattern = (std::filesystem::temp_directory_path() / "zel-bench-XXXXXX").string();
  std::string dir = mkdtemp(pattern.data());
  Paths::set_data_root(dir);
  std::filesystem::create_directory(dir + "/io");
  auto root = FormatXML::instance().build(R"(<root><io_server mount=")" + dir + R"(/io"/>
    <web_server type="web_server" port="0"/>
    <f type="component"><v type="analog_io" value="0"/><w type="analog_io" value="21.5"/></f>
    <bus type="i2c_bus" device="sim"><clock type="si5351" address="96"><poll rate="0"/></clock></bus></root>)");
  root->initialize();
  auto& v = static_cast<AnalogIO&>(*root->find_path("f/v"));
  auto& clock = static_cast<SI5351&>(*root->find_path("bus/clock"));
  auto port = static_cast<WebServer*>(root->find_path("web_server"))->port();
  std::string file = dir + "/io/f/w/value.json";
  {
    web_client::net::io_context io;
    web_client::WebSocketClient client(io, port);
    client.send(R"({"event":"subscribe","data":{"f/v/value":1}})");
    client.receive(std::chrono::seconds(2));  // the present value

    std::atomic<bool> done{false};
    std::thread presser([&] {
      while (initialising && !done) {
        unsigned before = clock.initializations();
        static_cast<ButtonField*>(root->find_path("bus/clock/initialize"))->press();
        while (!done && clock.initializations() == before) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
    if (initialising) std::this_thread::sleep_for(std::chrono::milliseconds(100));  // well inside a sleep
    std::vector<double> push_ms, read_ms;
    char buffer[64];
    for (auto _ : state) {
      uint64_t start = Clock::steady_ns();
      v.set(static_cast<double>(start));
      if (!client.receive(std::chrono::seconds(2))) state.SkipWithError("no push");
      push_ms.push_back(ms_since(start));
      start = Clock::steady_ns();
      int fd = ::open(file.c_str(), O_RDONLY);
      if (fd < 0 || ::read(fd, buffer, sizeof buffer) <= 0) state.SkipWithError("no file read");
      if (fd >= 0) ::close(fd);
      read_ms.push_back(ms_since(start));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    done = true;
    presser.join();
    state.counters["push_p50_ms"] = percentile(push_ms, 0.5);
    state.counters["push_p99_ms"] = percentile(push_ms, 0.99);
    state.counters["read_p50_ms"] = percentile(read_ms, 0.5);
    state.counters["read_p99_ms"] = percentile(read_ms, 0.99);
    state.counters["inits"] = clock.initializations();
  }
  root->stop_all();
  root.reset();
  std::filesystem::remove_all(dir);
  Log::set_level(LogLevel::Info);
}
// 400 samples of each, about 2 s: four initialisations overlap the run.
BENCHMARK(BM_LatencyWhileClockInitialises)->Arg(0)->Arg(1)->Iterations(400)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

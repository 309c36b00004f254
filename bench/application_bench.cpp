// The lifecycle of the real program, timed from outside as an operator sees
// it: from SIGTERM to the end of the process with a large tree, and an
// in-place restart from SIGSEGV to the next "Initialized". Each has its
// comparison run beside it: the same with an empty tree, and a cold start.
#include <benchmark/benchmark.h>

#include "../tests/zel_process.hpp"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kNodes = 100000;

void write_large_configuration(const TempDir& dir) {
  std::string xml = "<root>\n";
  for (int i = 0; i < kNodes; ++i)
    xml += "  <ai" + std::to_string(i) + " type=\"analog_io\" units=\"V\" value=\"" + std::to_string(i) + ".5\"/>\n";
  dir.write("config/system.xml", xml + "</root>\n");
}

void write_demo_configuration(const TempDir& dir) {
  std::ifstream demo(std::string(ZEL_SOURCE_DIR) + "/examples/demo.xml", std::ios::binary);
  std::stringstream text;
  text << demo.rdbuf();
  dir.write("config/system.xml", text.str());
}

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

// Waits for the program's `times`-th "Initialized"; marks the run failed if it does not come.
bool initialized(ZelProcess& zel, benchmark::State& state, int times = 1) {
  if (zel.wait_for("Initialized", times, 60s)) return true;
  state.SkipWithError("no Initialized");
  return false;
}

void sigterm_to_exit(benchmark::State& state, bool large) {
  TempDir dir;
  if (large) write_large_configuration(dir);
  for (auto _ : state) {
    ZelProcess zel(ZEL_BINARY, ZelProcess::arguments_for(dir));
    if (!initialized(zel, state)) return;
    auto begin = Clock::now();
    zel.signal(SIGTERM);
    auto status = zel.wait_exit(30s);
    state.SetIterationTime(seconds_since(begin));
    if (ZelProcess::exit_code(status) != 0) state.SkipWithError("no orderly exit");
  }
}

void BM_SigtermToExit_100kNodes(benchmark::State& state) { sigterm_to_exit(state, true); }
void BM_SigtermToExit_EmptyTree(benchmark::State& state) { sigterm_to_exit(state, false); }
BENCHMARK(BM_SigtermToExit_100kNodes)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_SigtermToExit_EmptyTree)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_RestartInPlace_Demo(benchmark::State& state) {
  TempDir dir;
  write_demo_configuration(dir);
  ZelProcess zel(ZEL_BINARY, ZelProcess::arguments_for(dir));
  int starts = 1;
  if (!initialized(zel, state, starts)) return;
  for (auto _ : state) {
    auto begin = Clock::now();
    zel.signal(SIGSEGV);
    if (!initialized(zel, state, ++starts)) return;
    state.SetIterationTime(seconds_since(begin));
  }
  zel.signal(SIGTERM);
  zel.wait_exit(10s);
}
BENCHMARK(BM_RestartInPlace_Demo)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

void BM_ColdStart_Demo(benchmark::State& state) {
  TempDir dir;
  write_demo_configuration(dir);
  for (auto _ : state) {
    auto begin = Clock::now();
    ZelProcess zel(ZEL_BINARY, ZelProcess::arguments_for(dir));
    if (!initialized(zel, state)) return;
    state.SetIterationTime(seconds_since(begin));
    zel.signal(SIGTERM);
    zel.wait_exit(10s);
  }
}
BENCHMARK(BM_ColdStart_Demo)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace

// What the real program costs while nothing happens: wake-ups per second of
// each of its threads and its share of a core, over a window of an idle run
// after start-up has settled. A wake-up is a context switch of the thread
// (voluntary and involuntary, from /proc/PID/task/*/status); CPU is the
// process's CPU-time clock (nanoseconds; /proc/PID/stat counts in 10 ms
// ticks, too coarse for 0.1 % of a 10 s window). Two trees: the empty
// `<root/>` and the demo instrument. ZEL_BENCH_PROGRAM names another build of
// the program to measure instead, for a comparison with an earlier version.
#include <benchmark/benchmark.h>
#include <time.h>

#include <map>

#include "../tests/zel_process.hpp"

namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr auto kSettle = 2s;   // start-up work and first pushes are over
constexpr auto kWindow = 10s;  // counted

std::string read_text(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

uint64_t number_after(const std::string& text, const std::string& key) {
  auto at = text.find(key);
  return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + key.size(), nullptr, 10);
}

struct ThreadCount {
  std::string name;
  uint64_t switches = 0;
};

struct Snapshot {
  std::map<std::string, ThreadCount> threads;  // by task id
  uint64_t cpu_ns = 0;
  SteadyClock::time_point at;
};

Snapshot snapshot(pid_t pid) {
  Snapshot s;
  s.at = SteadyClock::now();
  std::filesystem::path process = "/proc/" + std::to_string(pid);
  std::error_code ec;
  for (auto& task : std::filesystem::directory_iterator(process / "task", ec)) {
    auto status = read_text(task.path() / "status");
    auto name_at = status.find("Name:\t");
    if (name_at == std::string::npos) continue;
    auto name_end = status.find('\n', name_at);
    ThreadCount count;
    count.name = status.substr(name_at + 6, name_end - name_at - 6);
    count.switches = number_after(status, "voluntary_ctxt_switches:\t") +
                     number_after(status, "nonvoluntary_ctxt_switches:\t");
    s.threads[task.path().filename().string()] = count;
  }
  clockid_t cpu_clock;
  timespec cpu{};
  if (::clock_getcpuclockid(pid, &cpu_clock) == 0 && ::clock_gettime(cpu_clock, &cpu) == 0)
    s.cpu_ns = static_cast<uint64_t>(cpu.tv_sec) * 1'000'000'000ULL + static_cast<uint64_t>(cpu.tv_nsec);
  return s;
}

void idle_cost(benchmark::State& state, const std::string& configuration) {
  TempDir dir;
  dir.write("config/system.xml", configuration);
  const char* other = std::getenv("ZEL_BENCH_PROGRAM");
  ZelProcess zel(other ? other : ZEL_BINARY, ZelProcess::arguments_for(dir));
  if (!zel.wait_for("Initialized", 1, 60s)) {
    state.SkipWithError("no Initialized");
    return;
  }
  std::this_thread::sleep_for(kSettle);
  double seconds = 0;
  std::map<std::string, double> per_thread;  // wake-ups per second by thread name
  double cpu_seconds = 0;
  for (auto _ : state) {
    auto before = snapshot(zel.pid());
    std::this_thread::sleep_for(kWindow);
    auto after = snapshot(zel.pid());
    seconds = std::chrono::duration<double>(after.at - before.at).count();
    per_thread.clear();
    // Threads that came or went within the window are left out.
    for (auto& [tid, count] : after.threads) {
      auto earlier = before.threads.find(tid);
      if (earlier == before.threads.end()) continue;
      per_thread[count.name] += static_cast<double>(count.switches - earlier->second.switches) / seconds;
    }
    cpu_seconds = static_cast<double>(after.cpu_ns - before.cpu_ns) / 1e9;
    state.SetIterationTime(seconds);
  }
  double total = 0;
  for (auto& [name, rate] : per_thread) {
    total += rate;
    state.counters["w:" + name] = rate;
  }
  state.counters["wakeups_per_s"] = total;
  state.counters["cpu_percent"] = 100.0 * cpu_seconds / seconds;
  zel.signal(SIGTERM);
  zel.wait_exit(10s);
}

void BM_IdleCost_EmptyTree(benchmark::State& state) { idle_cost(state, "<root/>\n"); }
void BM_IdleCost_Demo(benchmark::State& state) {
  idle_cost(state, read_text(std::filesystem::path(ZEL_SOURCE_DIR) / "examples/demo.xml"));
}
BENCHMARK(BM_IdleCost_EmptyTree)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_IdleCost_Demo)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

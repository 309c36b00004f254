// The safety chain's costs: one event through the chain (an AnalogIO set →
// range interlock trips → permit revoked → permit command's output off), and
// the interlock manager's walks over 10,000 interlocks. The chain is also run
// with the alarm journal watching its interlock, as the root's "alarms" does.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include <stdlib.h>

#include <filesystem>

#include "core/alarms.hpp"
#include "core/io/interlock_manager.hpp"
#include "core/io/pending_trip_poller.hpp"
#include "core/io/permit_command_io.hpp"
#include "core/io/range_interlock_io.hpp"
#include "core/log.hpp"
#include "core/log_io.hpp"
#include "std/paths.hpp"

namespace {

// How far the chain goes, for the side-by-side breakdown.
enum ChainStage : int64_t { SetOnly = 0, Interlock = 1, Permit = 2, PermitCommand = 3 };

VTree limit_config(const std::string& name) {
  VTree config(name);
  config.set("upper_limit", "10");
  return config;
}

// Times only the tripping set of each iteration; re-arming the chain between
// trips is left out. Reports the median and 99th percentile per event, until
// the set returns, and for the full chain also until the output went off
// (the revocation's log record is written after that).
void BM_ChainTrip(benchmark::State& state) {
  auto stage = static_cast<ChainStage>(state.range(0));
  bool tree_log = state.range(1) != 0;
  bool journal = state.range(2) != 0;
  Log::set_stderr(false);
  std::unique_ptr<LogIO> log;  // the tree's log as a sink, when asked for
  if (tree_log) log = std::make_unique<LogIO>(VTree("log"));

  AnalogIO input(VTree("pressure"));
  DigitalIO output(VTree("hv"));
  Node machine(VTree("chamber"));
  InterlockIO* lock = nullptr;
  PermitCommandIO* command = nullptr;
  if (stage == SetOnly) {
    input.on_change([] {});
  } else if (stage == Interlock) {
    lock = &machine.add<RangeInterlockIO>(limit_config("vacuum"), input);
  } else {
    PermitIO* permit = stage == Permit ? &machine.add<PermitIO>(VTree("permit"))
                                       : (command = &machine.add<PermitCommandIO>(VTree("permit"), output));
    lock = &permit->add<RangeInterlockIO>(limit_config("vacuum"), input);
    permit->init();
  }
  // The journal writes its file in a folder of its own, on its own thread.
  std::string data_root;
  std::unique_ptr<Alarms> alarms;
  if (journal && lock) {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-bench-XXXXXX").string();
    data_root = ::mkdtemp(pattern.data()) ? pattern : "";
    Paths::set_data_root(data_root);
    alarms = std::make_unique<Alarms>(VTree("alarms"));
    alarms->init();
    alarms->watch(*lock);
    alarms->start();
  }
  output.set(false);
  std::chrono::steady_clock::time_point output_off;
  output.on_change([&] {
    if (!output.get()) output_off = std::chrono::steady_clock::now();
  });

  std::vector<double> samples;
  std::vector<double> actuation;
  samples.reserve(1 << 20);
  if (command) actuation.reserve(1 << 20);
  for (auto _ : state) {
    input.set(0);  // re-arm: back in range, operator commands the output on
    if (command) command->user_command().set(true);
    auto start = std::chrono::steady_clock::now();
    input.set(20);
    auto end = std::chrono::steady_clock::now();
    double seconds = std::chrono::duration<double>(end - start).count();
    state.SetIterationTime(seconds);
    if (samples.size() < samples.capacity()) samples.push_back(seconds * 1e9);
    if (actuation.size() < actuation.capacity())
      actuation.push_back(std::chrono::duration<double, std::nano>(output_off - start).count());
  }
  if (lock && !lock->is_error()) state.SkipWithError("the interlock did not trip");
  if (command && (output.get() || command->user_command().get())) state.SkipWithError("the output stayed on");
  auto percentiles = [&](std::vector<double>& v, const std::string& prefix) {
    if (v.empty()) return;
    std::sort(v.begin(), v.end());
    state.counters[prefix + "median_ns"] = v[v.size() / 2];
    state.counters[prefix + "p99_ns"] = v[v.size() * 99 / 100];
  };
  percentiles(samples, "");
  percentiles(actuation, "output_off_");
  if (alarms) {
    alarms->stop(StopStage::Stop2);
    state.counters["journaled"] = static_cast<double>(alarms->journal().counts().sequence);
    alarms.reset();
    std::error_code ec;
    std::filesystem::remove_all(data_root, ec);
  }
  Log::set_stderr(true);
}
BENCHMARK(BM_ChainTrip)
    ->ArgNames({"stage", "tree_log", "journal"})
    ->Args({SetOnly, 0, 0})
    ->Args({Interlock, 0, 0})
    ->Args({Permit, 0, 0})
    ->Args({PermitCommand, 0, 0})
    ->Args({PermitCommand, 0, 1})
    ->Args({PermitCommand, 1, 0})
    ->UseManualTime();

// A manager over `count` range interlocks, half of them on an input beyond
// its limit, so that enabling trips them and disabling clears them.
struct ManagedInterlocks {
  explicit ManagedInterlocks(int count) {
    auto& manager = top.add<InterlockManager>(VTree("interlocks"));
    for (int i = 0; i < count; ++i) {
      auto& input = *inputs.emplace_back(std::make_unique<AnalogIO>(VTree("x")));
      input.set(i % 2 ? 20 : 0);
      manager.add<RangeInterlockIO>(limit_config("lock" + std::to_string(i)), input);
    }
    manager.init();
    this->manager = &manager;
  }
  std::vector<std::unique_ptr<AnalogIO>> inputs;
  Node top{VTree("top")};
  InterlockManager* manager = nullptr;
};

constexpr int kManaged = 10'000;

void BM_EnableAll(benchmark::State& state) {
  ManagedInterlocks set(static_cast<int>(state.range(0)));
  bool enabled = true;
  for (auto _ : state) {
    enabled = !enabled;
    set.manager->enable_all().set(enabled);
  }
  state.counters["interlocks"] = static_cast<double>(set.manager->interlocks().size());
}
BENCHMARK(BM_EnableAll)->Arg(kManaged)->Unit(benchmark::kMillisecond);

// Each update finds the summary changed (one interlock toggles between error
// and OK), so it walks, formats and rewrites.
void BM_SummaryUpdate(benchmark::State& state) {
  ManagedInterlocks set(static_cast<int>(state.range(0)));
  for (auto* lock : set.manager->interlocks()) lock->enabled().set(false);
  auto& last = *set.manager->interlocks().back();
  bool enabled = false;
  for (auto _ : state) {
    enabled = !enabled;
    last.enabled().set(enabled);
    set.manager->update_summary();
  }
  state.counters["interlocks"] = static_cast<double>(set.manager->interlocks().size());
}
BENCHMARK(BM_SummaryUpdate)->Arg(kManaged)->Unit(benchmark::kMillisecond);

// The periodic look for pending errors when none is pending: the price of
// tripping late errors on time, paid at every poll.
void BM_PendingTripPoll(benchmark::State& state) {
  ManagedInterlocks set(static_cast<int>(state.range(0)));
  PendingTripPoller poller(set.manager->interlocks());
  for (auto _ : state) poller.poll();
  state.counters["interlocks"] = static_cast<double>(set.manager->interlocks().size());
}
BENCHMARK(BM_PendingTripPoll)->Arg(kManaged)->Unit(benchmark::kMicrosecond);

}  // namespace

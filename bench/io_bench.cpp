// The cost of assigning an IO value that one listener watches.
#include <benchmark/benchmark.h>

#include "core/clock.hpp"
#include "core/io/io.hpp"

namespace {

void BM_AnalogIOSetWithOneListener(benchmark::State& state) {
  AnalogIO io(VTree("a"));
  uint64_t calls = 0;
  io.on_change([&] { ++calls; });
  double v = 0;
  for (auto _ : state) {
    io.set(v);
    v += 1.0;  // every set is a change
  }
  benchmark::DoNotOptimize(calls);
  state.counters["listener_calls"] = static_cast<double>(calls);
}
BENCHMARK(BM_AnalogIOSetWithOneListener);

void BM_AnalogIOSetUnchanged(benchmark::State& state) {
  AnalogIO io(VTree("a"));
  io.on_change([] {});
  io.set(1.0);
  for (auto _ : state) io.set(1.0);
}
BENCHMARK(BM_AnalogIOSetUnchanged);

// What a stamp costs against a read of the steady clock, side by side.
void BM_StampClockRead(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Clock::cached_ns());
}
BENCHMARK(BM_StampClockRead);

void BM_SteadyClockRead(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Clock::steady_ns());
}
BENCHMARK(BM_SteadyClockRead);

}  // namespace

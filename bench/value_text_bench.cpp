// Value text conversion of doubles against the standard library's own
// shortest-form conversion, which it builds on.
#include <benchmark/benchmark.h>

#include <charconv>
#include <random>
#include <string>
#include <vector>

#include "core/x2x.hpp"

namespace {

std::vector<double> sample_values() {
  std::mt19937_64 rng(42);
  std::uniform_real_distribution<double> dist(-1e6, 1e6);
  std::vector<double> values(1024);
  for (auto& v : values) v = dist(rng);
  return values;
}

std::vector<std::string> sample_texts() {
  std::vector<std::string> texts;
  for (double v : sample_values()) texts.push_back(x2x::to_json(v));
  return texts;
}

void BM_ToChars_Double(benchmark::State& state) {
  auto values = sample_values();
  char buffer[32];
  size_t i = 0;
  for (auto _ : state) {
    auto r = std::to_chars(buffer, buffer + sizeof buffer, values[i++ & 1023]);
    benchmark::DoNotOptimize(r.ptr);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ToChars_Double);

void BM_ToJson_Double(benchmark::State& state) {
  auto values = sample_values();
  std::string out;
  out.reserve(64);
  size_t i = 0;
  for (auto _ : state) {
    out.clear();
    x2x::to_json(values[i++ & 1023], out);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ToJson_Double);

void BM_FromChars_Double(benchmark::State& state) {
  auto texts = sample_texts();
  size_t i = 0;
  for (auto _ : state) {
    auto& t = texts[i++ & 1023];
    double v;
    auto r = std::from_chars(t.data(), t.data() + t.size(), v);
    benchmark::DoNotOptimize(v);
    benchmark::DoNotOptimize(r.ptr);
  }
}
BENCHMARK(BM_FromChars_Double);

void BM_FromJson_Double(benchmark::State& state) {
  auto texts = sample_texts();
  size_t i = 0;
  for (auto _ : state) {
    double v;
    bool ok = x2x::from_json(texts[i++ & 1023], v);
    benchmark::DoNotOptimize(v);
    benchmark::DoNotOptimize(ok);
  }
}
BENCHMARK(BM_FromJson_Double);

}  // namespace

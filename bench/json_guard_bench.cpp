// The nesting check every JSON text from outside passes before it is parsed,
// side by side with the parse it guards, on a message of the size a client
// sends to a node (a dozen members, a vector among them); and the splitting
// of a vector's text into its elements' own texts against re-written ones.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/x2x.hpp"

namespace {

const std::string& sample_message() {
  static const std::string text =
      R"({"setpoint":21.5,"enabled":true,"mode":"auto","label":"Chamber \"A\"","limits":[0,100.5,-3e-3],)"
      R"("names":["in","out","bypass"],"count":4096,"gain":1.25,"offset":-0.5,"units":"degC",)"
      R"("poll":{"rate":10},"comment":"brackets [{ inside strings }] do not count"})";
  return text;
}

void BM_JsonDepthCheck(benchmark::State& state) {
  const auto& text = sample_message();
  for (auto _ : state) benchmark::DoNotOptimize(x2x::json_depth_within(text));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_JsonDepthCheck);

void BM_JsonParse(benchmark::State& state) {
  const auto& text = sample_message();
  for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(text, nullptr, false));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_JsonParse);

const std::string kVectorText = "[0,100.5,-3e-3,1,2,3,4,5,6,7,8,9,10,11,12,13]";

// Elements cut from the text itself (what split_array does) ...
void BM_SplitArray_OwnText(benchmark::State& state) {
  std::vector<std::string> elements;
  for (auto _ : state) benchmark::DoNotOptimize(x2x::split_array(kVectorText, elements));
}
BENCHMARK(BM_SplitArray_OwnText);

// ... against elements written anew by nlohmann, the way it was done before.
void BM_SplitArray_Rewritten(benchmark::State& state) {
  std::vector<std::string> elements;
  for (auto _ : state) {
    auto parsed = nlohmann::json::parse(kVectorText, nullptr, false);
    elements.clear();
    for (const auto& element : parsed) elements.push_back(element.dump());
    benchmark::DoNotOptimize(elements.data());
  }
}
BENCHMARK(BM_SplitArray_Rewritten);

}  // namespace

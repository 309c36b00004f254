// Saving and loading a store of 10,000 members, side by side with the bare
// costs underneath: the same bytes written without the crash-safe steps, and
// the same text parsed by the JSON library alone.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/io/io.hpp"
#include "core/root.hpp"
#include "core/store_manager.hpp"
#include "formats/format_xml.hpp"
#include "std/atomic_file.hpp"
#include "std/paths.hpp"

namespace {

constexpr int kMembers = 10000;

// One tree with 10,000 stored analog IOs and its saved store file, made once.
struct StoreTree {
  StoreTree() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-store-bench-XXXXXX").string();
    dir = mkdtemp(pattern.data());
    Paths::set_data_root(dir);
    std::string xml = R"(<root><admin><store_manager save_delay="0" hourmeter_period="0"/></admin><bank type="component">)";
    for (int i = 0; i < kMembers; ++i)
      xml += fmt::format(R"(<channel_{} type="analog_io" store="config" value="{}"/>)", i, i * 0.37 + 1e-3);
    xml += "</bank></root>";
    root = FormatXML::instance().build(xml);
    root->initialize();
    manager = dynamic_cast<StoreManager*>(root->find_path("admin/store_manager"));
    for (int i = 0; i < kMembers; ++i)
      channels.push_back(dynamic_cast<AnalogIO*>(root->find_path(fmt::format("bank/channel_{}", i))));
    manager->save("config");
    std::string error;
    AtomicFile::read(Paths::store_file("config"), text, error);
  }
  ~StoreTree() {
    root.reset();
    std::filesystem::remove_all(dir);
  }

  std::string dir;
  std::unique_ptr<Root> root;
  StoreManager* manager = nullptr;
  std::vector<AnalogIO*> channels;
  std::string text;
};

StoreTree& tree() {
  static StoreTree t;
  return t;
}

void BM_StoreSave10k(benchmark::State& state) {
  auto& t = tree();
  for (auto _ : state) benchmark::DoNotOptimize(t.manager->save("config"));
  state.counters["bytes"] = static_cast<double>(t.text.size());
}
BENCHMARK(BM_StoreSave10k)->Unit(benchmark::kMillisecond);

// The parts of a save: the text, then the crash-safe write of it.
void BM_StoreText10k(benchmark::State& state) {
  auto& t = tree();
  for (auto _ : state) benchmark::DoNotOptimize(t.manager->text("config"));
}
BENCHMARK(BM_StoreText10k)->Unit(benchmark::kMillisecond);

void BM_AtomicFileWrite10k(benchmark::State& state) {
  auto& t = tree();
  std::string file = t.dir + "/atomic.json", error;
  for (auto _ : state) benchmark::DoNotOptimize(AtomicFile::write(file, t.text, error));
}
BENCHMARK(BM_AtomicFileWrite10k)->Unit(benchmark::kMillisecond);

void BM_PlainWriteNoSync10k(benchmark::State& state) {
  auto& t = tree();
  std::string file = t.dir + "/plain.json";
  for (auto _ : state) std::ofstream(file, std::ios::trunc) << t.text;
}
BENCHMARK(BM_PlainWriteNoSync10k)->Unit(benchmark::kMillisecond);

void BM_StoreLoad10k(benchmark::State& state) {
  auto& t = tree();
  for (auto _ : state) {
    state.PauseTiming();  // every load is then a change of every member, as at start-up
    for (auto* c : t.channels) c->set(-1.0);
    state.ResumeTiming();
    t.manager->load("config");
  }
}
BENCHMARK(BM_StoreLoad10k)->Unit(benchmark::kMillisecond);

void BM_JsonParseOnly10k(benchmark::State& state) {
  auto& t = tree();
  for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(t.text));
}
BENCHMARK(BM_JsonParseOnly10k)->Unit(benchmark::kMillisecond);

}  // namespace

// Building the tree from a configuration of 100,000 analog IOs: time, and the
// resident memory the tree adds per node.
#include <benchmark/benchmark.h>

#include <fstream>
#include <string>

#include "core/log.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"

namespace {

constexpr int kNodes = 100000;

std::string large_configuration() {
  std::string xml = "<root>\n";
  for (int i = 0; i < kNodes; ++i)
    xml += "  <ai" + std::to_string(i) + " type=\"analog_io\" units=\"V\" value=\"" + std::to_string(i) + ".5\"/>\n";
  xml += "</root>\n";
  return xml;
}

long resident_kib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return 0;
}

void BM_BuildTree100kAnalogIO(benchmark::State& state) {
  Log::set_level(LogLevel::Warning);
  const std::string xml = large_configuration();
  static double per_node_bytes = 0;  // first build of the process only: later ones reuse freed memory
  for (auto _ : state) {
    long before = resident_kib();
    auto root = FormatXML::instance().build(xml);
    root->initialize();
    long after = resident_kib();
    if (per_node_bytes == 0) per_node_bytes = static_cast<double>(after - before) * 1024.0 / kNodes;
    state.PauseTiming();
    root.reset();
    state.ResumeTiming();
  }
  state.counters["resident_bytes_per_node"] = per_node_bytes;
  Log::set_level(LogLevel::Info);
}
BENCHMARK(BM_BuildTree100kAnalogIO)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

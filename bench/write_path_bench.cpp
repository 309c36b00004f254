// The write path's cost per set: the checks alone (writable, convert, range)
// without and with the permission hook (the caller's role), and a whole
// write of a field (checks, set, listeners, the log line of an accepted
// write) for scale, applied on the caller's thread and handed to the running
// context that owns the field (posted there and awaited).
#include <benchmark/benchmark.h>

#include "core/field.hpp"
#include "core/io/io.hpp"
#include "core/log.hpp"
#include "core/permissions.hpp"
#include "core/root.hpp"
#include "core/write_path.hpp"
#include "formats/format_xml.hpp"

namespace {

struct Rig {
  Rig() {
    auto& rate = node.add<ValueField<double>>("rate", 10.0);
    rate.set_range({0.0, 1000.0, true});
    field = &rate;
  }
  Node node{VTree("poll")};
  ValueField<double>* field = nullptr;
  // A setting of a node: an expert's to change.
  Caller caller{WriteSource::Http, "127.0.0.1:40000", Role::Expert};
};

void BM_WritePathCheck(benchmark::State& state) {
  Rig rig;
  WritePath::set_permission_check(state.range(0) ? &Permissions::check : nullptr);
  for (auto _ : state) {
    auto answer = WritePath::check(*rig.field, rig.caller, "12.5");
    benchmark::DoNotOptimize(answer);
  }
  WritePath::set_permission_check(&Permissions::check);
}
BENCHMARK(BM_WritePathCheck)->ArgName("permission_hook")->Arg(0)->Arg(1);

void BM_WritePathWrite(benchmark::State& state) {
  Log::set_stderr(false);
  Rig rig;
  bool high = false;
  for (auto _ : state) {
    high = !high;
    auto answer = WritePath::write_at(*rig.field, rig.caller, high ? "12.5" : "10");
    benchmark::DoNotOptimize(answer);
  }
  Log::set_stderr(true);
}
BENCHMARK(BM_WritePathWrite);

// The same write of a tree's field from a thread of its own, as from a
// server: the owning context's thread applies it while the caller waits.
void BM_WritePathWriteHandedOff(benchmark::State& state) {
  Log::set_stderr(false);
  auto root = FormatXML::instance().build(R"(<root><poll type="analog_io" value="10"/></root>)");
  root->initialize();
  auto* field = WritePath::field_for(root->find_path("poll"));
  Caller caller{WriteSource::Http, "127.0.0.1:40000", Role::Admin};
  bool high = false;
  for (auto _ : state) {
    high = !high;
    auto answer = WritePath::write_at(*field, caller, high ? "12.5" : "10");
    benchmark::DoNotOptimize(answer);
  }
  root.reset();
  Log::set_stderr(true);
}
BENCHMARK(BM_WritePathWriteHandedOff);

}  // namespace

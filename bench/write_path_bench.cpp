// The write path's cost per set: the checks alone (writable, convert, range,
// permission hook), the same with a permission check installed, and a whole
// write of a field (checks, set, listeners, the log line of an accepted
// write) for scale.
#include <benchmark/benchmark.h>

#include "core/field.hpp"
#include "core/io/io.hpp"
#include "core/log.hpp"
#include "core/write_path.hpp"

namespace {

struct Rig {
  Rig() {
    auto& rate = node.add<ValueField<double>>("rate", 10.0);
    rate.set_range({0.0, 1000.0, true});
    field = &rate;
  }
  Node node{VTree("poll")};
  ValueField<double>* field = nullptr;
  Caller caller{WriteSource::Http, "127.0.0.1:40000"};
};

// A permission check of the kind users and roles will install: a field
// attribute compared with the caller's role, here always allowed.
bool allow_all(const Caller& caller, const FieldBase& field, std::string&) {
  return caller.source != WriteSource::Store || field.operator_control();
}

void BM_WritePathCheck(benchmark::State& state) {
  Rig rig;
  WritePath::set_permission_check(state.range(0) ? &allow_all : nullptr);
  for (auto _ : state) {
    auto answer = WritePath::check(*rig.field, rig.caller, "12.5");
    benchmark::DoNotOptimize(answer);
  }
  WritePath::set_permission_check(nullptr);
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

}  // namespace

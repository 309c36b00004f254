// The permission check: the role a field needs, kept in the field, against
// the caller's (the write path's hook is measured beside the path's other
// checks in write_path_bench.cpp), and one login's password check.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "core/permissions.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "web/password_hash.hpp"

namespace {

std::unique_ptr<Root> rig() {
  return FormatXML::instance().build(R"(<root><rig type="component" permissions="operator">
    <t type="analog_io" value="1"/></rig></root>)");
}

FieldBase& value_of(Root& root) { return *static_cast<FieldBase*>(root.find("rig/t/value")); }

void BM_PermissionCheck(benchmark::State& state) {
  auto root = rig();
  auto& field = value_of(*root);
  for (auto _ : state) benchmark::DoNotOptimize(Permissions::allows(Role::Operator, field));
}
BENCHMARK(BM_PermissionCheck);

// The first check of a field walks up to the nearest "permissions"
// attribute; later ones read the answer kept in the field.
void BM_PermissionFirstResolution(benchmark::State& state) {
  auto root = rig();
  auto& field = value_of(*root);
  for (auto _ : state) {
    field.permission_slot().store(0, std::memory_order_relaxed);
    benchmark::DoNotOptimize(Permissions::needed_for(field));
  }
}
BENCHMARK(BM_PermissionFirstResolution);

// One login's password check: tuned to 50-250 ms.
void BM_PasswordCheck(benchmark::State& state) {
  auto hash = PasswordHash::make("correct horse battery staple");
  for (auto _ : state) benchmark::DoNotOptimize(PasswordHash::verify(hash, "correct horse battery staple"));
}
BENCHMARK(BM_PasswordCheck)->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace

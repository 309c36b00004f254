// The permission check on the set path, side by side with the set it guards:
// a user's set of an IO value from its text, without and with the check of
// the caller's role, and the check alone.
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

const char* const kTexts[2] = {"21.5", "22.5"};  // alternating, so every set changes the value

void BM_SetFromUser(benchmark::State& state) {
  auto root = rig();
  auto& field = value_of(*root);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(field.set_from_user(kTexts[i++ & 1]));
}
BENCHMARK(BM_SetFromUser);

void BM_SetFromUserWithPermission(benchmark::State& state) {
  auto root = rig();
  auto& field = value_of(*root);
  size_t i = 0;
  for (auto _ : state) {
    bool ok = Permissions::allows(Role::Operator, field) && field.set_from_user(kTexts[i++ & 1]);
    benchmark::DoNotOptimize(ok);
  }
}
BENCHMARK(BM_SetFromUserWithPermission);

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

#include "core/self_test.hpp"

#include "core/log.hpp"

bool all_passed(const CheckReport& report) {
  for (auto& g : report)
    if (!g.failures.empty()) return false;
  return true;
}

SelfTest::SelfTest(const VTree& config, Checks checks)
    : Component(config),
      checks_(std::move(checks)),
      passed_(add<ValueField<bool>>("passed")),
      result_(add<ValueField<std::string>>("result")) {
  passed_.set_readonly(true);
  result_.set_readonly(true);
  add<ButtonField>("run_button", "Run", [this] { run(); });
}

CheckReport SelfTest::run() {
  auto report = checks_();
  std::string text;
  for (auto& g : report)
    for (auto& f : g.failures) text += g.name + ": " + f + "\n";
  bool ok = all_passed(report);
  if (!ok) ZEL_ERROR("Self-test {} failed:\n{}", path(), text);
  result_.set(ok ? "Passed" : text);
  passed_.set(ok);
  return report;
}

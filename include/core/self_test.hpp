#pragma once
// SelfTest: a built-in check a user can run from any client. Pressing
// "run_button" runs the checks; "passed" and "result" show the outcome.
#include <functional>
#include <string>
#include <vector>

#include "core/component.hpp"

// The outcome of one named group of checks.
struct CheckGroup {
  std::string name;
  int checks = 0;
  std::vector<std::string> failures;  // each "<actual> != <expected>"
};
using CheckReport = std::vector<CheckGroup>;

// Collects equality checks into named groups, in order.
class Checker {
 public:
  void group(std::string name) { report_.push_back({std::move(name), 0, {}}); }
  void equal(const std::string& actual, const std::string& expected) {
    ++report_.back().checks;
    if (actual != expected) report_.back().failures.push_back(actual + " != " + expected);
  }
  void is_true(bool condition, const std::string& what) { equal(condition ? "true" : "false: " + what, "true"); }
  CheckReport take() { return std::move(report_); }

 private:
  CheckReport report_;
};

bool all_passed(const CheckReport& report);

class SelfTest : public Component {
 public:
  using Checks = std::function<CheckReport()>;

  SelfTest(const VTree& config, Checks checks);

  CheckReport run();
  ValueField<bool>& passed() const { return passed_; }
  ValueField<std::string>& result() const { return result_; }

 private:
  Checks checks_;
  ValueField<bool>& passed_;
  ValueField<std::string>& result_;
};

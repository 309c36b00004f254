#include "devices/chip_test.hpp"

ChipTest::ChipTest(const VTree& config, std::string label, std::string detail, std::string ticket, Check check)
    : Node(config),
      check_(std::move(check)),
      ticket_(add<ValueField<std::string>>("ticket", std::move(ticket))),
      result_(add<ValueField<std::string>>("result")) {
  describe(std::move(label), std::move(detail), "lab-test");
  ticket_.set(ticket_.get());
  ticket_.set_readonly(true);
  result_.set_readonly(true);
  add<ButtonField>("run_button", "Run", [this] { run(); });
}

std::string ChipTest::run() {
  std::string failure = check_();
  result_.set(failure.empty() ? "Passed" : failure);
  return result_.get();
}

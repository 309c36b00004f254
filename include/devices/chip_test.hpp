#pragma once
// ChipTest: a test action of a chip driver, as a child node with its ticket.
// "run_button" runs the check on the driver's context; "result" says
// "Passed" or what failed.
#include <functional>
#include <string>

#include "core/node.hpp"

class ChipTest : public Node {
 public:
  using Check = std::function<std::string()>;  // empty when passed, else what failed

  ChipTest(const VTree& config, std::string label, std::string detail, std::string ticket, Check check);

  std::string run();
  ValueField<std::string>& result() const { return result_; }

 private:
  Check check_;
  ValueField<std::string>& ticket_;
  ValueField<std::string>& result_;
};

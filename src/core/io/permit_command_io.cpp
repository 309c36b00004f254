#include "core/io/permit_command_io.hpp"

#include "core/log.hpp"
#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("permit_command_io", PermitCommandIO);

namespace {

// Sets a flag for the lifetime of the guard.
class FlagScope {
 public:
  explicit FlagScope(bool& flag) : flag_(flag) { flag_ = true; }
  ~FlagScope() { flag_ = false; }

 private:
  bool& flag_;
};

// Evaluations started by an evaluation's own consequences that may run in
// a row before the permit command gives up on settling (a loop in the chain).
constexpr int kMaxEvaluationRounds = 8;

}  // namespace

PermitCommandIO::PermitCommandIO(const VTree& config) : PermitCommandIO(config, IOLink<bool>(config, "output")) {}

PermitCommandIO::PermitCommandIO(const VTree& config, DigitalIO& output)
    : PermitCommandIO(config, IOLink<bool>(output)) {}

PermitCommandIO::PermitCommandIO(const VTree& config, IOLink<bool> output)
    : PermitIO(config),
      output_(std::move(output)),
      user_command_(add_setting<ValueField<bool>>(config, "user_command")),
      gate_command_(add_setting<ValueField<bool>>(config, "gate_command")) {
  // The operator's controls: writable although the permit's state is not.
  user_command_.set_operator_control();
  gate_command_.set_operator_control();
  user_command_.attributes_for_update().detail = "The operator intention.";
  auto& gate = gate_command_.attributes_for_update();
  gate.label = "Gate";
  gate.detail = "Allows for temporary off.";
  for (auto* command : {&user_command_, &gate_command_})
    command->listen([this] {
      if (!writing_) evaluate();
    });
  if (output_.bound()) follow_output();
}

void PermitCommandIO::init() {
  if (!output_.bound()) {
    try {
      output_.resolve(*this);
      follow_output();
    } catch (const std::exception& e) {
      report_build_failure(path(), type(), e.what());
    }
  }
  PermitIO::init();
}

void PermitCommandIO::follow_output() {
  // Users command the permit; a write of the output itself is refused.
  output_.io()->value_field()->set_driven_by(this);
  output_.io()->value_field()->listen([this] {
    if (!writing_) evaluate();
  });
}

void PermitCommandIO::evaluate() {
  if (evaluating_) {
    again_ = true;
    return;
  }
  FlagScope evaluating(evaluating_);
  int rounds = 0;
  do {
    again_ = false;
    evaluate_once();
  } while (again_ && ++rounds < kMaxEvaluationRounds);
}

void PermitCommandIO::evaluate_once() {
  PermitIO::evaluate();
  auto* output = output_.get();
  if (!output || !output->assigned()) return;
  FlagScope writing(writing_);
  if (!user_command_.assigned()) user_command_.set(output->get());
  bool permitted = get();
  output->set(permitted && user_command_.get() && !gate_command_.get());
  if (!permitted && user_command_.get()) {
    user_command_.set(false);
    ZEL_EVENT("{} {} permit revoked{}", parent() ? parent()->name() : std::string(), name(), locks_in_error());
  }
}

std::string PermitCommandIO::locks_in_error() const {
  std::string text;
  forEachLock([&](const InterlockIO& lock) {
    if (!lock.is_error()) return;
    std::string below = lock.name();
    for (auto* v = lock.parent(); v && v != this; v = v->parent()) below = v->name() + "/" + below;
    text += text.empty() ? ": " : ", ";
    text += below;
  });
  return text;
}

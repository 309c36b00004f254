#pragma once
// PermitCommandIO: joins an operator's wish to a permit and drives a digital
// output: output = permit granted and user_command and not gate_command.
//
// When the permit is revoked while the operator commands the output on, the
// command is withdrawn (user_command cleared) and the event is logged as
// "<parent> <permit> permit revoked: <locks in error>": the operator must
// command again once the permit returns. The gate only holds the output off
// and leaves the command in place. Until the output has a value nothing is
// driven; the first time it has one and user_command has none, the output's
// present value becomes the command, so a restart does not switch a running
// output off.
//
// The permit command owns its output: a change of the output from elsewhere
// is re-evaluated at once, so the output cannot be switched on past the
// permit.
#include <string>

#include "core/io/permit_io.hpp"

class PermitCommandIO : public PermitIO {
 public:
  // Configured: drives the bool IO at the tree path `output` (resolved in init).
  explicit PermitCommandIO(const VTree& config);
  PermitCommandIO(const VTree& config, DigitalIO& output);

  // Resolves a configured output (a path that does not resolve is reported
  // as a build failure; the permit then drives nothing), then collects locks.
  void init() override;
  void evaluate() override;

  ValueField<bool>& user_command() const { return user_command_; }
  ValueField<bool>& gate_command() const { return gate_command_; }
  IO<bool>* output() const { return output_.get(); }

 private:
  PermitCommandIO(const VTree& config, IOLink<bool> output);
  void follow_output();
  void evaluate_once();
  // ": a, b": the locks in error, by their paths below the permit.
  std::string locks_in_error() const;

  IOLink<bool> output_;
  ValueField<bool>& user_command_;
  ValueField<bool>& gate_command_;
  // Own writes to the output and the command are not events for this permit;
  // an event that arrives during an evaluation runs it once more afterwards.
  bool writing_ = false;
  bool evaluating_ = false;
  bool again_ = false;
};

#pragma once
// PRUSimulation ("pru_simulation"): runs a SubsystemModel on the files that a
// `pru_icss` node maps ("device", "region_device", relative to the data
// root), installs the model's program images in "<data root>/bin/" where
// missing, and lets a person or a test inject faults from the tree: the
// packet "rate", a "stuck_handshake", and buttons for an oversized packet, a
// bad checksum and a burst beyond the inbox's cap.
#include <memory>

#include "core/component.hpp"
#include "sim/pru/subsystem_model.hpp"

class PRUSimulation : public Component {
 public:
  explicit PRUSimulation(const VTree& config);
  ~PRUSimulation() override;

  void start() override;
  void stop(StopStage stage) override;
  void poll() override;

  SubsystemModel& model() { return *model_; }

 private:
  ValueField<double>& rate_;
  ValueField<bool>& stuck_handshake_;
  ValueField<double>& tick_;
  ValueField<unsigned long long>& packets_written_;
  std::unique_ptr<SubsystemModel> model_;
};

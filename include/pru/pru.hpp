#pragma once
// PRU: one core of the subsystem, a child of PRUICSS. It loads the core's
// program images ("<data root>/bin/" + program + "_app.bin" into instruction
// RAM at "ioffset", "_data.bin" into data RAM at "doffset"), starts and stops
// the core through its CONTROL register (at "coffset") and shows the core's
// state, program counter, stall counter and timeslice lengths. The offsets
// are configuration only; one that lies outside the mapped subsystem is
// logged and not used. "program" is a name (letters, digits, '_', '-', '.'),
// never a path.
#include <string>

#include "core/component.hpp"

class PRUICSS;

class PRU : public Component {
 public:
  explicit PRU(const VTree& config, int index = 0);

  // Clears both memories and copies the images in; a file that cannot be
  // opened is logged with "fopen" and leaves its memory cleared.
  void load();
  // Starts the core; logs "<label> start running failed" when it does not run.
  bool start_core();
  void stop_core();
  // Clears the core's control register to the stopped state the restart
  // sequence uses (counter enabled, sleeping, disabled, held in reset).
  void hold();
  // Reads the core's registers into the fields.
  void update();

  int index() const { return index_.get(); }
  std::string state() const { return state_.get(); }

 private:
  PRUICSS* subsystem() const;
  // The core's control registers; null when unmapped or outside the map.
  uint8_t* control() const;
  bool inside_map(unsigned int offset, size_t bytes) const;
  bool load_image(const std::string& path, unsigned int offset);

  ValueField<int>& index_;
  ValueField<std::string>& state_;
  ValueField<unsigned int>& ioffset_;
  ValueField<unsigned int>& doffset_;
  ValueField<unsigned int>& coffset_;
  ValueField<std::string>& program_;
  ValueField<unsigned int>& program_counter_;
  ValueField<unsigned int>& stall_counter_;
  ValueField<double>& cycle_time_;
  ValueField<double>& max_cycle_time_;
  bool loaded_ = false;
  double recent_max_[8] = {};
  unsigned recent_at_ = 0;
};

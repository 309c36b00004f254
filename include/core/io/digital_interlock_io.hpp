#pragma once
// DigitalInterlockIO: an interlock on a bool IO. With `polarity` non-zero
// (the default) the condition is an error while the input is true, with
// `polarity` zero while it is false; an input that never had a value is OK.
#include "core/io/interlock_io.hpp"

class DigitalInterlockIO : public InterlockIO {
 public:
  // Configured: watches the IO at the tree path `input` (resolved in init).
  explicit DigitalInterlockIO(const VTree& config);
  DigitalInterlockIO(const VTree& config, DigitalIO& input);

  void init() override;

  // The condition code for the input as it is.
  int digital_code() const;
  ValueField<int>& polarity() const { return polarity_; }
  // "'sensors/door_open' is true (in error while true)".
  std::string describe_condition() const override;

 private:
  DigitalInterlockIO(const VTree& config, IOLink<bool> input);

  IOLink<bool> input_;
  ValueField<int>& polarity_;
};

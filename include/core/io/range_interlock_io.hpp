#pragma once
// RangeInterlockIO: an interlock on a double IO. The condition is an error
// below `lower_limit` or above `upper_limit`, else a warning below
// `lower_warning` or above `upper_warning`, else OK. Comparisons are strict (a
// value on a bound is inside it); each bound takes part only when it has a
// value, and an input that never had a value is OK. The condition follows the
// input and changes of the bounds.
#include "core/io/interlock_io.hpp"

class RangeInterlockIO : public InterlockIO {
 public:
  // Configured: watches the IO at the tree path `input` (resolved in init).
  explicit RangeInterlockIO(const VTree& config);
  RangeInterlockIO(const VTree& config, AnalogIO& input);

  void init() override;

  // The condition code for the input as it is.
  int range_code() const;
  // The IO watched; null until init() resolved a configured path.
  IO<double>* input() const { return input_.get(); }
  // "'chamber/pressure' is 0.0002 mbar (upper_limit 0.0001, upper_warning 1e-05)".
  std::string describe_condition() const override;

  ValueField<double>& lower_limit() const { return lower_limit_; }
  ValueField<double>& upper_limit() const { return upper_limit_; }
  ValueField<double>& lower_warning() const { return lower_warning_; }
  ValueField<double>& upper_warning() const { return upper_warning_; }

 private:
  RangeInterlockIO(const VTree& config, IOLink<double> input);

  IOLink<double> input_;
  ValueField<double>& lower_limit_;
  ValueField<double>& upper_limit_;
  ValueField<double>& lower_warning_;
  ValueField<double>& upper_warning_;
};

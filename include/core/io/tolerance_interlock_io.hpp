#pragma once
// ToleranceInterlockIO: compares a value with a reference (typically a
// readback with its command). With d = |value - reference|, and
// `tolerance_limit` and `tolerance_warning` percentages of the reference:
//   - a reference whose magnitude is not above `minimum` (when set) is not
//     tested: OK;
//   - d beyond |reference * tolerance_limit / 100| (when set) is an error;
//   - d beyond |reference * tolerance_warning / 100| (when set) a warning;
//   - else OK.
// Comparisons are strict. The condition follows both IOs and the settings.
#include "core/io/interlock_io.hpp"

class ToleranceInterlockIO : public InterlockIO {
 public:
  // Configured: watches the IOs at the tree paths `reference` and `input`
  // (resolved in init).
  explicit ToleranceInterlockIO(const VTree& config);
  // First the reference, then the compared value.
  ToleranceInterlockIO(const VTree& config, AnalogIO& reference, AnalogIO& value);

  void init() override;

  // The condition code for the IOs as they are.
  int tolerance_code() const;

  ValueField<double>& minimum() const { return minimum_; }
  ValueField<double>& tolerance_limit() const { return tolerance_limit_; }
  ValueField<double>& tolerance_warning() const { return tolerance_warning_; }

 private:
  ToleranceInterlockIO(const VTree& config, IOLink<double> reference, IOLink<double> value);

  IOLink<double> reference_;
  IOLink<double> value_;
  ValueField<double>& minimum_;
  ValueField<double>& tolerance_limit_;
  ValueField<double>& tolerance_warning_;
};

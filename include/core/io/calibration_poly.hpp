#pragma once
// CalibrationPoly: the active calibration of a channel, a cubic in rising
// coefficients (offset, gain, quadratic, cubic; kept in the store
// "calibration", the identity until calibrated), together with its
// measurement model "poly_model".
//
// `calibrated` is the channel's reading passed through the active polynomial;
// it follows every change of the channel and of the coefficients.
// `copy_fit_button` copies the model's fit results into the coefficients, once
// the user has confirmed; results that do not exist yet or are not finite are
// refused, and the active calibration stays as it is.
//
// The settings "channel", "output", "settle_time", "order", "units", "format"
// and "permissions" of the calibration pass on to its model.
#include <mutex>
#include <string>

#include "core/io/poly_io.hpp"
#include "core/io/poly_model.hpp"

class CalibrationPoly : public PolyIO<4> {
 public:
  using Model = PolyModel<4, 7>;

  explicit CalibrationPoly(const VTree& config);

  void init() override;
  std::string render_html() const override;

  // Returns whether the coefficients were replaced.
  bool copy_fit();

  Model& model() const { return *model_; }
  AnalogIO& calibrated() const { return *calibrated_; }

 private:
  void refresh();

  AnalogIO* calibrated_;
  Model* model_;
  // Held while the calibrated reading is worked out and while the
  // coefficients are replaced, so that no reading mixes old and new ones.
  std::recursive_mutex mutex_;
  bool copying_ = false;
};

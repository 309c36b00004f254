#include "core/io/calibration_poly.hpp"

#include <cmath>

#include "core/log.hpp"

ZEL_REGISTER_NODE("calibration_poly", CalibrationPoly);

namespace {

// A new calibration is the identity: offset 0, gain 1, no higher terms.
void active_coefficient(int index, VTree& config) {
  config.set_default(std::string(StoreField::key), CalibrationPoly::Model::kStore);
  config.set_default("value", index == 1 ? "1" : "0");
}

VTree model_config(const VTree& config) {
  VTree model = config.child_or_empty("poly_model");
  for (const char* key : {"channel", "output", "settle_time", "order", "units", "format", "permissions"})
    if (auto value = config.attribute(key)) model.set_default(key, std::string(*value));
  return model;
}

VTree calibrated_config(const VTree& config) {
  VTree calibrated = config.child_or_empty("calibrated");
  calibrated.set_default(std::string(LabelField::key), "Calibrated Reading");
  calibrated.set_default(std::string(ReadonlyField::key), "true");
  if (auto units = config.attribute(UnitsField::key)) calibrated.set_default(std::string(UnitsField::key), std::string(*units));
  return calibrated;
}

}  // namespace

CalibrationPoly::CalibrationPoly(const VTree& config) : PolyIO<4>(config, active_coefficient) {
  describe("Calibration", "Active calibration polynomial of a channel", "calibration");
  set_default("confirm", true);
  calibrated_ = &adopt(NodeFactory::make<AnalogIO>(calibrated_config(config)));
  auto& copy = add<ButtonField>("copy_fit_button", "Copy Fit Results to Active Calibration", [this] { copy_fit(); });
  copy.attributes_for_update().detail = "Coppies the fit results into the active calibration settings";
  copy.attributes_for_update().confirm = true;
  model_ = &adopt(NodeFactory::make<Model>(model_config(config)));
  for (int k = 0; k < size(); ++k) (*this)[k].on_change([this] { refresh(); });
}

void CalibrationPoly::init() {
  model_->resolve_channel();  // the model's own init comes after this one
  if (auto* channel = model_->channel().input()) channel->on_change([this] { refresh(); });
  refresh();
}

std::string CalibrationPoly::render_html() const {
  return fmt::format("<zel-component path=\"{}\" type=\"{}\">Calibrate</zel-component>", path(), type());
}

bool CalibrationPoly::copy_fit() {
  auto results = model_->fit_results().values();
  for (int k = 0; k < size(); ++k) {
    if (!model_->fit_results()[k].assigned()) {
      ZEL_ERROR("No fit results to copy for {}", path());
      return false;
    }
    if (!std::isfinite(results[k])) {
      ZEL_ERROR("Fit results of {} are not finite; the active calibration is kept", path());
      return false;
    }
  }
  {
    std::lock_guard lock(mutex_);
    copying_ = true;
    for (int k = 0; k < size(); ++k) (*this)[k].set(results[k]);
    copying_ = false;
  }
  ZEL_EVENT("Calibration {} set from the fit: offset {}, gain {}, quadratic {}, cubic {}", path(), results[0],
            results[1], results[2], results[3]);
  refresh();
  return true;
}

void CalibrationPoly::refresh() {
  std::lock_guard lock(mutex_);
  if (copying_) return;  // one refresh once all coefficients are in
  auto* channel = model_->channel().input();
  if (!channel || !channel->assigned()) return;
  calibrated_->set(evaluate(channel->get()));
}

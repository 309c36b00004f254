#include "core/io/tolerance_interlock_io.hpp"

#include <cmath>

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("tolerance_interlock_io", ToleranceInterlockIO);

ToleranceInterlockIO::ToleranceInterlockIO(const VTree& config)
    : ToleranceInterlockIO(config, IOLink<double>(config, "reference"), IOLink<double>(config, "input")) {}

ToleranceInterlockIO::ToleranceInterlockIO(const VTree& config, AnalogIO& reference, AnalogIO& value)
    : ToleranceInterlockIO(config, IOLink<double>(reference), IOLink<double>(value)) {}

ToleranceInterlockIO::ToleranceInterlockIO(const VTree& config, IOLink<double> reference, IOLink<double> value)
    : InterlockIO(config),
      reference_(std::move(reference)),
      value_(std::move(value)),
      minimum_(add_setting<ValueField<double>>(config, "minimum")),
      tolerance_limit_(add_setting<ValueField<double>>(config, "tolerance_limit")),
      tolerance_warning_(add_setting<ValueField<double>>(config, "tolerance_warning")) {
  minimum_.attributes_for_update().units = units();
  tolerance_limit_.attributes_for_update().units = "%";
  tolerance_warning_.attributes_for_update().units = "%";
  guard_limits(config, {&minimum_, &tolerance_limit_, &tolerance_warning_}, kAnyFinite);
  set_condition_function([this] { return tolerance_code(); });
  for (auto* setting : {&minimum_, &tolerance_limit_, &tolerance_warning_}) setting->listen([this] { refresh(); });
  if (reference_.bound()) watch(*reference_.io());
  if (value_.bound()) watch(*value_.io());
}

void ToleranceInterlockIO::init() { link_inputs({&reference_, &value_}); }

int ToleranceInterlockIO::tolerance_code() const {
  auto* reference = reference_.get();
  auto* value = value_.get();
  if (!reference || !value) return Ok;
  double a = reference->get();
  double d = std::abs(value->get() - a);
  // A failed sensor on either side, or a broken setting, is an error.
  if (!std::isfinite(a) || !std::isfinite(d)) return Error;
  for (auto* setting : {&minimum_, &tolerance_limit_, &tolerance_warning_})
    if (setting->assigned() && !std::isfinite(setting->get())) return Error;
  if (minimum_.assigned() && !(std::abs(a) > minimum_.get())) return Ok;
  if (tolerance_limit_.assigned() && d > std::abs(a * tolerance_limit_.get() / 100)) return Error;
  if (!tolerance_warning_.assigned()) return Ok;
  return d > std::abs(a * tolerance_warning_.get() / 100) ? Warning : Ok;
}

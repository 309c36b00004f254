#include "core/io/range_interlock_io.hpp"

#include <cmath>

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("range_interlock_io", RangeInterlockIO);

RangeInterlockIO::RangeInterlockIO(const VTree& config) : RangeInterlockIO(config, IOLink<double>(config, "input")) {}

RangeInterlockIO::RangeInterlockIO(const VTree& config, AnalogIO& input)
    : RangeInterlockIO(config, IOLink<double>(input)) {}

RangeInterlockIO::RangeInterlockIO(const VTree& config, IOLink<double> input)
    : InterlockIO(config),
      input_(std::move(input)),
      lower_limit_(add_setting<ValueField<double>>(config, "lower_limit")),
      upper_limit_(add_setting<ValueField<double>>(config, "upper_limit")),
      lower_warning_(add_setting<ValueField<double>>(config, "lower_warning")),
      upper_warning_(add_setting<ValueField<double>>(config, "upper_warning")) {
  guard_limits(config, {&lower_limit_, &upper_limit_, &lower_warning_, &upper_warning_}, kAnyFinite);
  set_condition_function([this] { return range_code(); });
  for (auto* bound : {&lower_limit_, &upper_limit_, &lower_warning_, &upper_warning_}) {
    bound->attributes_for_update().units = units();
    bound->listen([this] { refresh(); });
  }
  if (input_.bound()) watch(*input_.io());
}

void RangeInterlockIO::init() { link_inputs({&input_}); }

std::string RangeInterlockIO::describe_condition() const {
  auto text = describe_exception();
  if (!text.empty()) return text;
  auto* input = input_.get();
  if (!input) return "no input";
  text = "'" + input->path() + "' is " + (input->assigned() ? fmt::format("{}", input->get()) : "not assigned");
  if (auto units = input->units(); !units.empty()) text += " " + units;
  std::string bounds;
  for (auto* bound : {&lower_limit_, &upper_limit_, &lower_warning_, &upper_warning_})
    if (bound->assigned()) bounds += fmt::format("{}{} {}", bounds.empty() ? "" : ", ", bound->name(), bound->get());
  return bounds.empty() ? text : text + " (" + bounds + ")";
}

int RangeInterlockIO::range_code() const {
  auto* input = input_.get();
  if (!input || !input->assigned()) return Ok;
  double x = input->get();
  if (!std::isfinite(x)) return Error;  // a failed sensor
  for (auto* bound : {&lower_limit_, &upper_limit_, &lower_warning_, &upper_warning_})
    if (bound->assigned() && !std::isfinite(bound->get())) return Error;
  if (lower_limit_.assigned() && x < lower_limit_.get()) return Error;
  if (upper_limit_.assigned() && x > upper_limit_.get()) return Error;
  if (lower_warning_.assigned() && x < lower_warning_.get()) return Warning;
  if (upper_warning_.assigned() && x > upper_warning_.get()) return Warning;
  return Ok;
}

#include "core/io/interlock_io.hpp"

#include <cmath>

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("interlock_io", InterlockIO);

namespace {

const char* state_color(int state) {
  switch (state) {
    case InterlockIO::Ok: return "green";
    case InterlockIO::Warning: return "orange";
    default: return "red";
  }
}

// The bool IO `name`: from the child element <name value=".."/>, overridden
// by the attribute name=".." of the interlock, else `fallback`.
DigitalIO& bool_io_setting(Node& owner, const VTree& config, const char* name, bool fallback) {
  auto& io = owner.add_node<DigitalIO>(config, name);
  bool value = fallback;
  bool configured = config.get(name, value);
  if (configured || !io.assigned()) io.set(value);
  return io;
}

}  // namespace

InterlockIO::InterlockIO(const VTree& config, std::vector<IOBase*> inputs)
    : InterlockIO(config, nullptr, std::move(inputs)) {}

InterlockIO::InterlockIO(const VTree& config, std::function<int()> condition, std::vector<IOBase*> inputs)
    : StateIO<int>(config),
      // A safety interlock guards from the start unless configured otherwise.
      enabled_(bool_io_setting(*this, config, "enabled", true)),
      latching_(bool_io_setting(*this, config, "latching", false)),
      enabled_value_(enabled_.value()),
      latching_value_(latching_.value()),
      error_time_duration_(add_setting<ValueField<double>>(config, "error_time_duration")),
      state_time_(add<ValueField<unsigned long long>>("state_time")),
      condition_function_(std::move(condition)) {
  set_default("detail", std::string("A generic interlock."));
  set_default("icon", std::string("lock"));
  set_default("color", std::string(state_color(Ok)));
  color_ = dynamic_cast<Field<std::string>*>(attribute_field("color"));
  value().attributes_for_update().detail = "The state of the interlock if enabled and non latching.";

  enabled_.set_attribute("store", "interlocks");
  enabled_.set_default("detail", std::string("Enable and disable the interlock, clears a latching event."));
  latching_.set_default("detail", std::string("Holds the first state that is not OK until the interlock is disabled."));
  auto& duration = error_time_duration_.attributes_for_update();
  duration.units = "s";
  duration.detail = "The time in seconds that a error condition must be true for this interlock to be in error.";
  state_time_.set_readonly(true);
  state_time_.attributes_for_update().detail = "The time the state last changed";

  value().listen([this] { follow_state(); });
  condition_.listen([this] { condition_timer_.restart(); });
  condition_.listen([this] { evaluate(); });
  enabled_.on_change([this] { evaluate(); });
  latching_.on_change([this] { evaluate(); });
  for (auto* input : inputs) watch(*input);
}

bool InterlockIO::set_error() { return set_code(Error); }

bool InterlockIO::set_code(int code) { return condition_.set(code); }

bool InterlockIO::set_flags(bool error, bool warning) { return set_code(error ? Error : warning ? Warning : Ok); }

bool InterlockIO::set_tolerance(double readback, double command, double limit, double warning) {
  double deviation = std::abs(readback - command);
  if (std::abs(command * limit) < deviation) return set_code(Error);
  if (std::abs(command * warning) < deviation) return set_code(Warning);
  return set_code(Ok);
}

void InterlockIO::evaluate() {
  auto& state = value();
  if (!enabled_value_.get()) {
    pending_.store(false, std::memory_order_relaxed);
    state.set(Ok);  // notifies when never assigned or not 0
    return;
  }
  int result = condition_.get();
  bool latching = latching_value_.get();
  if (result == Error && error_time_duration_.assigned() &&
      !(condition_timer_.elapsed() > error_time_duration_.get())) {
    pending_.store(true, std::memory_order_relaxed);
    if (!latching) state.set(Ok);
    return;
  }
  pending_.store(false, std::memory_order_relaxed);
  if (latching && (result == Ok || (state.assigned() && state.get() != Ok))) return;
  state.set(result);
}

void InterlockIO::start() { refresh(); }

void InterlockIO::watch(IOBase& input) {
  auto* field = input.value_field();
  if (!field) throw ConfigError("'" + path() + "' can't watch '" + input.path() + "': it has no value");
  field->listen([this] { refresh(); });
}

void InterlockIO::refresh() {
  // A changed condition evaluates through its own listener.
  if (condition_function_ && set_code(condition_function_())) return;
  evaluate();
}

void InterlockIO::link_inputs(std::initializer_list<IOLinkBase*> links) {
  for (auto* link : links) {
    if (link->bound()) continue;
    try {
      watch(link->resolve(*this));
    } catch (const std::exception& e) {
      report_build_failure(path(), type(), e.what());
      condition_function_ = [] { return Error; };
      set_error();
      return;
    }
  }
}

void InterlockIO::follow_state() {
  const char* color = state_color(get());
  if (color_ && color_->get() != color) color_->set(color);
  state_time_.set(value().stamp());
}

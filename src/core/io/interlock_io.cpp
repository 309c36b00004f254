#include "core/io/interlock_io.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/clock.hpp"
#include "core/context.hpp"

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
      trip_time_(add<ValueField<unsigned long long>>("trip_time")),
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
  guard_limits(config, {&error_time_duration_}, {0.0, std::numeric_limits<double>::infinity()});
  error_time_duration_.listen([this] { evaluate(); });
  state_time_.attributes_for_update().detail = "The time the state last changed";
  trip_time_.set_readonly(true);
  trip_time_.set(0);
  trip_time_.attributes_for_update().detail = "While an error condition waits out its duration: when it trips.";

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
  if (!std::isfinite(readback) || !std::isfinite(command) || !std::isfinite(limit)) return set_code(Error);
  double deviation = std::abs(readback - command);
  if (std::abs(command * limit) < deviation) return set_code(Error);
  if (std::abs(command * warning) < deviation) return set_code(Warning);
  return set_code(Ok);
}

void InterlockIO::evaluate() {
  auto& state = value();
  if (!enabled_value_.get()) {
    set_pending(false);
    state.set(Ok);  // notifies when never assigned or not 0
    return;
  }
  int result = condition_.get();
  bool latching = latching_value_.get();
  if (result == Error && error_time_duration_.assigned() &&
      !(condition_timer_.elapsed() > error_time_duration_.get())) {
    set_pending(true);
    arm_trip_timer();
    if (!latching) state.set(Ok);
    return;
  }
  set_pending(false);
  if (latching && (result == Ok || (state.assigned() && state.get() != Ok))) return;
  state.set(result);
}

void InterlockIO::set_pending(bool pending) {
  pending_.store(pending, std::memory_order_relaxed);
  uint64_t trips = 0;
  // Durations beyond a few centuries are cut short: the stamp stays in range.
  if (pending) trips = condition_.stamp() + static_cast<uint64_t>(std::min(error_time_duration_.get(), 1e10) * 1e9);
  if (trip_time_.get() != trips) trip_time_.set(trips);
}

void InterlockIO::arm_trip_timer() {
  Context* owner = context();
  if (!owner || !owner->running()) return;  // the manager's poll covers a tree without contexts
  double remaining = error_time_duration_.get() - condition_timer_.elapsed();
  // Just past the end: the duration must be strictly exceeded.
  auto delay = static_cast<int64_t>(std::max(remaining, 0.0) * 1e9) + 1000;
  int64_t deadline = static_cast<int64_t>(Clock::steady_ns()) + delay;
  int64_t armed = armed_until_ns_.load(std::memory_order_relaxed);
  // An armed timer that ends no later than this deadline will do.
  if (armed != 0 && armed <= deadline + 1000000) return;
  if (!armed_until_ns_.compare_exchange_strong(armed, deadline)) return;
  owner->after(std::chrono::nanoseconds(delay), [this, deadline] {
    int64_t mine = deadline;
    armed_until_ns_.compare_exchange_strong(mine, 0);
    if (pending()) evaluate();
  });
}

void InterlockIO::start() { refresh(); }

std::string InterlockIO::describe_exception() const {
  if (!enabled_value_.get()) return "disabled";
  if (held_error_) return "configuration error: the condition is held in error";
  return {};
}

std::string InterlockIO::describe_condition() const {
  auto text = describe_exception();
  if (!text.empty()) return text;
  switch (condition_.get()) {
    case Error: return "condition in error";
    case Warning: return "condition in warning";
    default: return "condition OK";
  }
}

void InterlockIO::watch(IOBase& input) {
  auto* field = input.value_field();
  if (!field) throw ConfigError("'" + path() + "' can't watch '" + input.path() + "': it has no value");
  field->listen([this] { refresh(); });
  watched_.push_back(field);
}

void InterlockIO::refresh() {
  // A changed condition evaluates through its own listener.
  if (held_error_) {
    if (set_code(Error)) return;
  } else if (condition_function_ && set_code(condition_function_())) {
    return;
  }
  evaluate();
}

void InterlockIO::guard_limits(const VTree& config, std::initializer_list<ValueField<double>*> limits,
                               FieldRange range) {
  for (auto* limit : limits) {
    if (restrict_setting(config, *limit, range, std::nullopt)) continue;
    hold_error();
  }
}

void InterlockIO::hold_error() {
  held_error_ = true;
  set_error();
}

void InterlockIO::link_inputs(std::initializer_list<IOLinkBase*> links) {
  for (auto* link : links) {
    if (link->bound()) continue;
    try {
      watch(link->resolve(*this));
    } catch (const std::exception& e) {
      report_build_failure(path(), type(), e.what());
      hold_error();
      return;
    }
  }
}

void InterlockIO::follow_state() {
  const char* color = state_color(get());
  if (color_ && color_->get() != color) color_->set(color);
  state_time_.set(value().stamp());
}

#pragma once
// InterlockIO: watches IOs and reduces what it sees to one state, published
// as its value: 0 OK ("green"), 1 error ("red"), 2 warning ("orange").
//
// Watching code writes the condition (set_error, set_code, set_flags,
// set_tolerance), never the state. The state follows the condition through
// evaluate(), run on every change of an input, of the condition, of `enabled`
// and of `latching`:
//   1. disabled: the state is 0; disabling also clears a latched state;
//   2. without an error_time_duration an error condition applies at once;
//   3. with one, an error condition applies only once it has held strictly
//      longer than that; until then the state shows 0 (a latching interlock
//      keeps its state instead). A pending error therefore shows OK, even
//      over a present warning: that is intended;
//   4. latching: an OK result, or any result while the state is non-zero,
//      changes nothing. A latched warning is not raised to an error: intended;
//   5. the state takes the result (listeners hear of changes only).
// An error condition that outlasts its duration with no further event still
// trips: a pending error arms a one-shot timer on the interlock's context for
// the moment its duration ends, whatever any poll rate says; the root's
// InterlockManager's poll re-evaluates pending interlocks as well.
//
// Fail safe: a sensor that reads NaN or infinity has failed. The conditions
// of the subclasses treat a non-finite input, limit or reference as an error,
// the limits refuse non-finite values from every write path, and
// error_time_duration takes only finite values from 0 up. A configuration
// that gives one anyway is a configuration error: logged, counted, and the
// interlock holds an error condition.
//
// Evaluation runs on the thread that delivered the event. An interlock and the
// IOs it watches are meant to live in one context; no lock guards the state.
#include <atomic>
#include <functional>
#include <initializer_list>
#include <limits>
#include <vector>

#include "core/io/io.hpp"
#include "core/io/io_link.hpp"
#include "core/io/timer_io.hpp"

class InterlockIO : public StateIO<int> {
 public:
  enum Code : int { Ok = 0, Error = 1, Warning = 2 };
  // Limits and references: negative values are ordinary, non-finite ones not.
  static constexpr FieldRange kAnyFinite{-std::numeric_limits<double>::infinity(),
                                         std::numeric_limits<double>::infinity()};

  // `inputs` are IOs whose changes cause evaluation.
  explicit InterlockIO(const VTree& config, std::vector<IOBase*> inputs = {});
  // As above; `condition` returns the condition code and is called on each
  // input change.
  InterlockIO(const VTree& config, std::function<int()> condition, std::vector<IOBase*> inputs);

  // Condition setters. Each does nothing when the condition was assigned
  // before and keeps its code; otherwise it stores the code, stamps it and
  // calls the condition's listeners (which restart the condition timer and
  // evaluate). They return whether the condition changed.
  bool set_error();
  bool set_code(int code);
  // error gives 1, else warning gives 2, else 0.
  bool set_flags(bool error, bool warning);
  // Fractions, not percentages: with d = |readback - command|, d beyond
  // |command * limit| gives 1, beyond |command * warning| gives 2, else 0.
  bool set_tolerance(double readback, double command, double limit, double warning);

  int condition() const { return condition_.get(); }
  uint64_t condition_stamp() const { return condition_.stamp(); }
  void on_condition_change(std::function<void()> listener) { condition_.listen(std::move(listener)); }
  // Seconds the condition has held its present code.
  double condition_seconds() const { return condition_timer_.elapsed(); }

  // Predicates on the published state; all false while it was never assigned.
  bool is_error() const { return assigned() && get() == Error; }
  bool is_warning() const { return assigned() && get() == Warning; }
  bool is_not_ok() const { return assigned() && get() != Ok; }
  bool is_ok() const { return assigned() && get() == Ok; }

  void evaluate();
  // The condition in words, for the alarm journal and the log: what is
  // watched, as it is now, and the bounds it is held to.
  virtual std::string describe_condition() const;
  // True while an error condition waits out error_time_duration: the next
  // evaluation after the duration trips it.
  bool pending() const { return pending_.load(std::memory_order_relaxed); }

  DigitalIO& enabled() const { return enabled_; }
  DigitalIO& latching() const { return latching_; }
  ValueField<double>& error_time_duration() const { return error_time_duration_; }
  // The stamp (wall-clock nanoseconds) of the state's last change.
  ValueField<unsigned long long>& state_time() const { return state_time_; }
  // While an error is pending, the stamp (wall-clock nanoseconds) at which
  // it trips if it holds; 0 otherwise. Lets a page show the delay running
  // out instead of a bare OK.
  ValueField<unsigned long long>& trip_time() const { return trip_time_; }

  // The values this interlock watches (its inputs), once the tree is built:
  // a page draws the limits next to them.
  const std::vector<const FieldBase*>& watched() const { return watched_; }
  // Publishes the state once the tree runs: the condition is taken from the
  // inputs as they are and evaluated.
  void start() override;

 protected:
  // Evaluates on each change of `input` (refreshing the condition first when
  // there is a condition function).
  void watch(IOBase& input);
  void set_condition_function(std::function<int()> condition) { condition_function_ = std::move(condition); }
  // The reaction to an input event: the condition from the function, then
  // the evaluation.
  void refresh();
  // Gives each limit its range (`range` for all of them) and refuses a
  // configured value outside it: logged, counted as a configuration error, and
  // the interlock holds an error condition from then on.
  void guard_limits(const VTree& config, std::initializer_list<ValueField<double>*> limits, FieldRange range);
  // Holds an error condition for good (a broken configuration).
  void hold_error();
  // The words every interlock starts with: "disabled", a broken
  // configuration, else empty (the subclass describes its inputs).
  std::string describe_exception() const;
  // For configured variants, in init(): resolves each link not yet bound and
  // watches it. A path that does not resolve is reported as a build failure
  // of this node, and the interlock holds an error condition from then on, so
  // a safety chain with a broken link stays tripped instead of open.
  void link_inputs(std::initializer_list<IOLinkBase*> links);

 private:
  void follow_state();
  // A pending error: makes sure a timer re-evaluates when its duration ends.
  void arm_trip_timer();
  // Records whether an error is pending, and when it trips (trip_time).
  void set_pending(bool pending);

  DigitalIO& enabled_;
  DigitalIO& latching_;
  // The values evaluate() reads, one indirection closer: evaluating many
  // interlocks at once (enable all) is bound by memory latency.
  ValueField<bool>& enabled_value_;
  ValueField<bool>& latching_value_;
  ValueField<double>& error_time_duration_;
  ValueField<unsigned long long>& state_time_;
  ValueField<unsigned long long>& trip_time_;
  Field<std::string>* color_ = nullptr;
  Field<int> condition_{"condition"};  // internal, not a child
  TimerIO condition_timer_{VTree("condition_timer")};  // internal, not a child
  std::function<int()> condition_function_;
  std::atomic<bool> pending_{false};
  std::vector<const FieldBase*> watched_;  // filled while the tree is built, read-only after
  bool held_error_ = false;  // a broken configuration: the condition stays 1
  // Steady-clock deadline of the armed trip timer; 0 when none is armed.
  std::atomic<int64_t> armed_until_ns_{0};
};

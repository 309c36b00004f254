#pragma once
// IO nodes carry values. An IO<T> holds its value in the value field "value"
// (stamp of the last assignment, zero when never assigned); its listeners are
// called synchronously, in registration order, when an assignment changes the
// value or is the first one.
#include <functional>
#include <string>

#include "core/field.hpp"
#include "core/node.hpp"

class IOBase : public Node {
 public:
  explicit IOBase(const VTree& config);

  // The value field; null for an IO without a value.
  virtual FieldBase* value_field() const { return nullptr; }
  uint64_t stamp() const {
    auto* f = value_field();
    return f ? f->stamp() : 0;
  }
  bool assigned() const { return stamp() != 0; }
};

template <class T>
class IO : public IOBase {
 public:
  using value_type = T;

  explicit IO(const VTree& config, T initial = T{}) : IOBase(config), value_(&add<ValueField<T>>("value", initial)) {
    T configured{};
    if (config.get("value", configured)) value_->set(configured);
  }

  T get() const { return value_->get(); }
  // Assigns, stamps and notifies when the value changed or was never assigned;
  // returns whether it notified.
  bool set(const T& v) { return value_->set(v); }
  void on_change(std::function<void()> listener) { value_->listen(std::move(listener)); }

  ValueField<T>& value() const { return *value_; }
  FieldBase* value_field() const override { return value_; }

 private:
  ValueField<T>* value_;
};

// An IO whose value is a state worked out by the node itself, not set by users.
template <class T>
class StateIO : public IO<T> {
 public:
  explicit StateIO(const VTree& config, T initial = T{}) : IO<T>(config, initial) {
    this->set_default("readonly", true);
  }
};

class AnalogIO : public IO<double> {
 public:
  explicit AnalogIO(const VTree& config);
};

class DigitalIO : public IO<bool> {
 public:
  explicit DigitalIO(const VTree& config);
};

class StringIO : public IO<std::string> {
 public:
  explicit StringIO(const VTree& config);
};

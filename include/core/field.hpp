#pragma once
// Fields: every setting and value of a node. A field is a vertex (it has a
// name and a path), holds one typed value with the stamp of its last
// assignment (zero: never assigned), converts itself to and from the value
// text format, and calls its listeners synchronously, in registration order,
// when an assignment changes the value or is the first one.
//
// Values may be read and written from any thread: scalar values are atomics,
// others are guarded by a small lock. Listeners are registered while the tree
// is built; after that, dynamic interest goes through FieldSubscription.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/clock.hpp"
#include "core/spin_lock.hpp"
#include "core/vertex.hpp"
#include "core/x2x.hpp"

// The values a numeric setting may take: finite, from `min` (excluded when
// `min_exclusive`) to `max`. Delays, rates and sizes carry one, so that a
// value that would spin a core or stop a timer is refused wherever it comes
// from.
struct FieldRange {
  double min;
  double max;
  bool min_exclusive = false;
  bool zero_means_off = false;  // 0 is taken as well: the work it paces is off
  bool contains(double v) const;
  // "from 0 to 1000", "above 0 up to 1000", "any finite number".
  std::string describe() const;
};

// Descriptive attributes a field may carry; allocated only when one is set.
struct FieldAttributes {
  std::string label;
  std::string detail;
  std::string units;
  std::string format;
  std::string store;
  std::string permissions;  // "r" or "readonly" makes the field read-only for users
  bool confirm = false;     // the user interface asks before acting
  // A selection's values, each with its label, in the order shown (ChoiceField).
  std::vector<std::pair<std::string, std::string>> choices;
  bool ranged = false;
  FieldRange range{};
  // The node that drives this value (a permit command's output): users
  // command that node instead of writing here.
  const Vertex* driven_by = nullptr;
  // Called after every accepted write from outside, changed or not.
  std::vector<std::function<void()>> written;
};

class FieldBase : public Vertex {
 public:
  using Listener = std::function<void()>;

  explicit FieldBase(std::string name);
  ~FieldBase() override;

  bool is_field() const override { return true; }
  // Fields are left out of a vertex's JSON unless their kind admits them.
  bool admitted() const override { return false; }

  uint64_t stamp() const { return stamp_.load(std::memory_order_acquire); }
  bool assigned() const { return stamp() != 0; }
  // The second item of a field's report: its change stamp.
  void write_stamp_json(std::string& out) const;

  // write_json / read_json carry the value text. read_json logs a text that
  // does not convert and leaves the value unchanged.
  void write_json(std::string& out) const override = 0;
  bool read_json(std::string_view text) override = 0;

  // Converts `text` and checks it against the field's range and choices
  // without storing it. On refusal `error` says why.
  virtual bool check_text(std::string_view text, std::string& error) const = 0;

  // The value type's name for clients: "bool", "double", "string", "button", ...
  virtual std::string_view value_type_name() const = 0;

  void listen(Listener listener) { listeners_.push_back(std::move(listener)); }

  bool readonly() const;
  void set_readonly(bool readonly);
  // Operator controls (buttons, a permit's commands) stay writable from
  // outside when their node is read-only.
  bool operator_control() const { return operator_control_; }
  void set_operator_control() { operator_control_ = true; }
  const FieldRange* range() const { return attributes_ && attributes_->ranged ? &attributes_->range : nullptr; }
  void set_range(FieldRange range);
  const Vertex* driven_by() const { return attributes_ ? attributes_->driven_by : nullptr; }
  void set_driven_by(const Vertex* driver) { attributes_for_update().driven_by = driver; }
  void on_written(Listener listener) { attributes_for_update().written.push_back(std::move(listener)); }
  // Runs the on_written listeners; the write path calls it after each write.
  void notify_written() const {
    if (attributes_)
      for (auto& l : attributes_->written) l();
  }
  const FieldAttributes* attributes() const { return attributes_.get(); }
  FieldAttributes& attributes_for_update();

  // Where Permissions keeps the role a write of this field needs, once
  // worked out (0: not yet).
  std::atomic<uint8_t>& permission_slot() const { return permission_slot_; }

 protected:
  // Stamps the change and notifies listeners, then subscribers.
  void changed() {
    stamp_.store(Clock::next_stamp(stamp_.load(std::memory_order_relaxed)), std::memory_order_release);
    for (auto& l : listeners_) l();
    emit_changed();
  }
  void log_conversion_failure(std::string_view text) const;
  // The refusal texts of check_text.
  bool refuse_conversion(std::string_view text, std::string& error) const;
  bool check_number(double v, std::string& error) const;

 private:
  std::atomic<uint64_t> stamp_{0};
  bool readonly_ = false;
  bool operator_control_ = false;
  mutable std::atomic<uint8_t> permission_slot_{0};
  std::vector<Listener> listeners_;
  std::unique_ptr<FieldAttributes> attributes_;
};

namespace detail {

template <class T>
constexpr bool atomic_field_value = std::is_arithmetic_v<T>;

// Value storage: an atomic for scalars, a locked value otherwise.
template <class T, bool Atomic = atomic_field_value<T>>
class FieldValue {
 public:
  explicit FieldValue(T v) : value_(v) {}
  T load() const { return value_.load(std::memory_order_acquire); }
  // Stores and tells whether the value differs from the previous one.
  bool exchange_differs(const T& v) { return value_.exchange(v, std::memory_order_acq_rel) != v; }

 private:
  std::atomic<T> value_;
};

template <class T>
class FieldValue<T, false> {
 public:
  explicit FieldValue(T v) : value_(std::move(v)) {}
  T load() const {
    std::lock_guard lock(lock_);
    return value_;
  }
  bool exchange_differs(const T& v) {
    std::lock_guard lock(lock_);
    if (value_ == v) return false;
    value_ = v;
    return true;
  }

 private:
  mutable SpinLock lock_;
  T value_;
};

template <class T> constexpr std::string_view type_label() {
  if constexpr (std::is_same_v<T, bool>) return "bool";
  else if constexpr (std::is_same_v<T, double>) return "double";
  else if constexpr (std::is_same_v<T, float>) return "float";
  else if constexpr (std::is_same_v<T, std::string>) return "string";
  else if constexpr (std::is_same_v<T, int>) return "int";
  else if constexpr (std::is_same_v<T, unsigned char>) return "uint8";
  else if constexpr (std::is_same_v<T, unsigned short>) return "uint16";
  else if constexpr (std::is_same_v<T, unsigned int>) return "uint32";
  else if constexpr (std::is_same_v<T, unsigned long long>) return "uint64";
  else if constexpr (std::is_same_v<T, std::vector<bool>>) return "bool[]";
  else if constexpr (std::is_same_v<T, std::vector<double>>) return "double[]";
  else if constexpr (std::is_same_v<T, std::vector<std::string>>) return "string[]";
  else return "value";
}

}  // namespace detail

template <class T>
class Field : public FieldBase {
 public:
  using value_type = T;

  explicit Field(std::string name, T initial = T{}) : FieldBase(std::move(name)), value_(std::move(initial)) {}

  T get() const { return value_.load(); }

  // Assigns; stamps and notifies when the value changed or was never assigned.
  // Returns whether it notified.
  bool set(const T& v) {
    bool differs = value_.exchange_differs(v);
    if (!differs && assigned()) return false;
    changed();
    return true;
  }

  void write_json(std::string& out) const override { x2x::to_json(get(), out); }

  bool read_json(std::string_view text) override {
    T v{};
    if (!x2x::from_json(text, v)) {
      log_conversion_failure(text);
      return false;
    }
    set(v);
    return true;
  }

  bool check_text(std::string_view text, std::string& error) const override {
    T v{};
    if (!x2x::from_json(text, v)) return refuse_conversion(text, error);
    if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) return check_number(static_cast<double>(v), error);
    return true;
  }

  std::string_view value_type_name() const override { return detail::type_label<T>(); }

 private:
  detail::FieldValue<T> value_;
};

// A field that is a value of its node (a setting or a measurement): it is
// admitted to the node's JSON, its stores and its subscriptions.
template <class T>
class ValueField : public Field<T> {
 public:
  using Field<T>::Field;
  bool admitted() const override { return true; }
};

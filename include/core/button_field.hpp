#pragma once
// A user-interface button: a field whose name ends in "_button". Setting it to
// true (from a user, a file write or a WebSocket "set") presses it: the action
// runs on the owning node's context when that runs, otherwise at once.
#include <functional>
#include <string>

#include "core/field.hpp"

class ButtonField : public FieldBase {
 public:
  using Action = std::function<void()>;

  ButtonField(std::string name, std::string label, Action action);

  // Runs the action (posted to the owner's context when it runs).
  void press();
  uint64_t presses() const { return presses_.load(std::memory_order_relaxed); }

  void write_json(std::string& out) const override { out.append("false"); }
  bool read_json(std::string_view text) override;
  bool check_text(std::string_view text, std::string& error) const override;
  std::string_view value_type_name() const override { return "button"; }

 private:
  Action action_;
  std::atomic<uint64_t> presses_{0};
};

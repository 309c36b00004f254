#include "core/button_field.hpp"

#include "core/context.hpp"
#include "core/node.hpp"

ButtonField::ButtonField(std::string name, std::string label, Action action)
    : FieldBase(std::move(name)), action_(std::move(action)) {
  set_operator_control();
  if (!label.empty()) attributes_for_update().label = std::move(label);
}

void ButtonField::press() {
  presses_.fetch_add(1, std::memory_order_relaxed);
  changed();
  if (!action_) return;
  auto* owner = dynamic_cast<Node*>(parent());
  Context* context = owner ? owner->context() : nullptr;
  if (context && context->running() && !context->in_context()) context->post(action_);
  else action_();
}

bool ButtonField::read_json(std::string_view text) {
  bool pressed = false;
  if (!x2x::from_json(text, pressed)) {
    log_conversion_failure(text);
    return false;
  }
  if (pressed) press();
  return true;
}

bool ButtonField::check_text(std::string_view text, std::string& error) const {
  bool pressed = false;
  return x2x::from_json(text, pressed) || refuse_conversion(text, error);
}

#include "core/choice_field.hpp"

#include "core/log.hpp"

ChoiceField::ChoiceField(std::string name, Choices choices, std::string initial)
    : ValueField<std::string>(std::move(name), std::move(initial)) {
  attributes_for_update().choices = std::move(choices);
}

bool ChoiceField::accepts(std::string_view value) const {
  for (auto& choice : attributes()->choices)
    if (choice.first == value) return true;
  return false;
}

std::size_t ChoiceField::index() const {
  auto value = get();
  auto& choices = attributes()->choices;
  for (std::size_t i = 0; i < choices.size(); ++i)
    if (choices[i].first == value) return i;
  return 0;
}

bool ChoiceField::read_json(std::string_view text) {
  std::string value;
  if (!x2x::from_json(text, value)) {
    log_conversion_failure(text);
    return false;
  }
  if (!accepts(value)) {
    ZEL_ERROR("'{}' is not a choice of '{}'", value, path());
    return false;
  }
  set(value);
  return true;
}

bool ChoiceField::check_text(std::string_view text, std::string& error) const {
  std::string value;
  if (!x2x::from_json(text, value)) return refuse_conversion(text, error);
  if (accepts(value)) return true;
  error = fmt::format("{} is not one of its choices", x2x::to_json(value));
  return false;
}

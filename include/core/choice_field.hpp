#pragma once
// ChoiceField: a string setting that takes one value of a fixed list (a
// selection such as a fit mode). The list, each value with the label a user
// sees, travels with the field's attributes so that clients can offer it; any
// other text is refused, whether it comes from a user or from a store file.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/field.hpp"

class ChoiceField : public ValueField<std::string> {
 public:
  using Choices = std::vector<std::pair<std::string, std::string>>;  // value, label

  // `initial` is the value until one is assigned; it should be one of the choices.
  ChoiceField(std::string name, Choices choices, std::string initial);

  bool accepts(std::string_view value) const;
  // The position of the present value in the list.
  std::size_t index() const;

  // Refuses, and logs, a text that is not one of the values (so does a
  // user's set, which goes through here).
  bool read_json(std::string_view text) override;
  bool check_text(std::string_view text, std::string& error) const override;
};

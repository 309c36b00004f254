#pragma once
// FieldAccess: how the web pages see a field. Attribute fields (label,
// colour, ...) describe a node and are not shown as values; whether a user
// may write a field is the write path's rule, shown to pages as "readonly".
#include "core/field.hpp"

class Node;

class FieldAccess {
 public:
  static bool is_attribute(const FieldBase& field);
  static bool is_button(const FieldBase& field);
  static bool read_only_for_users(const FieldBase& field);
  // The node owning a field, or null.
  static const Node* owner(const FieldBase& field);
};

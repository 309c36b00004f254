#pragma once
// FieldAccess: what a user (a browser page or a script) may do with a field.
// Attribute fields (label, colour, ...) describe a node and are not settable;
// neither are read-only fields, nor the fields of a read-only node, except
// its buttons (an interlock's state is read-only, its reset button is not).
#include <string>
#include <string_view>

#include "core/caller.hpp"
#include "core/field.hpp"

class Node;

class FieldAccess {
 public:
  enum class Outcome { Done, NotFound, ReadOnly, Forbidden, Refused };

  // The field a path names for a user: a field, or an IO node's value field.
  static FieldBase* field_for(Vertex* vertex);
  static bool is_attribute(const FieldBase& field);
  static bool is_button(const FieldBase& field);
  static bool read_only_for_users(const FieldBase& field);
  // The node owning a field, or null.
  static const Node* owner(const FieldBase& field);

  // A caller's set of the field at `path` to `text` (value text): the field
  // exists, is settable by users, the caller's role may write it
  // (Permissions) and the text converts. On failure `error` says why in
  // words an operator understands. An accepted set is logged with who, from
  // where, and the old and new value.
  static Outcome set(Vertex& tree, std::string_view path, std::string_view text, const Caller& caller,
                     std::string& error);
  static Outcome set(FieldBase& field, std::string_view text, const Caller& caller, std::string& error);
};

#pragma once
// TreeDescription: the tree described for user interfaces, as JSON, so a page
// can draw any configuration without knowing it in advance.
//
// A node: {"name","path","kind":"node"|"io","type","label","detail","icon",
// "color","units","readonly","hidden","confirm","nodes" (number of child
// nodes),"fields":[...],"buttons":[...],"attributes":{...}}, an IO also
// "value" (its value field), and "children":[...] while depth lasts.
// A field or button: {"name","path","kind":"field"|"button","type" (value
// type),"label","detail","units","readonly","role" (needed to write it),
// "confirm","value","stamp"}, and
// "choices":[{"value","label"},...] for a selection.
#include <string>

#include "core/vertex.hpp"

class TreeDescription {
 public:
  // The vertex (node or field) with `depth` levels of child nodes.
  static std::string of(const Vertex& vertex, int depth);
  // The interlock overview: {"manager": the node "interlocks" or null,
  // "items": [...]} listing every visible node whose type names an interlock
  // or a permit, and every node with a "color" attribute beneath the manager,
  // each with its state and colour fields.
  static std::string interlocks(const Vertex& root);
};

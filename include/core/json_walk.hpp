#pragma once
// The one walk over a JSON text's structure that the nesting check, the
// array splitter and the store file reader share: the brackets and commas
// that stand outside strings, in order, without parsing anything.
#include <cstddef>
#include <string_view>

namespace x2x {

// Calls `visit(index, c, depth)` for each '[', '{', ']', '}' and ',' outside
// strings. `depth` is the nesting level the character stands at: for an
// opening bracket the level it opens (1 for the outermost), for a closing one
// the level it closes, for a comma the level of its container. The walk stops
// when `visit` returns false; the result says whether it reached the end.
template <class Visit>
bool walk_json_structure(std::string_view text, Visit&& visit) {
  size_t depth = 0;
  bool in_string = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') ++i;
      else if (c == '"') in_string = false;
      continue;
    }
    switch (c) {
      case '"': in_string = true; break;
      case '[':
      case '{':
        if (!visit(i, c, ++depth)) return false;
        break;
      case ']':
      case '}':
        if (!visit(i, c, depth)) return false;
        if (depth > 0) --depth;
        break;
      case ',':
        if (!visit(i, c, depth)) return false;
        break;
      default: break;
    }
  }
  return true;
}

}  // namespace x2x

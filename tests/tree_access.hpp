#pragma once
// The node or field of type T at a path of a built tree; a missing one, or
// one of another type, fails the test with the path instead of crashing it.
#include <stdexcept>
#include <string>

#include "core/root.hpp"

template <class T>
T& at(const Root& root, const std::string& path) {
  auto* found = dynamic_cast<T*>(root.find_path(path));
  if (!found) throw std::runtime_error("nothing of the expected type at " + path);
  return *found;
}

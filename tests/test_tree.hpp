#pragma once
// The tree a test's XML describes; XML that builds no tree fails the test.
#include <memory>
#include <stdexcept>
#include <string>

#include "core/root.hpp"
#include "formats/format_xml.hpp"

inline std::unique_ptr<Root> build_tree(const std::string& xml) {
  auto root = FormatXML::instance().build(xml);
  if (!root) throw std::runtime_error("no tree from " + xml);
  return root;
}

#pragma once
#include <string_view>

// "src/core/node.cpp" -> "src/core/node"; evaluated at compile time. The build
// maps the source directory away; a build inside the tree hands relative
// paths ("../src/core/node.cpp"), whose leading "../" go too.
consteval std::string_view source_name(std::string_view file) {
  while (file.starts_with("../") || file.starts_with("./")) file.remove_prefix(file.front() == '.' && file[1] == '/' ? 2 : 3);
  auto dot = file.rfind('.');
  auto slash = file.rfind('/');
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) return file;
  return file.substr(0, dot);
}

#include "std/platform_commands.hpp"

#include <algorithm>
#include <string_view>

#include "std/paths.hpp"

namespace {

// The text as one shell word: unchanged when it holds nothing the shell
// would interpret, else in single quotes.
std::string shell_word(std::string_view text) {
  auto plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("/._-+,:@%=").find(c) != std::string_view::npos;
  };
  if (!text.empty() && std::all_of(text.begin(), text.end(), plain)) return std::string(text);
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') out += "'\\''";
    else out.push_back(c);
  }
  return out + "'";
}

}  // namespace

std::string PlatformCommands::unpack_update() const {
  std::string root = shell_word(Paths::data_root());
  return "tar -mxzf " + root + "/zel*.gz -C " + root;
}

PlatformCommands& PlatformCommands::table() {
  static PlatformCommands commands;
  return commands;
}

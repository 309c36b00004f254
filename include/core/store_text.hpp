#pragma once
// StoreText: the text of a store file, a JSON object from member paths to
// value texts, in the one layout the writer produces:
//
//   {
//    "pulse/rate": 2,
//    "x": 1.5
//   }
//
// that is "{", then per member a "," unless it is the first, a line feed, one
// blank, the quoted path, ": " and the value text; then a line feed and "}".
#include <functional>
#include <string>
#include <string_view>

class StoreText {
 public:
  // Called per member of a parsed file: its path and its JSON text as it
  // stands in the file.
  using MemberVisitor = std::function<void(std::string_view path, std::string_view value)>;

  explicit StoreText(size_t expected_size = 0);

  // Starts the next member and returns the text to append its value to.
  std::string& member(std::string_view path);
  // The finished text; the writer is spent afterwards.
  std::string finish();

  // Checks that `text` is a JSON object, then visits its members in the
  // order they stand in the file. False with the parser's message in `error`,
  // and no member visited, when the text is not a JSON object.
  static bool parse(std::string_view text, const MemberVisitor& visit, std::string& error);

 private:
  std::string text_;
  bool first_ = true;
};

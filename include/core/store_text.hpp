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
#include <string>
#include <string_view>
#include <vector>

class StoreText {
 public:
  // One member as read from a file.
  struct Entry {
    std::string path;
    std::string_view value;  // the member's JSON text, within the parsed text
  };

  explicit StoreText(size_t expected_size = 0);

  // Starts the next member and returns the text to append its value to.
  std::string& member(std::string_view path);
  // The finished text; the writer is spent afterwards.
  std::string finish();

  // Splits a file's text into its members, in the order they stand in the
  // file (the entries point into `text`). False with the parser's message in
  // `error` when the text is not a JSON object.
  static bool parse(std::string_view text, std::vector<Entry>& entries, std::string& error);

 private:
  std::string text_;
  bool first_ = true;
};

#include "core/store_text.hpp"

#include <nlohmann/json.hpp>

#include "core/json_walk.hpp"
#include "core/x2x.hpp"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

size_t skip_blanks(std::string_view text, size_t i) {
  while (i < text.size() && is_blank(text[i])) ++i;
  return i;
}

// The index just past the string that starts at `i`.
size_t skip_string(std::string_view text, size_t i) {
  for (++i; i < text.size(); ++i) {
    if (text[i] == '\\') ++i;
    else if (text[i] == '"') return i + 1;
  }
  return text.size();
}

// The index just past the value that starts at `i`, in checked JSON.
size_t skip_value(std::string_view text, size_t i) {
  if (text[i] == '"') return skip_string(text, i);
  if (text[i] == '{' || text[i] == '[') {
    size_t end = text.size();
    x2x::walk_json_structure(text.substr(i), [&](size_t at, char c, size_t depth) {
      if ((c == '}' || c == ']') && depth == 1) end = i + at + 1;
      return end == text.size();
    });
    return end;
  }
  while (i < text.size() && !is_blank(text[i]) && text[i] != ',' && text[i] != '}' && text[i] != ']') ++i;
  return i;
}

}  // namespace

StoreText::StoreText(size_t expected_size) {
  text_.reserve(expected_size + 2);
  text_.push_back('{');
}

std::string& StoreText::member(std::string_view path) {
  if (!first_) text_.push_back(',');
  first_ = false;
  text_.append("\n ");
  x2x::to_json(path, text_);
  text_.append(": ");
  return text_;
}

std::string StoreText::finish() {
  text_.append("\n}");
  return std::move(text_);
}

bool StoreText::parse(std::string_view text, const MemberVisitor& visit, std::string& error) {
  // The library checks the text; splitting a checked object needs no more
  // than matching quotes and brackets, and hands each member's value text on
  // as it stands instead of building and re-printing a document.
  if (!nlohmann::json::accept(text)) {
    try {
      [[maybe_unused]] auto document = nlohmann::json::parse(text);
      error = "not JSON";
    } catch (const nlohmann::json::exception& e) {
      error = e.what();
    }
    return false;
  }
  size_t i = skip_blanks(text, text.starts_with("\xEF\xBB\xBF") ? 3 : 0);  // the library allows a byte-order mark
  if (text[i] != '{') {
    error = "the text is JSON but not an object";
    return false;
  }
  std::string decoded;  // a key with escapes, unescaped
  for (i = skip_blanks(text, i + 1); text[i] != '}'; i = skip_blanks(text, i)) {
    if (text[i] == ',') i = skip_blanks(text, i + 1);
    size_t key_end = skip_string(text, i);
    auto path = text.substr(i + 1, key_end - i - 2);
    if (path.find('\\') != std::string_view::npos && x2x::from_json(text.substr(i, key_end - i), decoded)) path = decoded;
    i = skip_blanks(text, skip_blanks(text, key_end) + 1);  // past the ':'
    size_t value_end = skip_value(text, i);
    visit(path, text.substr(i, value_end - i));
    i = value_end;
  }
  return true;
}

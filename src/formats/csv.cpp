#include "formats/csv.hpp"

namespace csv {

void append_field(std::string& out, std::string_view field) {
  if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
    out.append(field);
    return;
  }
  out.push_back('"');
  for (char c : field) {
    if (c == '"') out.push_back('"');
    out.push_back(c);
  }
  out.push_back('"');
}

void append_record(std::string& out, std::initializer_list<std::string_view> fields) {
  bool first = true;
  for (auto field : fields) {
    if (!first) out.push_back(',');
    first = false;
    append_field(out, field);
  }
  out.append("\r\n");
}

}  // namespace csv

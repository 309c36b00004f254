#pragma once
// CSV text as RFC 4180 has it: fields separated by commas, records ended by
// CR LF; a field holding a comma, a double quote, CR or LF is enclosed in
// double quotes, with its double quotes doubled.
#include <initializer_list>
#include <string>
#include <string_view>

namespace csv {

void append_field(std::string& out, std::string_view field);
void append_record(std::string& out, std::initializer_list<std::string_view> fields);

}  // namespace csv

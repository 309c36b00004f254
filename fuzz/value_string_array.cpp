// The value text of std::vector<std::string>.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(std::vector<std::string>)

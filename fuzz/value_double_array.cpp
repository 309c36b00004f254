// The value text of std::vector<double>.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(std::vector<double>)

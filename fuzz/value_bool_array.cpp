// The value text of std::vector<bool>.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(std::vector<bool>)

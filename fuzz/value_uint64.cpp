// The value text of unsigned long long.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(unsigned long long)

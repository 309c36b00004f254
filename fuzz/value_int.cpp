// The value text of int.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(int)

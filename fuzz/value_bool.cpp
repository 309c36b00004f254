// The value text of bool.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(bool)

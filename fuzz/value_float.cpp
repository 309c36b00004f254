// The value text of float.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(float)

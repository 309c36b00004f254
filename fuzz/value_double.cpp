// The value text of double.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(double)

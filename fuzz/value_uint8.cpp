// The value text of unsigned char.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(unsigned char)

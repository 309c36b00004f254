// The value text of unsigned int.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(unsigned int)

// The value text of unsigned short.
#include "value_text.hpp"

ZEL_FUZZ_VALUE_TEXT(unsigned short)

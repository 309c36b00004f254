#include "core/io/poly_io.hpp"

ZEL_REGISTER_NODE("poly_io", PolyIO<4>);
ZEL_REGISTER_NODE("linear_poly_io", PolyIO<2>);

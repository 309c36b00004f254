// Boost.Asio and Boost.Beast are compiled once, here, rather than in every
// file that uses them (BOOST_ASIO_SEPARATE_COMPILATION and
// BOOST_BEAST_SEPARATE_COMPILATION are set for the whole build).
#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>

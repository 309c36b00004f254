#include "core/io/timer_io.hpp"

TimerIO::TimerIO(const VTree& config) : IO<double>(config), start_ns_(Clock::steady_ns()) {
  set_default("readonly", true);
  set_default("units", std::string("s"));
}

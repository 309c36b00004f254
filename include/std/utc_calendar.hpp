#pragma once
// The UTC calendar date and time of a wall-clock stamp (ns since 1970),
// computed on 64-bit durations: time_t and gmtime_r end in 2038 on 32-bit
// boards, and the instrument outlives that.
#include <cstdint>

struct UtcCalendar {
  int year;
  unsigned month, day;  // 1-based
  unsigned hour, minute, second, millisecond;
};

UtcCalendar utc_calendar(uint64_t wall_ns);

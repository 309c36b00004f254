#include "std/utc_calendar.hpp"

#include <chrono>

UtcCalendar utc_calendar(uint64_t wall_ns) {
  using namespace std::chrono;
  sys_time<milliseconds> time{milliseconds(static_cast<int64_t>(wall_ns / 1000000ULL))};
  auto day = floor<days>(time);
  year_month_day date{day};
  hh_mm_ss clock{time - day};
  return {static_cast<int>(date.year()),
          static_cast<unsigned>(date.month()),
          static_cast<unsigned>(date.day()),
          static_cast<unsigned>(clock.hours().count()),
          static_cast<unsigned>(clock.minutes().count()),
          static_cast<unsigned>(clock.seconds().count()),
          static_cast<unsigned>(clock.subseconds().count())};
}

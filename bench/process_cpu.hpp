#pragma once
// CPU time of the whole process (user and system, all threads) in seconds,
// for benchmarks that set it against wall time.
#include <sys/resource.h>

inline double process_cpu_seconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

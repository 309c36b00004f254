#pragma once
// What a sanitizer build changes for the tests that judge resources or time.
// Address sanitizing keeps freed blocks in quarantine and adds shadow memory,
// so the resident size says nothing of what the program holds. Thread
// sanitizing slows every memory access five to fifteen times: latency bounds
// and the order in which a polling simulation notices a 10 ms step say
// nothing there, while the races it looks for are still found.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kResidentSizeTells = false;
#else
inline constexpr bool kResidentSizeTells = true;
#endif

#if defined(__SANITIZE_THREAD__)
inline constexpr bool kTimingTells = false;
#else
inline constexpr bool kTimingTells = true;
#endif

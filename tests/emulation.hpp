#pragma once
// Tests of the armhf build run under qemu-arm user-mode emulation
// (make test-armhf). Most run as they are; these helpers serve the few that
// cannot:
// - a test that starts the program as a child process starts it through
//   `emulator_command()` (natively it is empty): the emulated test can start
//   the emulator, a native program, but not an ARM program directly;
// - a test whose subject does not exist under user-mode emulation (a program
//   that execs its own ARM image again, ...) calls ZEL_SKIP_UNDER_EMULATION
//   with the reason, which the test output shows.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#ifdef ZEL_TEST_EMULATOR
inline constexpr bool kUnderEmulation = true;
inline constexpr const char* kEmulator = ZEL_TEST_EMULATOR;
#else
inline constexpr bool kUnderEmulation = false;
inline constexpr const char* kEmulator = "";
#endif

// The words that go before a program of this build on a command line.
inline std::vector<std::string> emulator_command() {
  std::vector<std::string> words;
  std::istringstream in(kEmulator);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

#define ZEL_SKIP_UNDER_EMULATION(reason) \
  if (kUnderEmulation) GTEST_SKIP() << "not under user-mode emulation: " << reason

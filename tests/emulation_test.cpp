#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "emulation.hpp"

// The program starts as a child of a test on every build, the armhf one under
// qemu-arm included, when it is started with the emulator's words in front.
TEST(Emulation, ProgramStartsAsAChildThroughTheEmulatorCommand) {
  std::string command;
  for (const auto& word : emulator_command()) command += word + " ";
  command += std::string(ZEL_BINARY) + " --help 2>&1";
  FILE* child = popen(command.c_str(), "r");
  ASSERT_NE(child, nullptr);
  std::string output;
  char buffer[256];
  while (size_t n = fread(buffer, 1, sizeof buffer, child)) output.append(buffer, n);
  int status = pclose(child);
  EXPECT_TRUE(WIFEXITED(status)) << output;
  EXPECT_NE(output.find("--config"), std::string::npos) << output;
  EXPECT_NE(output.find("--io-mount"), std::string::npos) << output;
  EXPECT_EQ(emulator_command().empty(), !kUnderEmulation);
}

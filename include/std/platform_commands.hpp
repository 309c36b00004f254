#pragma once
// The shell commands the system runs, in one table: the kill of an older
// instance, the reboot of the machine and the unpacking of an update archive.
// The first two can be replaced (the options --kill-command and
// --reboot-command), so that tests and special boards can point them
// elsewhere; the update command derives from the data root.
#include <string>

struct PlatformCommands {
  // Followed by a blank and the pid of the process to end.
  std::string kill_process = "kill";
  std::string reboot = "/sbin/reboot";

  // "tar -mxzf <data root>/zel*.gz -C <data root>": the archive lies in the
  // data root under a name beginning "zel" and ending ".gz", and unpacks over
  // the data root.
  std::string unpack_update() const;
  std::string kill(const std::string& pid_text) const { return kill_process + " " + pid_text; }

  // The table in use; set up once at start-up.
  static PlatformCommands& table();
};

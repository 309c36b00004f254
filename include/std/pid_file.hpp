#pragma once
// PidFile: the record of the running instance, and the checks that keep it
// from becoming a way to end someone else's process.
//
// A recorded pid is believed only when the file is a regular file of this
// user that no one else may write (a pid planted in a shared folder such as
// /tmp by another user is not), and it is acted on only when that pid is a
// process of this user running this very program file.
#include <sys/types.h>

#include <string>
#include <string_view>

class PidFile {
 public:
  // The pid recorded in `path`: 0 when the file is missing or holds no pid;
  // also 0, with the reason in `distrusted`, when the file is not this user's
  // private regular file.
  static pid_t read(const std::string& path, std::string& distrusted);

  // Whether `pid` is a live process of this user running the same program
  // file as this process (the file as it was when that process started, so
  // an instance whose file has since been replaced still counts). `found`
  // describes what runs there otherwise ("no such process", "/usr/bin/sleep,
  // user 1000").
  static bool runs_this_program(pid_t pid, std::string& found);

  // Writes `pid` ("%d", no line end) through a new file renamed over `path`:
  // a link planted there is replaced, never followed, and a file of another
  // user in a sticky folder is refused by the kernel. False, with `error`,
  // when it could not be written.
  static bool write(const std::string& path, pid_t pid, std::string& error);
};

#pragma once
// Process-level calls of the operating system: thread names, the program
// file, another process's liveness, shell commands, replacing the process
// image in place, and catching genuine faults.
#include <string>
#include <string_view>

class Process {
 public:
  // Names the calling thread; the kernel keeps the first 15 characters.
  static void name_this_thread(std::string_view name);

  // The absolute path of the running program file, read from the kernel at
  // the time of the call (so call it before the file can be replaced).
  static std::string executable_path();

  // The program file by the path it was started through (`argv0`), not
  // resolved: a symbolic link stays a link, so re-pointing it and starting
  // the path again runs what it points at then. A bare name is looked up in
  // PATH as the shell did. Absolute and lexically normal; the resolved
  // executable_path() when the name cannot be found.
  static std::string started_path(const char* argv0);

  // Whether "/proc/" followed by `pid_text` exists.
  static bool alive(std::string_view pid_text);

  // Runs `command` through "/bin/sh -c" and waits for it. Unlike system(),
  // it leaves this process's signal handling alone and lets no descriptor
  // above 2 leak into the command. Returns the exit status, 128 + n when a
  // signal n ended the command, -1 when it could not be started.
  static int run_shell(const std::string& command);

  // Replaces the process image with `program` (same pid), passing `argv`:
  // first changes to `dir`, unblocks every signal of the calling thread and
  // marks every descriptor above 2 close-on-exec. Async-signal-safe. Returns
  // only on failure, with the errno.
  static int replace_image(const char* program, char* const argv[], const char* dir);
  // replace_image(), tried again every `interval_ms` while it fails, for up
  // to `limit_ms` (a program file that is briefly absent or busy while an
  // update puts a new one in place). Async-signal-safe. Returns the last
  // errno once it gives up.
  static int replace_image_retrying(const char* program, char* const argv[], const char* dir, int interval_ms,
                                    int limit_ms);

  // Gives the calling thread a signal stack of its own, so that a fault
  // handler still runs when the thread has overflowed its stack. Freed when
  // the thread ends; idempotent.
  static void use_alternate_signal_stack();

  // A fault handler for genuine faults: a bad memory access or instruction
  // of this process. Such a signal cannot be handed to another thread and
  // the faulting instruction must not run again, so `handler` runs at once
  // in the faulting thread (it must be async-signal-safe and must not
  // return). The same signal sent by a process (kill, raise) still goes to
  // the handler installed before this call. Install after that handler.
  using FaultHandler = void (*)(int signal);
  static void catch_genuine_faults(int signal, FaultHandler handler);
};

#pragma once
// FinalSave: the saves that must happen before the process ends, whatever
// else hangs. A keeper of persistent values (the store manager) arms its
// saver while it runs and disarms it once its own last save at stop is done.
// The application runs the armed savers when the stop begins, before any
// part of the tree stops, and again when the stop runs out of time; a run
// that cannot get its turn within the given time gives up (logged).
#include <chrono>
#include <functional>

class FinalSave {
 public:
  using Saver = std::function<void()>;

  static void arm(const void* owner, Saver saver);
  // Waits for a run in progress; after it returns the saver is never called.
  static void disarm(const void* owner);
  // Calls every armed saver; false when the turn did not come within `limit`.
  static bool run(std::chrono::milliseconds limit);
};

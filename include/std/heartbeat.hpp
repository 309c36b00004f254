#pragma once
// Heartbeat: the link to the service manager's watchdog (systemd's
// NOTIFY_SOCKET protocol, spoken directly over its datagram socket).
//
// attach() says "READY=1" and, when the manager set WATCHDOG_USEC (and
// WATCHDOG_PID, if set, names this process), sends "WATCHDOG=1" from its own
// thread at half that interval. detach() stops the beats and says how the
// run ends: "STOPPING=1" before an exit or reboot, "RELOADING=1" (with
// "MONOTONIC_USEC=") before a restart in place, after which the same pid's new
// image says "READY=1" again. Without NOTIFY_SOCKET nothing is sent. The variables stay in the
// environment, so a restarted image finds them.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <thread>

class Heartbeat {
 public:
  enum class Ending { Exit, Restart };

  Heartbeat() = default;
  ~Heartbeat();
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  void attach();
  // Once; later calls do nothing. Any thread.
  void detach(Ending ending);

  // Sends one notification; false when NOTIFY_SOCKET is unset or sending fails.
  static bool notify(std::string_view state);
  // Half the watchdog interval; zero when the manager keeps no watchdog on
  // this process.
  static std::chrono::microseconds beat_period();

 private:
  void beat(std::chrono::microseconds period);

  std::mutex mutex_;
  std::condition_variable wake_;
  std::thread thread_;
  bool attached_ = false;
  bool detached_ = false;
};

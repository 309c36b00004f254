#pragma once
// Application: the process-level object, one per process. It parses the
// command line, makes sure that only one instance runs, checks its abilities,
// chooses the working directory, has the tree (Root) built from the
// configuration, watches its own program file, keeps the service manager's
// watchdog fed, handles signals, and at the end takes the system down in an
// orderly way and then exits, restarts itself in place or reboots the
// machine. It also installs a software update on request.
//
// Flags are single bytes written from the signal, watcher and request
// threads, each write followed by a full fence; the entry thread reads the
// running flag afresh on every pass of its loop.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "std/heartbeat.hpp"

class Root;
class Watcher;

class Application {
 public:
  static Application& instance();

  // The entry point; returns the process exit status: 1 after "help" (or a
  // command line that does not parse), -1 when the tree cannot be built or
  // start-up throws, 0 after an orderly stop, 1 when a restart in place
  // could not start the program file or a part the instrument cannot run
  // without failed to start (Root::fail_start). A restart in place does not return.
  int main(int argc, char** argv);

  // Requests (the administration node): end the run with a plain exit, a
  // restart in place, or a reboot of the machine.
  void request_stop();
  void request_restart();
  void request_reboot();
  // Unpacks the update archive from the data root and reboots into it; false
  // (and the system keeps running) when unpacking fails or an update is
  // already being installed. Blocks for seconds.
  bool install_update();
  // install_update() on a thread of its own.
  void request_update();

  bool running() const { return running_.load(); }
  bool restart_requested() const { return restart_.load(); }
  bool reboot_requested() const { return reboot_.load(); }
  bool updating() const { return updating_.load(); }

  // The mask of the program-file watch.
  static constexpr uint32_t kProgramFileMask = 0x9C8;
  // How long the tree's destruction may take at shutdown.
  static constexpr std::chrono::milliseconds kShutdownLimit{8000};
  // How long a final save may wait for its turn and take.
  static constexpr std::chrono::milliseconds kFinalSaveLimit{2000};

 private:
  Application();
  ~Application();

  int start(int argc, char** argv);
  bool parse_options(int argc, char** argv, int& status);
  // --make-tls-pair: writes a self-signed pair for HTTPS; the exit status.
  int make_tls_pair();
  void ensure_single_instance();
  void start_signal_thread();
  void stop_signal_thread();
  void check_abilities();
  void enter_working_directory();
  std::string read_configuration();
  void watch_program_file();
  void run_main_loop();
  // False when a restart in place failed for good, or when the tree's
  // destruction ran out of time (the stores are saved all the same); the
  // process then exits with a failure status.
  bool shutdown();
  void save_before_giving_up();

  void on_interruption(int signal);
  void on_fault(int signal);
  void on_reload(int signal);
  static void on_genuine_fault(int signal);
  void on_program_file_event(const std::string& path);

  // Sets the flags of how the run ends, then clears the running flag; false
  // (and nothing changes) when the run has already been ended.
  bool end_run(bool restart, bool reboot);
  // Sleeps up to `limit`, less when the running flag falls.
  void sleep_while_running(std::chrono::milliseconds limit);

  std::atomic<bool> running_{true};
  std::atomic<bool> restart_{false};
  std::atomic<bool> reboot_{false};
  std::atomic<bool> updating_{false};
  std::atomic<bool> initialized_{false};
  std::mutex wake_mutex_;
  std::condition_variable wake_;

  int argc_ = 0;
  char** argv_ = nullptr;
  std::string start_dir_;     // the working directory the process was started in
  std::string program_path_;       // the program file by the path it was started through
  std::string running_file_path_;  // the file that path named at the start (links resolved)
  std::string dir_option_;
  std::string config_option_;

  struct Signals;
  std::unique_ptr<Signals> signals_;
  std::unique_ptr<Watcher> watcher_;
  Heartbeat heartbeat_;
  Root* root_ = nullptr;  // owned; deleted by the shutdown's destruction thread
};

#include "core/application.hpp"

#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <sstream>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/program_options.hpp>

#include "core/clock.hpp"
#include "core/final_save.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "core/watcher.hpp"
#include "formats/format_xml.hpp"
#include "std/capabilities.hpp"
#include "std/paths.hpp"
#include "std/pid_file.hpp"
#include "std/platform_commands.hpp"
#include "std/process.hpp"
#include "std/tls_pair.hpp"

namespace fs = std::filesystem;
namespace po = boost::program_options;
using namespace std::chrono_literals;

namespace {

// Writes "\r", the prefix, the number and ")\n" to standard error in one
// write, without allocating, so that signal handlers can use it.
void write_signal_message(const char* prefix, int number) {
  char text[64];
  size_t n = 0;
  text[n++] = '\r';
  for (const char* p = prefix; *p && n < 40; ++p) text[n++] = *p;
  char digits[12];
  int count = 0;
  unsigned value = number < 0 ? 0u : static_cast<unsigned>(number);
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (count > 0) text[n++] = digits[--count];
  text[n++] = ')';
  text[n++] = '\n';
  [[maybe_unused]] auto written = ::write(STDERR_FILENO, text, n);
}

// A restart whose program file is absent (an update between removing the
// old file and putting the new one in place) is tried again for a while.
constexpr int kRestartRetryIntervalMs = 250;
constexpr int kRestartRetryLimitMs = 10000;

void keep_waiting(boost::asio::signal_set& set, std::function<void(int)> handler) {
  set.async_wait([&set, handler](const boost::system::error_code& ec, int number) {
    if (ec) return;
    handler(number);
    keep_waiting(set, handler);
  });
}

}  // namespace

struct Application::Signals {
  boost::asio::io_context io;
  boost::asio::signal_set interruption{io, SIGINT, SIGQUIT, SIGABRT};
  boost::asio::signal_set fault{io, SIGILL, SIGSEGV, SIGBUS};
  boost::asio::signal_set reload{io, SIGHUP};
  boost::asio::signal_set pipe{io, SIGPIPE};
  std::thread thread;
};

Application& Application::instance() {
  static Application application;
  return application;
}

Application::Application() = default;

Application::~Application() { stop_signal_thread(); }

int Application::main(int argc, char** argv) {
  int status = start(argc, argv);
  stop_signal_thread();
  std::cout.flush();
  return status;
}

int Application::start(int argc, char** argv) {
  Process::name_this_thread("application");
  Process::use_alternate_signal_stack();
  argc_ = argc;
  argv_ = argv;
  std::error_code ec;
  start_dir_ = fs::current_path(ec).string();
  // The path as started, a symbolic link included: the watch and the
  // restart follow what it names at the time, so re-pointing a link switches
  // versions.
  program_path_ = Process::started_path(argv[0]);
  running_file_path_ = Process::executable_path();

  int status = 0;
  if (!parse_options(argc, argv, status)) return status;
  ensure_single_instance();
  start_signal_thread();
  check_abilities();
  enter_working_directory();
  std::string text = read_configuration();
  Clock::reset_reference();
  try {
    std::unique_ptr<Root> root = FormatXML::instance().build(text);
    if (!root) {
      std::cerr << "Root failed to construct" << std::endl;
      return -1;
    }
    root_ = root.release();
    ZEL_INFO("PID:{}", ::getpid());
    Clock::reset_reference();
    root_->initialize();
    // The watch is up before "Initialized": whoever waits for that line may
    // replace the program file at once.
    if (!root_->start_failed()) watch_program_file();
    ZEL_INFO("Initialized");
    initialized_ = true;
    if (root_->start_failed()) {
      // A part the instrument cannot run without failed: stop in order.
      shutdown();
      return 1;
    }
    heartbeat_.attach();
  } catch (const std::exception& e) {
    std::cerr << e.what() << std::endl;
    return -1;
  }
  run_main_loop();
  watcher_->stop();
  // A stop that ran out of time is no orderly stop: a service manager sees it.
  return shutdown() ? 0 : 1;
}

bool Application::parse_options(int argc, char** argv, int& status) {
  auto& commands = PlatformCommands::table();
  po::options_description description("Allowed options");
  description.add_options()                                                      //
      ("help,h", "Print this help message")                                      //
      ("dir,d", po::value<std::string>(), "Working directory")                   //
      ("config,c", po::value<std::string>()->default_value("config/system.xml"), "Configuration file")  //
      ("data-root", po::value<std::string>()->default_value(Paths::data_root()),
       "Data root: stores, web pages, reports, update archives")  //
      ("pid-file", po::value<std::string>()->default_value(Paths::pid_file()), "Pid file")  //
      ("io-mount", po::value<std::string>()->default_value(Paths::io_mount()),
       "Mount point of the tree's files, or none")                                     //
      ("port", po::value<unsigned>()->default_value(Paths::port()), "Web port; 0 picks a free one")  //
      ("kill-command", po::value<std::string>()->default_value(commands.kill_process),
       "Command that ends an older instance; its pid follows")  //
      ("reboot-command", po::value<std::string>()->default_value(commands.reboot), "Command that reboots the machine")  //
      ("make-tls-pair", "Write a self-signed certificate and key for HTTPS (tls.crt, tls.key) into the data root's "
                        "config folder, then exit");
  po::positional_options_description positional;
  positional.add("config", 1);
  po::variables_map options;
  try {
    po::store(po::command_line_parser(argc, argv).options(description).positional(positional).run(), options);
    po::notify(options);
    if (options["port"].as<unsigned>() > 65535) throw po::error("the port must lie between 0 and 65535");
  } catch (const po::error& e) {
    std::cerr << e.what() << "\n" << description << "\n";
    status = 1;
    return false;
  }
  if (options.count("help")) {
    std::cout << description << "\n";
    status = 1;
    return false;
  }
  if (options.count("dir")) dir_option_ = options["dir"].as<std::string>();
  config_option_ = options["config"].as<std::string>();
  Paths::set_data_root(options["data-root"].as<std::string>());
  if (options.count("make-tls-pair")) {
    status = make_tls_pair();
    return false;
  }
  Paths::set_pid_file(options["pid-file"].as<std::string>());
  Paths::set_io_mount(options["io-mount"].as<std::string>());
  Paths::set_port(static_cast<uint16_t>(options["port"].as<unsigned>()));
  commands.kill_process = options["kill-command"].as<std::string>();
  commands.reboot = options["reboot-command"].as<std::string>();
  return true;
}

int Application::make_tls_pair() {
  auto certificate = Paths::config_dir() + "tls.crt", key = Paths::config_dir() + "tls.key";
  std::string error;
  if (!TlsPair::make_self_signed(certificate, key, error)) {
    std::cerr << "No TLS pair made: " << error << std::endl;
    return 1;
  }
  std::cout << "Wrote the self-signed certificate " << certificate << " and its key " << key
            << ". Set the web server's \"tls_port\" to serve HTTPS." << std::endl;
  return 0;
}

void Application::ensure_single_instance() {
  const pid_t own = ::getpid();
  const std::string& pid_file = Paths::pid_file();
  std::string distrusted, found, error;
  pid_t recorded = PidFile::read(pid_file, distrusted);
  if (!distrusted.empty()) ZEL_WARN("Pid file {} is not trusted ({}): no older instance is looked for", pid_file, distrusted);
  if (recorded != 0 && recorded != own && Process::alive(std::to_string(recorded))) {
    // Only an instance of this program of this user is ended: the file may
    // name a pid that has since been given to an unrelated process.
    if (PidFile::runs_this_program(recorded, found)) {
      std::cout << "ZEL already running, killing existing process" << std::endl;
      Process::run_shell(PlatformCommands::table().kill(std::to_string(recorded)));
      std::this_thread::sleep_for(2s);
    } else {
      ZEL_WARN("Pid file {} names process {} ({}), which is not this program: left alone", pid_file, recorded, found);
    }
  }
  if (!PidFile::write(pid_file, own, error)) ZEL_ERROR("Can't write pid file {}", error);
}

void Application::start_signal_thread() {
  signals_ = std::make_unique<Signals>();
  signals_->interruption.add(SIGTERM);
  keep_waiting(signals_->interruption, [this](int number) { on_interruption(number); });
  signals_->fault.add(SIGFPE);
  keep_waiting(signals_->fault, [this](int number) { on_fault(number); });
  keep_waiting(signals_->reload, [this](int number) { on_reload(number); });
  keep_waiting(signals_->pipe, [](int) {});
  for (int genuine : {SIGILL, SIGSEGV, SIGBUS, SIGFPE}) Process::catch_genuine_faults(genuine, &Application::on_genuine_fault);
  signals_->thread = std::thread([io = &signals_->io] {
    Process::name_this_thread("application/signals");
    Process::use_alternate_signal_stack();
    io->run();
  });
}

void Application::stop_signal_thread() {
  if (!signals_) return;
  signals_->io.stop();
  if (signals_->thread.joinable() && signals_->thread.get_id() != std::this_thread::get_id()) signals_->thread.join();
}

void Application::check_abilities() {
  for (auto& capability : Capabilities::missing(Capabilities::effective(), Paths::port()))
    ZEL_WARN("Missing capability {} for {}", capability.name, capability.purpose);
}

void Application::enter_working_directory() {
  std::error_code ec;
  // By default the program's folder: the folder of the path it was started
  // through (a bare name found in PATH included).
  fs::path dir = dir_option_.empty() ? fs::path(program_path_).parent_path() : fs::absolute(dir_option_, ec);
  fs::current_path(dir, ec);
  if (ec) ZEL_ERROR("Working directory {}: {}", dir.string(), ec.message());
}

std::string Application::read_configuration() {
  std::error_code ec;
  if (!fs::exists(config_option_, ec)) return "<root/>";
  std::ifstream file(config_option_, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  if (!file) {
    ZEL_ERROR("Can't read configuration {}", config_option_);
    return "<root/>";
  }
  return text.str();
}

void Application::watch_program_file() {
  watcher_ = std::make_unique<Watcher>();
  watcher_->add(program_path_, kProgramFileMask);
  // Started through a link: the file it names may be replaced in its own folder.
  if (!running_file_path_.empty() && running_file_path_ != program_path_)
    watcher_->add(running_file_path_, kProgramFileMask);
  watcher_->connect([this](const Watcher::Event& event) { on_program_file_event(event.path); });
  watcher_->start();
}

void Application::run_main_loop() {
  while (running()) {
    sleep_while_running(100ms);
    std::this_thread::yield();
  }
}

bool Application::shutdown() {
  running_ = false;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  auto finished = std::make_shared<std::promise<void>>();
  auto done = finished->get_future();
  std::thread([root = std::exchange(root_, nullptr), finished] {
    Process::name_this_thread("shutdown");
    Process::use_alternate_signal_stack();
    ZEL_INFO("Clean Shutdown");
    // The settings as they stand when the stop begins are saved before any
    // part of the tree stops: a stage that hangs cannot lose them.
    FinalSave::run(kFinalSaveLimit);
    try {
      delete root;
    } catch (const std::exception& e) {
      ZEL_ERROR("On destroy {}", e.what());
    }
    finished->set_value();
  }).detach();
  auto begin = std::chrono::steady_clock::now();
  bool timed_out = false;
  while (done.wait_for(100ms) != std::future_status::ready) {
    if (std::chrono::steady_clock::now() - begin > kShutdownLimit - 1ms) {
      ZEL_ERROR("Shutdown process timed out");
      timed_out = true;
      break;
    }
  }
  // Whatever changed after the first save and was not saved at stop2 yet.
  if (timed_out) save_before_giving_up();
  heartbeat_.detach(restart_requested() ? Heartbeat::Ending::Restart : Heartbeat::Ending::Exit);
  if (restart_requested()) {
    std::cout.flush();
    int error = Process::replace_image(program_path_.c_str(), argv_, start_dir_.c_str());
    ZEL_WARN("Program file {} can't be started ({}): trying again for {} s", program_path_, std::strerror(error),
             kRestartRetryLimitMs / 1000);
    error = Process::replace_image_retrying(program_path_.c_str(), argv_, start_dir_.c_str(), kRestartRetryIntervalMs,
                                            kRestartRetryLimitMs);
    restart_ = false;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    // The process ends with a failure, so a service manager starts it again.
    ZEL_ERROR("{} execv", std::strerror(error));
    return false;
  }
  if (reboot_requested()) Process::run_shell(PlatformCommands::table().reboot);
  stop_signal_thread();
  return !timed_out;
}

void Application::save_before_giving_up() {
  // On a thread of its own: a saver stuck behind a hung stage must not keep
  // the process from ending.
  auto finished = std::make_shared<std::promise<void>>();
  auto done = finished->get_future();
  std::thread([finished] {
    Process::name_this_thread("final save");
    Process::use_alternate_signal_stack();
    FinalSave::run(kFinalSaveLimit);
    finished->set_value();
  }).detach();
  if (done.wait_for(kFinalSaveLimit + 100ms) != std::future_status::ready) ZEL_ERROR("Final save timed out");
}

void Application::on_interruption(int signal) {
  write_signal_message("ZEL INTERUPTED (", signal);
  // An operator's interrupt always ends in a plain exit; a second one while
  // stopping ends the process at once.
  if (!end_run(false, false)) std::_Exit(1);
}

void Application::on_fault(int signal) {
  write_signal_message("ZEL FAULTED (", signal);
  // After a crash signal the system shuts down as cleanly as it can and
  // restarts itself.
  if (!end_run(true, false)) std::_Exit(1);
}

void Application::on_reload(int signal) {
  write_signal_message("ZEL RELOADING (", signal);
  // A hang-up asks for a reload: the orderly shutdown (which saves the
  // stores) and a restart in place that reads the configuration anew. One
  // during the shutdown is already being served.
  end_run(true, false);
}

void Application::on_genuine_fault(int signal) {
  write_signal_message("ZEL FAULTED (", signal);
  // The faulting thread cannot go on and the tree may be damaged, so there is
  // no orderly shutdown: a system that had come up restarts in place at once;
  // during start-up or shutdown the process ends (a service manager restarts
  // it, at its own pace).
  auto& app = instance();
  if (app.initialized_.load() && app.running_.load()) {
    Process::replace_image_retrying(app.program_path_.c_str(), app.argv_, app.start_dir_.c_str(),
                                    kRestartRetryIntervalMs, kRestartRetryLimitMs);
    static constexpr char failed[] = "Error: execv failed\n";
    [[maybe_unused]] auto written = ::write(STDERR_FILENO, failed, sizeof failed - 1);
  }
  std::_Exit(1);
}

void Application::on_program_file_event(const std::string& path) {
  if ((path != program_path_ && path != running_file_path_) || !running()) return;
  ZEL_INFO("Program file {} replaced, restarting", path);
  watcher_->remove_all();
  // Let the copy finish, and an update finish unpacking.
  sleep_while_running(2000ms);
  while (updating() && running()) sleep_while_running(2000ms);
  if (end_run(true, false)) heartbeat_.detach(Heartbeat::Ending::Restart);
}

void Application::request_stop() { end_run(false, false); }
void Application::request_restart() { end_run(true, false); }
void Application::request_reboot() { end_run(false, true); }

void Application::request_update() {
  std::thread([this] {
    Process::name_this_thread("update");
    Process::use_alternate_signal_stack();
    install_update();
  }).detach();
}

bool Application::install_update() {
  bool idle = false;
  if (!updating_.compare_exchange_strong(idle, true)) {
    ZEL_WARN("An update is already being installed");
    return false;
  }
  ZEL_INFO("Installing update");
  const auto& commands = PlatformCommands::table();
  const std::string unpack = commands.unpack_update();
  if (Process::run_shell(unpack) != 0) {
    updating_ = false;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    ZEL_ERROR("{} Couldn't unzip update file", unpack);
    return false;
  }
  std::this_thread::sleep_for(2s);
  Process::run_shell(commands.reboot);
  updating_ = false;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  return true;
}

bool Application::end_run(bool restart, bool reboot) {
  std::lock_guard lock(wake_mutex_);
  if (!running_.load()) return false;
  restart_ = restart;
  reboot_ = reboot;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  running_ = false;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  wake_.notify_all();
  return true;
}

void Application::sleep_while_running(std::chrono::milliseconds limit) {
  std::unique_lock lock(wake_mutex_);
  wake_.wait_for(lock, limit, [this] { return !running_.load(); });
}

#include "core/application.hpp"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include <boost/program_options.hpp>

#include "core/clock.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "std/paths.hpp"

namespace po = boost::program_options;

Application& Application::instance() {
  static Application application;
  return application;
}

void Application::request_stop() { running_ = false; }

int Application::main(int argc, char** argv) {
  pthread_setname_np(pthread_self(), "application");
  args_.assign(argv, argv + argc);

  po::options_description description("Allowed options");
  description.add_options()                                                     //
      ("help,h", "Print this help message")                                     //
      ("dir,d", po::value<std::string>(), "Working directory")                  //
      ("config,c", po::value<std::string>()->default_value("config/system.xml"), "Configuration file")  //
      ("data-root", po::value<std::string>()->default_value("/root"), "Data root: stores, web pages, reports")  //
      ("pid-file", po::value<std::string>()->default_value("/tmp/zel.pid"), "Pid file")  //
      ("io-mount", po::value<std::string>()->default_value("/io"), "Mount point of the tree's files, or none")  //
      ("port", po::value<unsigned>()->default_value(80), "Web port; 0 picks a free one");
  po::positional_options_description positional;
  positional.add("config", 1);
  po::variables_map options;
  try {
    po::store(po::command_line_parser(argc, argv).options(description).positional(positional).run(), options);
    po::notify(options);
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n" << description << "\n";
    return 1;
  }
  if (options.count("help")) {
    std::cout << description << "\n";
    return 1;
  }
  Paths::set_data_root(options["data-root"].as<std::string>());
  Paths::set_pid_file(options["pid-file"].as<std::string>());
  Paths::set_io_mount(options["io-mount"].as<std::string>());
  Paths::set_port(static_cast<uint16_t>(options["port"].as<unsigned>()));

  namespace fs = std::filesystem;
  fs::path dir = options.count("dir") ? fs::path(options["dir"].as<std::string>()) : fs::path(argv[0]).parent_path();
  std::error_code ec;
  fs::current_path(fs::absolute(dir), ec);

  std::string text = "<root/>";
  if (std::ifstream file(options["config"].as<std::string>()); file) {
    std::stringstream buffer;
    buffer << file.rdbuf();
    text = buffer.str();
  }

  // Termination signals are taken synchronously on this thread.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGQUIT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  Clock::reset_reference();
  try {
    root_ = FormatXML::instance().build(text);
    if (!root_) {
      std::cerr << "Root failed to construct" << std::endl;
      return -1;
    }
    ZEL_INFO("PID:{}", getpid());
    Clock::reset_reference();
    root_->initialize();
    ZEL_INFO("Initialized");
  } catch (const std::exception& e) {
    std::cerr << e.what() << std::endl;
    return -1;
  }

  std::thread waiter([this, signals] {
    int number = 0;
    sigwait(&signals, &number);
    request_stop();
  });
  waiter.detach();
  while (running_.load()) std::this_thread::sleep_for(std::chrono::milliseconds(100));

  ZEL_INFO("Clean Shutdown");
  root_.reset();
  return 0;
}

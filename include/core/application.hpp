#pragma once
// Application: the process-level object. It parses the command line, builds
// the tree from the configuration, runs until a stop is asked for, and takes
// the system down in stages.
#include <atomic>
#include <memory>
#include <string>
#include <vector>

class Root;

class Application {
 public:
  static Application& instance();

  // The entry point; returns the process exit status.
  int main(int argc, char** argv);

  // Clears the running flag (from a signal, the administration node, ...).
  void request_stop();
  bool running() const { return running_.load(); }

 private:
  Application() = default;

  std::atomic<bool> running_{true};
  std::vector<std::string> args_;
  std::unique_ptr<Root> root_;
};

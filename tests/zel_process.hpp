#pragma once
// The real program as a child process, for black-box lifecycle tests and
// benchmarks: a temporary folder of its own, its standard output and error
// collected as they come, signals, and its end.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "emulation.hpp"
#include "temp_dir.hpp"

extern char** environ;

class ZelProcess {
 public:
  using Clock = std::chrono::steady_clock;

  struct Options {
    std::vector<std::string> environment;  // "NAME=value" added to this process's
    std::string own_pid_file;              // written with the child's own pid before it starts
  };

  // The usual command line: working directory and data root in `dir`, the
  // pid file there, the files mounted at `io_mount` ("none": not at all), a
  // free web port.
  static std::vector<std::string> arguments_for(const TempDir& dir, const std::string& io_mount = "none") {
    return {"--dir", dir.path().string(), "--data-root", dir.path().string(), "--pid-file", dir / "zel.pid",
            "--io-mount", io_mount, "--port", "0"};
  }

  ZelProcess(std::string program, std::vector<std::string> arguments, Options options = {})
      : arguments_(std::move(arguments)) {
    // Under emulation the emulator starts the program (tests/emulation.hpp).
    std::vector<std::string> argv_text = emulator_command();
    argv_text.push_back(program);
    argv_text.insert(argv_text.end(), arguments_.begin(), arguments_.end());
    std::vector<char*> argv;
    for (auto& a : argv_text) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_text;
    for (char** e = environ; *e; ++e) env_text.emplace_back(*e);
    env_text.insert(env_text.end(), options.environment.begin(), options.environment.end());
    std::vector<char*> envp;
    for (auto& e : env_text) envp.push_back(e.data());
    envp.push_back(nullptr);
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const char* own_pid_file = options.own_pid_file.empty() ? nullptr : options.own_pid_file.c_str();
    pid_ = ::fork();
    if (pid_ == 0) {
      // Only async-signal-safe calls between fork and exec.
      int null = ::open("/dev/null", O_RDONLY);
      ::dup2(null, 0);
      ::dup2(out[1], 1);
      ::dup2(err[1], 2);
      if (own_pid_file) write_own_pid(own_pid_file);
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    stdout_reader_ = std::thread([fd = out[0], stream = stdout_] { collect(fd, stream); });
    stderr_reader_ = std::thread([fd = err[0], stream = stderr_] { collect(fd, stream); });
  }

  ~ZelProcess() {
    if (!status_) {
      ::kill(pid_, SIGKILL);
      wait_exit(std::chrono::seconds(10));
    }
    // Commands the program started may still hold the pipes: do not wait for them.
    stdout_reader_.detach();
    stderr_reader_.detach();
  }
  ZelProcess(const ZelProcess&) = delete;
  ZelProcess& operator=(const ZelProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const { ::kill(pid_, number); }

  std::string error_text() const { return text_of(*stderr_); }
  std::string output_text() const { return text_of(*stdout_); }
  int count(const std::string& part) const { return occurrences(error_text(), part); }

  // Waits until standard error holds `part` at least `times` times.
  bool wait_for(const std::string& part, int times = 1, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock lock(stderr_->mutex);
    return stderr_->changed.wait_for(lock, limit, [&] { return occurrences(stderr_->text, part) >= times; });
  }

  // The port its web server logged that it listens on; 0 when none was
  // logged within `limit`.
  uint16_t web_port(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const std::string marker = "Web server listening on port ";
    if (!wait_for(marker, 1, limit)) return 0;
    auto text = error_text();
    return static_cast<uint16_t>(std::stoi(text.substr(text.find(marker) + marker.size())));
  }

  // The wait status once the process has ended, else nothing. Once it has
  // ended, what it wrote is all collected (unless a command it started still
  // holds its output open).
  std::optional<int> wait_exit(std::chrono::milliseconds limit) {
    auto deadline = Clock::now() + limit;
    while (!status_) {
      int status = 0;
      pid_t r = ::waitpid(pid_, &status, WNOHANG);
      if (r == pid_) {
        status_ = status;
        for (auto* stream : {stdout_.get(), stderr_.get()}) {
          std::unique_lock lock(stream->mutex);
          stream->changed.wait_for(lock, std::chrono::seconds(2), [&] { return stream->closed; });
        }
      } else if (Clock::now() >= deadline) {
        break;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    }
    return status_;
  }
  bool running() { return !wait_exit(std::chrono::milliseconds(0)); }

  // Exit code of a process that exited (not killed by a signal), else -1000.
  static int exit_code(std::optional<int> status) {
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1000;
  }

  static int occurrences(const std::string& text, const std::string& part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++n;
    return n;
  }

 private:
  struct Stream {
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::string text;
    bool closed = false;  // the end of the stream was read
  };

  static std::string text_of(const Stream& s) {
    std::lock_guard lock(s.mutex);
    return s.text;
  }

  static void collect(int fd, std::shared_ptr<Stream> stream) {
    char buffer[4096];
    for (;;) {
      ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      {
        std::lock_guard lock(stream->mutex);
        stream->text.append(buffer, static_cast<size_t>(n));
      }
      stream->changed.notify_all();
    }
    ::close(fd);
    {
      std::lock_guard lock(stream->mutex);
      stream->closed = true;
    }
    stream->changed.notify_all();
  }

  static void write_own_pid(const char* file) {
    char digits[16];
    int n = 0;
    for (pid_t v = ::getpid(); v > 0; v /= 10) digits[n++] = static_cast<char>('0' + v % 10);
    char text[16];
    for (int i = 0; i < n; ++i) text[i] = digits[n - 1 - i];
    int fd = ::open(file, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return;
    [[maybe_unused]] auto written = ::write(fd, text, static_cast<size_t>(n));
    ::close(fd);
  }

  std::vector<std::string> arguments_;
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::shared_ptr<Stream> stdout_ = std::make_shared<Stream>();
  std::shared_ptr<Stream> stderr_ = std::make_shared<Stream>();
  std::thread stdout_reader_;
  std::thread stderr_reader_;
};

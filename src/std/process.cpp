#include "std/process.hpp"

#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <cerrno>
#include <climits>
#include <fcntl.h>

extern char** environ;

void Process::name_this_thread(std::string_view name) {
  std::string kept(name.substr(0, 15));
  pthread_setname_np(pthread_self(), kept.c_str());
}

std::string Process::executable_path() {
  std::array<char, PATH_MAX> buffer{};
  ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  return n > 0 ? std::string(buffer.data(), static_cast<size_t>(n)) : std::string();
}

std::string Process::started_path(const char* argv0) {
  namespace fs = std::filesystem;
  std::string name = argv0 ? argv0 : "";
  std::error_code ec;
  if (name.find('/') != std::string::npos) return fs::absolute(name, ec).lexically_normal().string();
  const char* search = std::getenv("PATH");
  std::string_view folders = search ? search : "/usr/local/bin:/usr/bin:/bin";
  while (!name.empty()) {
    auto colon = folders.find(':');
    std::string folder(folders.substr(0, colon));
    fs::path candidate = fs::absolute(folder.empty() ? "." : folder, ec) / name;
    struct stat info {};
    if (::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(candidate.c_str(), X_OK) == 0)
      return candidate.lexically_normal().string();
    if (colon == std::string_view::npos) break;
    folders.remove_prefix(colon + 1);
  }
  return executable_path();
}

bool Process::alive(std::string_view pid_text) {
  struct stat info {};
  return ::stat(("/proc/" + std::string(pid_text)).c_str(), &info) == 0;
}

int Process::run_shell(const std::string& command) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  pid_t child = -1;
  int error = posix_spawn(&child, "/bin/sh", &actions, &attributes, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) return -1;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0)
    if (errno != EINTR) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

namespace {

// Only raw system calls here: this runs in signal handlers.
void mark_descriptors_close_on_exec() {
  if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  // Kernels before 5.11 know no CLOSE_RANGE_CLOEXEC: one descriptor at a time.
  struct rlimit limit {};
  rlim_t highest = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY ? limit.rlim_cur : 65536;
  for (rlim_t fd = 3; fd < highest; ++fd) {
    int flags = ::fcntl(static_cast<int>(fd), F_GETFD);
    if (flags >= 0) ::fcntl(static_cast<int>(fd), F_SETFD, flags | FD_CLOEXEC);
  }
}

}  // namespace

int Process::replace_image(const char* program, char* const argv[], const char* dir) {
  if (::chdir(dir) != 0) return errno;
  sigset_t none;
  sigemptyset(&none);
  ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
  mark_descriptors_close_on_exec();
  ::execv(program, argv);
  return errno;
}

int Process::replace_image_retrying(const char* program, char* const argv[], const char* dir, int interval_ms,
                                    int limit_ms) {
  int error = replace_image(program, argv, dir);
  for (int waited = 0; waited < limit_ms; waited += interval_ms) {
    struct timespec interval {interval_ms / 1000, (interval_ms % 1000) * 1000000L};
    while (::nanosleep(&interval, &interval) != 0 && errno == EINTR) {
    }
    error = replace_image(program, argv, dir);
  }
  return error;
}

namespace {

// One per thread that asked for it; the stack goes with the thread.
class AlternateSignalStack {
 public:
  AlternateSignalStack() {
    // One set up by someone else (a sanitizer's runtime) stays theirs.
    stack_t present{};
    if (::sigaltstack(nullptr, &present) == 0 && !(present.ss_flags & SS_DISABLE)) return;
    void* memory = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return;
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = kSize;
    if (::sigaltstack(&stack, nullptr) != 0) {
      ::munmap(memory, kSize);
      return;
    }
    memory_ = memory;
  }
  ~AlternateSignalStack() {
    if (!memory_) return;
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    ::sigaltstack(&off, nullptr);
    ::munmap(memory_, kSize);
  }
  AlternateSignalStack(const AlternateSignalStack&) = delete;
  AlternateSignalStack& operator=(const AlternateSignalStack&) = delete;

 private:
  // Room for the fault handler (a message and an exec) and for a sanitizer's
  // handler in the instrumented builds.
  static constexpr size_t kSize = 256 * 1024;
  void* memory_ = nullptr;
};

}  // namespace

void Process::use_alternate_signal_stack() { thread_local AlternateSignalStack stack; }

namespace {

struct FaultRoute {
  Process::FaultHandler genuine = nullptr;
  struct sigaction previous {};
};
std::array<FaultRoute, NSIG> fault_routes;

void route_fault(int signal, siginfo_t* info, void* context) {
  auto& route = fault_routes[static_cast<size_t>(signal)];
  // si_code > 0: raised by the kernel for this process's own fault.
  // Zero or less: sent by a process (SI_USER, SI_QUEUE, SI_TKILL).
  if (info && info->si_code <= 0) {
    auto& prev = route.previous;
    if (prev.sa_flags & SA_SIGINFO) {
      if (prev.sa_sigaction) prev.sa_sigaction(signal, info, context);
      return;
    }
    if (prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN) {
      prev.sa_handler(signal);
      return;
    }
    if (prev.sa_handler == SIG_IGN) return;
  }
  route.genuine(signal);
}

}  // namespace

void Process::catch_genuine_faults(int signal, FaultHandler handler) {
  auto& route = fault_routes[static_cast<size_t>(signal)];
  route.genuine = handler;
  struct sigaction action {};
  action.sa_sigaction = route_fault;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigfillset(&action.sa_mask);
  ::sigaction(signal, &action, &route.previous);
}

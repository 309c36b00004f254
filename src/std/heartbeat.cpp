#include "std/heartbeat.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <ctime>
#include <cstdlib>
#include <cstring>
#include <string>

#include "std/process.hpp"

namespace {

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string_view(value) : std::string_view();
}

template <class T>
bool parse_number(std::string_view text, T& out) {
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  return error == std::errc() && end == text.data() + text.size();
}

// Newer managers tie a reload to the time it began; older ones ignore the field.
std::string reloading() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  auto microseconds = static_cast<unsigned long long>(now.tv_sec) * 1000000ULL +
                      static_cast<unsigned long long>(now.tv_nsec) / 1000ULL;
  return "RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds);
}

}  // namespace

bool Heartbeat::notify(std::string_view state) {
  std::string_view socket_path = environment("NOTIFY_SOCKET");
  // A path, or "@name" for an abstract socket.
  if (socket_path.empty() || socket_path.size() >= sizeof(sockaddr_un::sun_path)) return false;
  if (socket_path[0] != '/' && socket_path[0] != '@') return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socket_path.data(), socket_path.size());
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';
  auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_path.size());
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  auto sent = ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address), length);
  ::close(fd);
  return sent == static_cast<ssize_t>(state.size());
}

std::chrono::microseconds Heartbeat::beat_period() {
  unsigned long long interval = 0;
  if (!parse_number(environment("WATCHDOG_USEC"), interval) || interval == 0) return {};
  std::string_view pid_text = environment("WATCHDOG_PID");
  long pid = 0;
  if (!pid_text.empty() && (!parse_number(pid_text, pid) || pid != ::getpid())) return {};
  return std::chrono::microseconds(interval / 2);
}

Heartbeat::~Heartbeat() {
  {
    std::lock_guard lock(mutex_);
    detached_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void Heartbeat::attach() {
  std::lock_guard lock(mutex_);
  if (attached_ || detached_ || !notify("READY=1")) return;
  attached_ = true;
  auto period = beat_period();
  if (period.count() > 0) thread_ = std::thread([this, period] { beat(period); });
}

void Heartbeat::beat(std::chrono::microseconds period) {
  Process::name_this_thread("heartbeat");
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, period, [this] { return detached_; })) notify("WATCHDOG=1");
}

void Heartbeat::detach(Ending ending) {
  {
    std::lock_guard lock(mutex_);
    if (detached_) return;
    detached_ = true;
    if (attached_) notify(ending == Ending::Restart ? reloading() : "STOPPING=1");
  }
  wake_.notify_all();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

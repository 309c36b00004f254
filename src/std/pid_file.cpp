#include "std/pid_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>

#include <fmt/format.h>

namespace {

std::string link_target(const std::string& link) {
  std::array<char, PATH_MAX> buffer{};
  ssize_t n = ::readlink(link.c_str(), buffer.data(), buffer.size() - 1);
  return n > 0 ? std::string(buffer.data(), static_cast<size_t>(n)) : std::string();
}

// The kernel marks the program file of a process whose file was replaced.
std::string without_deleted_mark(std::string path) {
  constexpr std::string_view mark = " (deleted)";
  if (path.size() > mark.size() && path.ends_with(mark)) path.resize(path.size() - mark.size());
  return path;
}

}  // namespace

pid_t PidFile::read(const std::string& path, std::string& distrusted) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) distrusted = std::strerror(errno);
    return 0;
  }
  struct stat status {};
  char text[32];
  ssize_t n = -1;
  if (::fstat(fd, &status) != 0) distrusted = std::strerror(errno);
  else if (!S_ISREG(status.st_mode)) distrusted = "not a regular file";
  else if (status.st_uid != ::geteuid()) distrusted = fmt::format("owned by user {}", status.st_uid);
  else if (status.st_mode & (S_IWGRP | S_IWOTH)) distrusted = "writable by others";
  else n = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  if (n <= 0) return 0;
  std::string_view digits(text, static_cast<size_t>(n));
  while (!digits.empty() && (digits.back() == '\n' || digits.back() == ' ' || digits.back() == '\r'))
    digits.remove_suffix(1);
  pid_t pid = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
  if (ec != std::errc() || end != digits.data() + digits.size() || pid <= 0) return 0;
  return pid;
}

bool PidFile::runs_this_program(pid_t pid, std::string& found) {
  const std::string proc = fmt::format("/proc/{}", pid);
  struct stat process {};
  if (::stat(proc.c_str(), &process) != 0) {
    found = "no such process";
    return false;
  }
  std::string program = without_deleted_mark(link_target(proc + "/exe"));
  std::string own = without_deleted_mark(link_target("/proc/self/exe"));
  // A process of another user cannot have its program read: it is not ours either.
  found = fmt::format("{}, user {}", program.empty() ? "program unknown" : program, process.st_uid);
  if (process.st_uid != ::geteuid() || program.empty()) return false;
  if (program == own) return true;
  // The same file reached by another name (a hard link, a bind mount).
  struct stat theirs {}, ours {};
  return ::stat((proc + "/exe").c_str(), &theirs) == 0 && ::stat("/proc/self/exe", &ours) == 0 &&
         theirs.st_dev == ours.st_dev && theirs.st_ino == ours.st_ino;
}

bool PidFile::write(const std::string& path, pid_t pid, std::string& error) {
  const std::string temporary = fmt::format("{}.{}.new", path, ::getpid());
  ::unlink(temporary.c_str());  // left by a crash of this same pid; a link is removed, not followed
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    error = fmt::format("{}: {}", temporary, std::strerror(errno));
    return false;
  }
  const std::string text = fmt::format("{}", pid);
  bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  int write_errno = errno;
  // A umask may have left it writable by others; the reader would distrust it.
  ::fchmod(fd, 0644);
  ::close(fd);
  if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
    error = fmt::format("{}: {}", path, std::strerror(written ? errno : write_errno));
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

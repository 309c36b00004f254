#include "std/fd_writes.hpp"

#include <unistd.h>

#include <cerrno>

bool write_all(int fd, std::string_view content) {
  while (!content.empty()) {
    ssize_t n = ::write(fd, content.data(), content.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    content.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

int sync_retrying(int fd, bool data_only) {
  int result;
  do result = data_only ? ::fdatasync(fd) : ::fsync(fd);
  while (result != 0 && errno == EINTR);
  return result;
}

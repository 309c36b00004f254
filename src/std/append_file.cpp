#include "std/append_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "std/fd_writes.hpp"

AppendFile::~AppendFile() { close(); }

bool AppendFile::open(const std::string& path, std::string& error) {
  close();
  std::error_code ec;
  auto folder = std::filesystem::path(path).parent_path();
  if (!folder.empty()) std::filesystem::create_directories(folder, ec);
  if (ec) {
    error = "can't create '" + folder.string() + "': " + ec.message();
    return false;
  }
  fd_ = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    error = "can't open '" + path + "': " + std::strerror(errno);
    return false;
  }
  path_ = path;
  return true;
}

void AppendFile::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool AppendFile::append(std::string_view text, std::string& error) {
  if (fd_ < 0) {
    error = "the file is not open";
    return false;
  }
  if (!write_all(fd_, text)) {
    error = "can't write '" + path_ + "': " + std::strerror(errno);
    return false;
  }
  if (sync_retrying(fd_, true) != 0) {
    error = "can't flush '" + path_ + "': " + std::strerror(errno);
    return false;
  }
  return true;
}

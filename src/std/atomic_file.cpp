#include "std/atomic_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "std/fd_writes.hpp"

namespace {

std::string describe(std::string_view what, const std::string& path, int error_number) {
  return std::string(what) + " '" + path + "': " + std::strerror(error_number);
}

// Closes a descriptor when the scope ends, unless it was closed already.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Closes now and reports the error of close() (delayed write errors show there).
  int close() {
    int result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

std::string folder_of(const std::string& path) {
  auto folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? std::string(".") : folder;
}

// Writes and flushes the temporary; false with `error` when any step fails.
bool write_temporary(const std::string& temporary, std::string_view content, std::string& error) {
  Descriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd.valid()) {
    error = describe("Can't create", temporary, errno);
    return false;
  }
  if (!write_all(fd.get(), content)) {
    error = describe("Can't write", temporary, errno);
    return false;
  }
  if (sync_retrying(fd.get()) != 0) {
    error = describe("Can't flush", temporary, errno);
    return false;
  }
  if (fd.close() != 0) {
    error = describe("Can't close", temporary, errno);
    return false;
  }
  return true;
}

}  // namespace

AtomicFile::ReadResult AtomicFile::read(const std::string& path, std::string& content, std::string& error) {
  // Not blocking: opening a FIFO would wait for a writer.
  Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid()) {
    if (errno == ENOENT) return ReadResult::Missing;
    error = describe("Can't open", path, errno);
    return ReadResult::Failed;
  }
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) {
    error = describe("Can't inspect", path, errno);
    return ReadResult::Failed;
  }
  if (!S_ISREG(status.st_mode)) {
    error = "'" + path + "' is not a regular file";
    return ReadResult::Failed;
  }
  auto too_large = [&] {
    error = "'" + path + "' holds more than " + std::to_string(kMaxReadSize) + " bytes";
    return ReadResult::Failed;
  };
  if (static_cast<unsigned long long>(status.st_size) > kMaxReadSize) return too_large();
  content.clear();
  content.reserve(static_cast<size_t>(status.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = describe("Can't read", path, errno);
      return ReadResult::Failed;
    }
    if (n == 0) return ReadResult::Ok;
    content.append(buffer, static_cast<size_t>(n));
    if (content.size() > kMaxReadSize) return too_large();  // it grew while being read
  }
}

bool AtomicFile::write(const std::string& path, std::string_view content, std::string& error) {
  static std::mutex writing;  // one temporary per path: writers take turns
  std::lock_guard lock(writing);

  std::string folder = folder_of(path);
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  if (ec) {
    error = "Can't create folder '" + folder + "': " + ec.message();
    return false;
  }
  std::string temporary = temporary_for(path);
  if (!write_temporary(temporary, content, error)) {
    ::unlink(temporary.c_str());
    return false;
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    error = describe("Can't rename over", path, errno);
    ::unlink(temporary.c_str());
    return false;
  }
  // The rename is a change of the folder: flush it too, or a power cut may
  // bring back the old name.
  Descriptor dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir.valid() || sync_retrying(dir.get()) != 0) {
    error = describe("Can't flush folder", folder, errno);
    return false;
  }
  return true;
}

bool AtomicFile::rename(const std::string& from, const std::string& to, std::string& error) {
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  error = describe("Can't rename", from, errno);
  return false;
}

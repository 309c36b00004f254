#include "std/confined_directory.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace {

// openat2 confined beneath `dir_fd`; -1 with errno set on failure.
int open_beneath(int dir_fd, const std::string& relative) {
  open_how how{};
  // Non-blocking, so that a FIFO planted in the tree cannot hang a reader.
  how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, dir_fd, relative.c_str(), &how, sizeof how));
}

std::string resolved(const std::string& path) {
  char buffer[PATH_MAX];
  return realpath(path.c_str(), buffer) ? std::string(buffer) : std::string();
}

// For kernels without openat2: open, then check where the descriptor really is.
int open_and_check(int dir_fd, const std::string& dir, const std::string& relative, bool& outside) {
  int fd = openat(dir_fd, relative.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return -1;
  std::string base = resolved(dir);
  std::string real = resolved("/proc/self/fd/" + std::to_string(fd));
  if (base.empty() || real.empty() || (real != base && !real.starts_with(base + "/"))) {
    close(fd);
    outside = true;
    return -1;
  }
  return fd;
}

ConfinedDirectory::Identity identity_of(const struct stat& info) {
  ConfinedDirectory::Identity id;
  id.device = info.st_dev;
  id.inode = info.st_ino;
  id.size = static_cast<uint64_t>(info.st_size);
  id.modified_ns = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
  id.changed_ns = static_cast<int64_t>(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
  return id;
}

ConfinedDirectory::Status status_of_errno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ENAMETOOLONG:
      return ConfinedDirectory::Status::NotFound;
    case EXDEV:  // RESOLVE_BENEATH: the path leaves the directory
    case ELOOP:
      return ConfinedDirectory::Status::Outside;
    default:
      return ConfinedDirectory::Status::Failed;
  }
}

}  // namespace

ConfinedDirectory::ConfinedDirectory(std::string dir) : dir_(std::move(dir)) {}

ConfinedDirectory::~ConfinedDirectory() {
  int fd = fd_.load();
  if (fd >= 0) close(fd);
}

int ConfinedDirectory::descriptor() const {
  int fd = fd_.load(std::memory_order_acquire);
  if (fd >= 0) return fd;
  int opened = open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) return -1;
  int expected = -1;
  if (fd_.compare_exchange_strong(expected, opened, std::memory_order_acq_rel)) return opened;
  close(opened);  // another thread was first
  return expected;
}

bool ConfinedDirectory::identify(const std::string& relative, Identity& identity) const {
  int dir_fd = descriptor();
  struct stat info {};
  if (dir_fd < 0 || fstatat(dir_fd, relative.c_str(), &info, 0) != 0) return false;
  identity = identity_of(info);
  return true;
}

ConfinedDirectory::Status ConfinedDirectory::read(const std::string& relative, std::string& content,
                                                  size_t max_size, Identity* identity) const {
  int dir_fd = descriptor();
  if (dir_fd < 0) return Status::NotFound;
  int fd = open_beneath(dir_fd, relative);
  if (fd < 0 && errno == ENOSYS) {
    bool outside = false;
    fd = open_and_check(dir_fd, dir_, relative, outside);
    if (outside) return Status::Outside;
  }
  if (fd < 0) return status_of_errno(errno);

  struct stat info {};
  Status status = Status::Read;
  if (fstat(fd, &info) != 0) status = Status::Failed;
  else if (S_ISDIR(info.st_mode)) status = Status::IsDirectory;
  else if (!S_ISREG(info.st_mode) || static_cast<size_t>(info.st_size) > max_size) status = Status::Failed;
  if (status != Status::Read) {
    close(fd);
    return status;
  }
  if (identity) *identity = identity_of(info);
  content.resize(static_cast<size_t>(info.st_size));
  size_t done = 0;
  while (done < content.size()) {
    ssize_t n = ::read(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the file shrank while it was read
    done += static_cast<size_t>(n);
  }
  content.resize(done);
  close(fd);
  return Status::Read;
}

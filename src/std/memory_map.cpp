#include "std/memory_map.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

std::string failure(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

MemoryMap::~MemoryMap() { release(); }

MemoryMap::MemoryMap(MemoryMap&& other) noexcept { *this = std::move(other); }

MemoryMap& MemoryMap::operator=(MemoryMap&& other) noexcept {
  if (this != &other) {
    release();
    base_ = std::exchange(other.base_, nullptr);
    size_ = std::exchange(other.size_, 0);
    file_backed_ = other.file_backed_;
    error_ = std::move(other.error_);
  }
  return *this;
}

void MemoryMap::release() {
  if (base_) munmap(base_, size_);
  base_ = nullptr;
  size_ = 0;
}

MemoryMap MemoryMap::open(const std::string& path, uint64_t physical_address, size_t size) {
  // O_SYNC makes "/dev/mem" map device memory uncached.
  return map_fd(::open(path.c_str(), O_RDWR | O_SYNC | O_CLOEXEC), path, physical_address, size);
}

MemoryMap MemoryMap::create(const std::string& path, size_t size) {
  return map_fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644), path, 0, size);
}

MemoryMap MemoryMap::map_fd(int fd, const std::string& path, uint64_t physical_address, size_t size) {
  MemoryMap map;
  if (fd < 0) {
    map.error_ = failure("open", path);
    return map;
  }
  struct stat st{};
  if (fstat(fd, &st) != 0) {
    map.error_ = failure("stat", path);
    ::close(fd);
    return map;
  }
  off_t offset = 0;
  if (S_ISREG(st.st_mode)) {
    map.file_backed_ = true;
    if (static_cast<uint64_t>(st.st_size) < size && ftruncate(fd, static_cast<off_t>(size)) != 0) {
      map.error_ = failure("grow", path);
      ::close(fd);
      return map;
    }
  } else {
    offset = static_cast<off_t>(physical_address);
  }
  void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
  int mmap_errno = errno;
  ::close(fd);  // the mapping keeps its own reference
  if (base == MAP_FAILED) {
    errno = mmap_errno;
    map.error_ = failure("mmap", path);
    return map;
  }
  map.base_ = base;
  map.size_ = size;
  return map;
}

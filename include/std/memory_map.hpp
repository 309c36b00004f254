#pragma once
// MemoryMap: a shared mapping of physical memory or of a file that stands for
// it. A character device ("/dev/mem", a UIO device) is mapped at the physical
// address; a regular file is mapped from its start and grown to the size
// first, so that development machines and tests run the same driver code on
// plain files (and a simulated subsystem maps the same file from its side).
#include <cstddef>
#include <cstdint>
#include <string>

class MemoryMap {
 public:
  MemoryMap() = default;
  ~MemoryMap();
  MemoryMap(MemoryMap&& other) noexcept;
  MemoryMap& operator=(MemoryMap&& other) noexcept;
  MemoryMap(const MemoryMap&) = delete;
  MemoryMap& operator=(const MemoryMap&) = delete;

  // Maps `size` bytes of `path` (see above). On failure the map stays empty
  // and `error()` says what failed ("open /dev/mem: Permission denied").
  static MemoryMap open(const std::string& path, uint64_t physical_address, size_t size);
  // Maps `size` bytes of the regular file `path`, creating it when missing:
  // the side of a simulated device that provides the memory.
  static MemoryMap create(const std::string& path, size_t size);

  bool mapped() const { return base_ != nullptr; }
  uint8_t* data() const { return static_cast<uint8_t*>(base_); }
  size_t size() const { return size_; }
  const std::string& error() const { return error_; }
  // True when the mapping is a file standing in for the memory.
  bool file_backed() const { return file_backed_; }

 private:
  void release();
  static MemoryMap map_fd(int fd, const std::string& path, uint64_t physical_address, size_t size);

  void* base_ = nullptr;
  size_t size_ = 0;
  bool file_backed_ = false;
  std::string error_;
};

#pragma once
// ConfinedDirectory: a directory from which files are read only when they lie
// beneath it. A relative path that would climb out ("..", an absolute
// symbolic link, a link pointing outside) is refused: by the kernel where it
// can (openat2 with RESOLVE_BENEATH), otherwise by comparing resolved paths.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class ConfinedDirectory {
 public:
  enum class Status {
    Read,         // `content` holds the file
    NotFound,     // no such file (or the directory itself is missing)
    IsDirectory,  // the path names a directory beneath this one
    Outside,      // the path resolves outside the directory: refused
    Failed,       // not a regular file, too large, or unreadable
  };

  // What tells two versions of a file apart without reading them.
  struct Identity {
    uint64_t device = 0, inode = 0, size = 0;
    int64_t modified_ns = 0, changed_ns = 0;
    bool operator==(const Identity&) const = default;
  };

  explicit ConfinedDirectory(std::string dir);
  ~ConfinedDirectory();
  ConfinedDirectory(const ConfinedDirectory&) = delete;
  ConfinedDirectory& operator=(const ConfinedDirectory&) = delete;

  // Reads the regular file at `relative` (no leading "/") into `content`,
  // and its identity when asked. Safe to call from several threads at once.
  Status read(const std::string& relative, std::string& content, size_t max_size,
              Identity* identity = nullptr) const;
  // The identity of what `relative` names now, without opening it; false
  // when there is nothing. It does not confine the path: a caller compares
  // it with the identity of a file it read before.
  bool identify(const std::string& relative, Identity& identity) const;

  const std::string& dir() const { return dir_; }

 private:
  // The directory's descriptor, opened on first use (the directory may be
  // created after the server starts); -1 when it does not exist.
  int descriptor() const;

  std::string dir_;
  mutable std::atomic<int> fd_{-1};
};

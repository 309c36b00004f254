#pragma once
// ConfinedDirectory: a directory from which files are read only when they lie
// beneath it. A relative path that would climb out ("..", an absolute
// symbolic link, a link pointing outside) is refused: by the kernel where it
// can (openat2 with RESOLVE_BENEATH), otherwise by comparing resolved paths.
#include <atomic>
#include <cstddef>
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

  explicit ConfinedDirectory(std::string dir);
  ~ConfinedDirectory();
  ConfinedDirectory(const ConfinedDirectory&) = delete;
  ConfinedDirectory& operator=(const ConfinedDirectory&) = delete;

  // Reads the regular file at `relative` (no leading "/") into `content`.
  // Safe to call from several threads at once.
  Status read(const std::string& relative, std::string& content, size_t max_size) const;

  const std::string& dir() const { return dir_; }

 private:
  // The directory's descriptor, opened on first use (the directory may be
  // created after the server starts); -1 when it does not exist.
  int descriptor() const;

  std::string dir_;
  mutable std::atomic<int> fd_{-1};
};

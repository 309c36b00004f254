#pragma once
// DocumentRoot: the web documents a browser may fetch. It turns a request
// target into a file beneath the document root, refuses every target that
// would leave it ("..", encoded or not, links pointing out), and says how a
// file is typed and cached.
//
// Small files are kept in memory once read; a kept file is served again only
// while the file at its path is still the same (device, inode, size and
// times), so edits show at once and a swapped link is read, and judged, anew.
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "std/confined_directory.hpp"

class DocumentRoot {
 public:
  static constexpr size_t kMaxFileSize = 16u << 20;
  static constexpr size_t kKeptFileSize = 256u << 10;
  static constexpr size_t kKeptFiles = 512;

  struct Document {
    std::string content;
    std::string_view content_type;
    std::string_view cache_control;
  };

  enum class Result { Found, NotFound, Refused };

  explicit DocumentRoot(std::string dir);

  // "/" and folders give their "index.html"; a target without an extension
  // that names no file is tried with ".html". Refusals are logged.
  Result find(std::string_view target, Document& out) const;

  const std::string& dir() const { return files_.dir(); }

  // The path of a target relative to the root: query cut off,
  // percent-decoding undone, "." and empty segments dropped. Empty optional
  // for a target that is malformed or climbs with "..".
  static std::optional<std::string> relative_path(std::string_view target);
  // "text/html" for "html", ...; "application/octet-stream" when unknown.
  static std::string_view content_type(std::string_view path);
  // Pages and data are never cached ("no-store"); scripts, styles and
  // images are ("public max-age=600").
  static std::string_view cache_control(std::string_view path);

 private:
  struct Kept {
    std::string path;  // the file that answered the target
    ConfinedDirectory::Identity identity;
    std::shared_ptr<const std::string> content;
  };

  Result read(const std::string& relative, Document& out, Kept& kept) const;
  bool from_memory(const std::string& relative, Document& out) const;
  void keep(const std::string& relative, Kept kept) const;

  ConfinedDirectory files_;
  mutable std::mutex kept_mutex_;  // guards kept_
  mutable std::unordered_map<std::string, Kept> kept_;  // by relative target path
};

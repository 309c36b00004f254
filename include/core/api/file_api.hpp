#pragma once
// FileAPI: how one kind of file under the mount point shows a vertex. Every
// file kind is served by one shared handler object, found by the file name's
// extension in the handler registry ("" directories, ".json" JSON texts).
// Handlers keep no per-open state: an open's state is its OpenFile, a name's
// its FileAttribute.
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "std/fuse_mount.hpp"

class Vertex;
class FileAPI;

// The extension of JSON files; the directory listing appends it too.
inline constexpr std::string_view kJsonExtension = ".json";

// The attributes of one name under the mount point, made on its first lookup
// and kept while the file system is mounted.
struct FileAttribute {
  FileAPI* handler = nullptr;
  Vertex* vertex = nullptr;
  std::string path;    // from the mount point, with a leading "/": "/a/b.json"; "" for the mount point
  uint32_t mode = 0;   // type and permission bits, fixed at creation
  uint64_t size = 0;   // length of the latest content snapshot
  unsigned opens = 0;  // open files on this name
  int64_t atime_ns = 0;
  int64_t mtime_ns = 0;
  int64_t ctime_ns = 0;
};

// One open file: the content snapshot taken at open (what reads return) and
// the text the last write delivered.
struct OpenFile {
  FileAttribute* attribute = nullptr;
  std::string snapshot;
  uint64_t refused_end = 0;  // where the last write refused as too long ended
};

class FileAPI {
 public:
  virtual ~FileAPI() = default;

  virtual bool readable(Vertex*) const { return true; }
  virtual bool writable(Vertex*) const { return true; }
  virtual bool is_directory(Vertex*) const { return false; }

  // A new attribute record of `vertex` under the name `path`; its mode from
  // readable (0444), writable (0222) and is_directory (S_IFDIR and 0111, else
  // S_IFREG).
  FileAttribute attribute(Vertex* vertex, std::string path);

  // The file's content; base: nothing.
  virtual void serialize(Vertex*, std::string& out) const {}
  // Takes the content snapshot of an open file and records its length as the
  // attribute's size.
  virtual void load(OpenFile& file) const;
  // Up to `size` bytes of the snapshot from `offset` (taking the snapshot now
  // if the open has none); marks the attribute's modification time.
  virtual std::string_view read(OpenFile& file, size_t size, uint64_t offset) const;
  // Lists a directory from entry `offset` on; base: not a directory, nothing.
  virtual void list(OpenFile& dir, uint64_t offset, DirectoryFiller& filler) const {}
  // Applies written text; returns 0 or the errno that refuses it. Base:
  // nothing is writable.
  virtual int deserialize(Vertex*, std::string_view) const { return EACCES; }
  // Each write is the whole new content: `data` goes to deserialize whatever
  // the offset, and all of it counts as written when it was taken; a refused
  // write fails with deserialize's errno. An empty write changes nothing.
  // A text of WritePath::kMaxTextBytes or more is refused with EFBIG and
  // logged, and so is each write that goes on where such a refused write
  // ended (the rest of a value too long for one write).
  int write(OpenFile& file, std::string_view data, uint64_t offset, size_t& written) const;
};

// File-name extension to handler: exactly "" (DirAPI) and ".json" (JSONAPI).
using FileAPIRegistry = std::map<std::string, std::shared_ptr<FileAPI>, std::less<>>;
const FileAPIRegistry& file_api_registry();

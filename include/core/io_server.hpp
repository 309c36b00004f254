#pragma once
// IOServer: publishes the system tree as files under the mount point (the
// root's "io_server"). Every vertex is a directory, every field a "name.json"
// file, every vertex also "index.json" inside its directory and "name.json"
// beside it; the content is the JSON text of the value.
//
// Mount point: the "mount" setting of the node when configured, else
// Paths::io_mount(); empty (or "none") leaves the files off. When started it
// mounts there and serves the files on its own context's thread, between that
// context's other jobs; a mount that fails is logged and the system runs on
// without files. The first stop stage unmounts.
//
// It owns the "json_test" self-check of the value text format.
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "core/api/file_api.hpp"
#include "core/ctx_comp.hpp"
#include "core/self_test.hpp"
#include "std/fuse_mount.hpp"

// The tree's answers to file requests. Names are resolved as paths from the
// mount point: "/a/b.json" and "/a/b/index.json" both name vertex a/b, "/a/b"
// is its directory, and a stem "index" always names the directory it is in.
// Used on the serving thread only.
class IOFileSystem : public FileSystemHandler {
 public:
  explicit IOFileSystem(Vertex& top, const FileAPIRegistry& registry = file_api_registry());
  ~IOFileSystem() override;

  int lookup(uint64_t parent, std::string_view name, FileStat& out) override;
  // Without a handle, an open file's size is that of its latest snapshot;
  // a file nobody has open measures its present value.
  int getattr(uint64_t ino, const uint64_t* handle, FileStat& out) override;
  // Takes the content snapshot. Opening a file for an access its mode lacks
  // (writing a read-only field) fails with EACCES.
  int open(uint64_t ino, int flags, uint64_t& handle) override;
  int read(uint64_t handle, size_t size, uint64_t offset, std::string_view& out) override;
  int write(uint64_t handle, std::string_view data, uint64_t offset, size_t& written) override;
  void release(uint64_t handle) override;
  int opendir(uint64_t ino, uint64_t& handle) override;
  int readdir(uint64_t handle, uint64_t offset, DirectoryFiller& filler) override;
  void releasedir(uint64_t handle) override { release(handle); }

  // The lines logged when an open cannot be bound to its file.
  static void log_open_failure(std::string_view path, int flags, uint32_t file_type, int error);

 private:
  FileAttribute* attribute_of(uint64_t ino);
  uint64_t ino_of(const FileAttribute& attribute) const;
  int bind(FileAttribute& attribute, int flags, uint64_t& handle);
  OpenFile* open_file(uint64_t handle);
  void describe(FileAttribute& attribute, const OpenFile* open, FileStat& out);

  Vertex& top_;
  const FileAPIRegistry& registry_;
  FileAttribute mount_point_;
  std::unordered_map<std::string, std::unique_ptr<FileAttribute>> attributes_;  // by path
  std::unordered_map<uint64_t, std::unique_ptr<OpenFile>> open_files_;          // by handle
  std::string scratch_;
};

class IOServer : public CtxComp {
 public:
  explicit IOServer(const VTree& config);
  ~IOServer() override;

  void start() override;
  void stop(StopStage stage) override;

  // Where the files are served; empty when they are off.
  std::string mount_point() const;
  // True from a successful mount until the unmount.
  bool mounted() const { return mounted_.load(); }

  // The value text format's self-check, in its named groups.
  static CheckReport json_test();

 private:
  // Unmounts on the serving thread and waits until that is done.
  void end_file_system();

  std::optional<std::string> configured_mount_;
  std::unique_ptr<IOFileSystem> files_;
  std::unique_ptr<FuseMount> mount_;
  std::atomic<bool> mounted_{false};
};

// Browser: the user-interface entry that lets a client browse all controls.
class Browser : public Component {
 public:
  explicit Browser(const VTree& config);
};

#pragma once
// A file system served to the kernel through FUSE (libfuse3, low-level API).
//
// The served structure must not change while mounted: the kernel keeps names
// and directory attributes. File attributes and file contents are never kept:
// every stat and every read reaches the handler, and a read ends where the
// handler's answer ends (direct I/O).
//
// Requests are read from the FUSE device and answered one at a time on the
// thread that runs the io_context handed to serve_on(), between that
// context's other jobs. A process must never touch its own mount from that
// thread: the request could not be answered.
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace boost::asio {
class io_context;
}

// What a file system tells about one of its files.
struct FileStat {
  uint64_t ino = 0;
  uint32_t mode = 0;  // type and permission bits (S_IFDIR | 0777, ...)
  uint32_t nlink = 1;
  uint64_t size = 0;
  int64_t atime_ns = 0;
  int64_t mtime_ns = 0;
  int64_t ctime_ns = 0;
};

// Receives the entries of one directory reply.
class DirectoryFiller {
 public:
  // Adds an entry whose successor starts at `next_offset`; false when the
  // reply is full (the entry was not added).
  virtual bool add(std::string_view name, uint64_t ino, uint32_t mode, uint64_t next_offset) = 0;

 protected:
  ~DirectoryFiller() = default;
};

// The operations a served file system answers. Results are 0 or an errno.
// Inode numbers are the handler's own, except the mount point's, kRootIno.
class FileSystemHandler {
 public:
  static constexpr uint64_t kRootIno = 1;

  virtual ~FileSystemHandler() = default;

  virtual int lookup(uint64_t parent, std::string_view name, FileStat& out) = 0;
  // `handle` is the open file's handle when the kernel names one, else null.
  virtual int getattr(uint64_t ino, const uint64_t* handle, FileStat& out) = 0;

  // `flags` are open(2)'s flags.
  virtual int open(uint64_t ino, int flags, uint64_t& handle) = 0;
  // `out` must stay valid until the next call for this handle.
  virtual int read(uint64_t handle, size_t size, uint64_t offset, std::string_view& out) = 0;
  virtual int write(uint64_t handle, std::string_view data, uint64_t offset, size_t& written) = 0;
  virtual void release(uint64_t handle) = 0;

  virtual int opendir(uint64_t ino, uint64_t& handle) = 0;
  // Lists entries from `offset` (0: the first) until the filler is full.
  virtual int readdir(uint64_t handle, uint64_t offset, DirectoryFiller& filler) = 0;
  virtual void releasedir(uint64_t handle) = 0;
};

class FuseMount {
 public:
  enum class Failure {
    None,
    Session,  // the FUSE session could not be made
    Mount,    // the directory could not be mounted (missing, no /dev/fuse, no permission)
  };

  // Mounts `handler` at `dir`. A mount left at `dir` by a process that died
  // (it answers ENOTCONN) is detached first. On failure returns null and sets
  // `failure` and `reason`.
  static std::unique_ptr<FuseMount> mount(const std::string& dir, FileSystemHandler& handler, Failure& failure,
                                          std::string& reason);

  // Unmounts (see unmount()).
  ~FuseMount();
  FuseMount(const FuseMount&) = delete;
  FuseMount& operator=(const FuseMount&) = delete;

  // Starts answering requests on the thread that runs `io`; call it on that
  // thread. Serving ends when the file system is unmounted from outside, or at
  // unmount().
  void serve_on(boost::asio::io_context& io);
  // True while requests are being answered.
  bool serving() const;

  // Stops serving, closes the FUSE device (requests still waiting fail with
  // ENOTCONN; open files can only be closed) and lazily detaches the
  // mount. Call it on the serving thread, or once that thread has stopped.
  // Returns false when the directory still shows a mount afterwards.
  bool unmount();

  const std::string& dir() const { return dir_; }

 private:
  struct Session;
  FuseMount(std::string dir, std::shared_ptr<Session> session);
  void arm();
  void resume(const std::weak_ptr<Session>& session);
  void on_readable();

  std::string dir_;
  std::shared_ptr<Session> session_;
};

#define FUSE_USE_VERSION 314
#include "std/fuse_mount.hpp"

#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include "std/report.hpp"

namespace {

// The structure never changes while mounted, so names and directories may be
// kept by the kernel "for ever"; a file's size follows its value, so file
// attributes are asked for every time.
constexpr double kNameTimeout = 86400;
constexpr double kDirectoryAttributeTimeout = 86400;
constexpr double kFileAttributeTimeout = 0;

// Requests answered in one go before other jobs of the context get their turn.
constexpr int kRequestsPerTurn = 64;

double attribute_timeout(uint32_t mode) { return S_ISDIR(mode) ? kDirectoryAttributeTimeout : kFileAttributeTimeout; }

timespec to_timespec(int64_t ns) { return {static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)}; }

struct stat to_stat(const FileStat& file) {
  struct stat st {};
  st.st_ino = file.ino;
  st.st_mode = file.mode;
  st.st_nlink = file.nlink;
  st.st_size = static_cast<off_t>(file.size);
  st.st_uid = geteuid();
  st.st_gid = getegid();
  st.st_blksize = 4096;
  st.st_blocks = static_cast<blkcnt_t>((file.size + 511) / 512);
  st.st_atim = to_timespec(file.atime_ns);
  st.st_mtim = to_timespec(file.mtime_ns);
  st.st_ctim = to_timespec(file.ctime_ns);
  return st;
}

// libfuse reports through its log function. While a mount is being made the
// messages are collected on that thread as the failure's reason; otherwise
// they go to the system log.
thread_local std::string* collected_messages = nullptr;

void route_libfuse_message(enum fuse_log_level level, const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  std::string_view line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.remove_suffix(1);
  if (collected_messages) {
    if (!collected_messages->empty()) collected_messages->append("; ");
    collected_messages->append(line);
  } else if (level <= FUSE_LOG_ERR) {
    ZEL_REPORT(Error, "{}", line);
  } else if (level <= FUSE_LOG_NOTICE) {
    ZEL_REPORT(Warning, "{}", line);
  } else {
    ZEL_REPORT(Debug, "{}", line);
  }
}

class MessageCollector {
 public:
  explicit MessageCollector(std::string& out) {
    static std::once_flag routed;
    std::call_once(routed, [] { fuse_set_log_func(route_libfuse_message); });
    collected_messages = &out;
  }
  ~MessageCollector() { collected_messages = nullptr; }
};

// A directory whose file system died with its process answers ENOTCONN until
// it is detached. statfs always reaches the file system (a stat may be
// answered from the kernel's attribute cache).
void detach_stale_mount(const std::string& dir) {
  struct statfs st {};
  if (statfs(dir.c_str(), &st) == 0 || errno != ENOTCONN) return;
  if (umount2(dir.c_str(), MNT_DETACH) == 0) ZEL_REPORT(Info, "Detached a stale mount at {}", dir);
}

bool shows_underlying(const std::string& dir, dev_t underlying) {
  struct stat st {};
  return stat(dir.c_str(), &st) == 0 && st.st_dev == underlying;
}

std::vector<char>& directory_buffer() {
  static thread_local std::vector<char> buffer;
  return buffer;
}

}  // namespace

struct FuseMount::Session {
  ~Session() {
    std::free(buffer.mem);
    if (se) fuse_session_destroy(se);
  }

  fuse_session* se = nullptr;
  fuse_buf buffer{};
  dev_t underlying_dev = 0;
  std::unique_ptr<boost::asio::posix::stream_descriptor> device;
  std::atomic<bool> serving{false};
  bool unmounted = false;
  bool detached = false;
};

namespace {

FileSystemHandler& handler_of(fuse_req_t req) { return *static_cast<FileSystemHandler*>(fuse_req_userdata(req)); }

void reply_entry(fuse_req_t req, const FileStat& file) {
  fuse_entry_param entry{};
  entry.ino = file.ino;
  entry.attr = to_stat(file);
  entry.entry_timeout = kNameTimeout;
  entry.attr_timeout = attribute_timeout(file.mode);
  fuse_reply_entry(req, &entry);
}

void reply_attributes(fuse_req_t req, const FileStat& file) {
  auto st = to_stat(file);
  fuse_reply_attr(req, &st, attribute_timeout(file.mode));
}

class ReplyFiller final : public DirectoryFiller {
 public:
  ReplyFiller(fuse_req_t req, std::vector<char>& buffer) : req_(req), buffer_(buffer) {}

  bool add(std::string_view name, uint64_t ino, uint32_t mode, uint64_t next_offset) override {
    name_.assign(name);  // libfuse wants a terminated name
    struct stat st {};
    st.st_ino = ino;
    st.st_mode = mode;
    size_t room = buffer_.size() - used_;
    size_t size = fuse_add_direntry(req_, buffer_.data() + used_, room, name_.c_str(), &st,
                                    static_cast<off_t>(next_offset));
    if (size > room) return false;
    used_ += size;
    return true;
  }
  size_t used() const { return used_; }

 private:
  fuse_req_t req_;
  std::vector<char>& buffer_;
  std::string name_;
  size_t used_ = 0;
};

void on_init(void*, fuse_conn_info* conn) {
  // O_TRUNC arrives with the open instead of as a separate truncation.
  if (conn->capable & FUSE_CAP_ATOMIC_O_TRUNC) conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
}

void on_lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
  FileStat file;
  if (int error = handler_of(req).lookup(parent, name, file)) fuse_reply_err(req, error);
  else reply_entry(req, file);
}

// Inodes stay valid while mounted: nothing to forget.
void on_forget(fuse_req_t req, fuse_ino_t, uint64_t) { fuse_reply_none(req); }

void on_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  FileStat file;
  if (int error = handler_of(req).getattr(ino, fi ? &fi->fh : nullptr, file)) fuse_reply_err(req, error);
  else reply_attributes(req, file);
}

// Contents are values: a truncation (O_TRUNC, truncate) or a time change
// means nothing to them and is accepted; ownership and modes are fixed.
void on_setattr(fuse_req_t req, fuse_ino_t ino, struct stat*, int to_set, fuse_file_info* fi) {
  if (to_set & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) {
    fuse_reply_err(req, EPERM);
    return;
  }
  on_getattr(req, ino, fi);
}

void on_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  auto& handler = handler_of(req);
  uint64_t handle = 0;
  if (int error = handler.open(ino, fi->flags, handle)) {
    fuse_reply_err(req, error);
    return;
  }
  fi->fh = handle;
  fi->direct_io = 1;
  fi->keep_cache = 0;
  // A failed reply means the opener was interrupted: no release will come.
  if (fuse_reply_open(req, fi) != 0) handler.release(handle);
}

void on_read(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info* fi) {
  std::string_view data;
  if (int error = handler_of(req).read(fi->fh, size, static_cast<uint64_t>(offset), data)) fuse_reply_err(req, error);
  else fuse_reply_buf(req, data.data(), data.size());
}

void on_write(fuse_req_t req, fuse_ino_t, const char* data, size_t size, off_t offset, fuse_file_info* fi) {
  size_t written = 0;
  if (int error = handler_of(req).write(fi->fh, std::string_view(data, size), static_cast<uint64_t>(offset), written)) fuse_reply_err(req, error);
  else fuse_reply_write(req, written);
}

void on_release(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  handler_of(req).release(fi->fh);
  fuse_reply_err(req, 0);
}

void on_opendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  auto& handler = handler_of(req);
  uint64_t handle = 0;
  if (int error = handler.opendir(ino, handle)) {
    fuse_reply_err(req, error);
    return;
  }
  fi->fh = handle;
  if (fuse_reply_open(req, fi) != 0) handler.releasedir(handle);
}

void on_readdir(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info* fi) {
  auto& buffer = directory_buffer();
  buffer.resize(size);
  ReplyFiller filler(req, buffer);
  if (int error = handler_of(req).readdir(fi->fh, static_cast<uint64_t>(offset), filler)) fuse_reply_err(req, error);
  else fuse_reply_buf(req, buffer.data(), filler.used());
}

void on_releasedir(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  handler_of(req).releasedir(fi->fh);
  fuse_reply_err(req, 0);
}

// Flush is left out on purpose: the kernel then stops sending it on close.
const fuse_lowlevel_ops kOperations = [] {
  fuse_lowlevel_ops ops{};
  ops.init = on_init;
  ops.lookup = on_lookup;
  ops.forget = on_forget;
  ops.getattr = on_getattr;
  ops.setattr = on_setattr;
  ops.open = on_open;
  ops.read = on_read;
  ops.write = on_write;
  ops.release = on_release;
  ops.opendir = on_opendir;
  ops.readdir = on_readdir;
  ops.releasedir = on_releasedir;
  return ops;
}();

fuse_session* new_session(FileSystemHandler& handler) {
  fuse_args args = FUSE_ARGS_INIT(0, nullptr);
  std::string options = "fsname=zel,subtype=zel";
  // Every process on the instrument may read the files; only root may say so
  // without /etc/fuse.conf's consent. The kernel checks each access against
  // the files' modes, so only the program's own user writes.
  if (geteuid() == 0) options += ",allow_other,default_permissions";
  fuse_session* se = nullptr;
  if (fuse_opt_add_arg(&args, "zel") == 0 && fuse_opt_add_arg(&args, "-o") == 0 &&
      fuse_opt_add_arg(&args, options.c_str()) == 0)
    se = fuse_session_new(&args, &kOperations, sizeof kOperations, &handler);
  fuse_opt_free_args(&args);
  return se;
}

}  // namespace

std::unique_ptr<FuseMount> FuseMount::mount(const std::string& dir, FileSystemHandler& handler, Failure& failure,
                                            std::string& reason) {
  failure = Failure::None;
  reason.clear();
  detach_stale_mount(dir);
  struct stat st {};
  int bad_dir = stat(dir.c_str(), &st) != 0 ? errno : !S_ISDIR(st.st_mode) ? ENOTDIR : 0;
  if (bad_dir) {
    failure = Failure::Mount;
    reason = std::strerror(bad_dir);
    return nullptr;
  }
  auto session = std::make_shared<Session>();
  session->underlying_dev = st.st_dev;
  std::string messages;
  {
    MessageCollector collect(messages);
    session->se = new_session(handler);
    if (!session->se) {
      failure = Failure::Session;
    } else if (fuse_session_mount(session->se, dir.c_str()) != 0) {
      int error = errno;
      failure = Failure::Mount;
      if (messages.empty()) messages = std::strerror(error);
    }
  }
  if (failure != Failure::None) {
    reason = messages.empty() ? std::string("unknown failure") : messages;
    return nullptr;
  }
  return std::unique_ptr<FuseMount>(new FuseMount(dir, std::move(session)));
}

FuseMount::FuseMount(std::string dir, std::shared_ptr<Session> session)
    : dir_(std::move(dir)), session_(std::move(session)) {}

FuseMount::~FuseMount() { unmount(); }

void FuseMount::serve_on(boost::asio::io_context& io) {
  auto& s = *session_;
  if (s.unmounted || s.device) return;
  int fd = fuse_session_fd(s.se);
  // Requests are read until none is left; the wait says when more arrive.
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  s.device = std::make_unique<boost::asio::posix::stream_descriptor>(io, fd);
  s.serving = true;
  arm();
}

bool FuseMount::serving() const { return session_->serving.load(); }

// Completions queued before an unmount() may run after it, when this object
// is gone: they hold the session only weakly and check it first.
void FuseMount::arm() {
  session_->device->async_wait(boost::asio::posix::stream_descriptor::wait_read,
                               [this, session = std::weak_ptr(session_)](const boost::system::error_code& ec) {
                                 if (!ec) resume(session);
                               });
}

void FuseMount::resume(const std::weak_ptr<Session>& session) {
  auto alive = session.lock();
  if (alive && !alive->unmounted) on_readable();
}

void FuseMount::on_readable() {
  auto& s = *session_;
  for (int answered = 0; answered < kRequestsPerTurn; ++answered) {
    int result = fuse_session_receive_buf(s.se, &s.buffer);
    if (result == -EINTR) continue;
    if (result == -EAGAIN) {
      arm();
      return;
    }
    if (result < 0) {
      // The device failed: the loop ends here.
      s.serving = false;
      ZEL_REPORT(Error, "Block error: {}", std::strerror(-result));
      return;
    }
    if (result == 0 || fuse_session_exited(s.se)) {
      // Unmounted from outside.
      s.serving = false;
      ZEL_REPORT(Info, "File system at {} no longer mounted", dir_);
      return;
    }
    fuse_session_process_buf(s.se, &s.buffer);
  }
  // More may be waiting; the readiness edge has passed, so look again after
  // the context's other jobs instead of waiting for a new one.
  boost::asio::post(s.device->get_executor(), [this, session = std::weak_ptr(session_)] { resume(session); });
}

bool FuseMount::unmount() {
  auto& s = *session_;
  if (s.unmounted) return s.detached;
  s.unmounted = true;
  s.serving = false;
  if (s.device) {
    boost::system::error_code ignored;
    s.device->cancel(ignored);
    s.device->release();
    s.device.reset();
  }
  // Closes the device first (a request still waiting fails instead of
  // blocking the detach), then detaches lazily.
  fuse_session_unmount(s.se);
  s.detached = shows_underlying(dir_, s.underlying_dev);
  return s.detached;
}

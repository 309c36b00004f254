#include "core/io_server.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>
#include <new>

#include "core/log.hpp"
#include "std/paths.hpp"

ZEL_REGISTER_NODE("io_server", IOServer);
ZEL_REGISTER_NODE("browser", Browser);

// ---- IOFileSystem ----------------------------------------------------------

IOFileSystem::IOFileSystem(Vertex& top, const FileAPIRegistry& registry) : top_(top), registry_(registry) {
  auto dir = registry_.find("");
  if (dir != registry_.end() && dir->second) mount_point_ = dir->second->attribute(&top_, "");
  mount_point_.vertex = &top_;
  mount_point_.mode = S_IFDIR | 0777;
}

IOFileSystem::~IOFileSystem() = default;

FileAttribute* IOFileSystem::attribute_of(uint64_t ino) {
  if (ino == kRootIno) return &mount_point_;
  return reinterpret_cast<FileAttribute*>(ino);  // an inode number is its record's address
}

uint64_t IOFileSystem::ino_of(const FileAttribute& attribute) const {
  return &attribute == &mount_point_ ? kRootIno : reinterpret_cast<uint64_t>(&attribute);
}

int IOFileSystem::lookup(uint64_t parent, std::string_view name, FileStat& out) {
  FileAttribute* dir = attribute_of(parent);
  std::string path = dir->path + "/" + std::string(name);
  if (auto known = attributes_.find(path); known != attributes_.end()) {
    describe(*known->second, nullptr, out);
    return 0;
  }

  std::filesystem::path file(name);
  auto entry = registry_.find(file.extension().string());
  if (entry == registry_.end()) return EACCES;  // not a kind of file this system has
  FileAPI* handler = entry->second.get();
  if (!handler) {
    ZEL_ERROR("File API object somehow deallocated?!");
    return EACCES;
  }
  auto stem = file.stem().string();
  std::string vertex_path = stem == "index" ? dir->path : dir->path + "/" + stem;
  Vertex* vertex = top_.find(vertex_path);
  if (!vertex) {
    ZEL_ERROR("Vertex not found {}", vertex_path);
    ZEL_ERROR("Uknown file IO error occurred!");
    return EACCES;
  }

  FileAttribute* attribute = nullptr;
  try {
    auto record = std::make_unique<FileAttribute>(handler->attribute(vertex, path));
    attribute = attributes_.emplace(std::move(path), std::move(record)).first->second.get();
  } catch (const std::bad_alloc&) {
    ZEL_ERROR("File attribute failed to allocate.");
    return EACCES;
  }
  describe(*attribute, nullptr, out);
  return 0;
}

void IOFileSystem::describe(FileAttribute& attribute, const OpenFile* open, FileStat& out) {
  out.ino = ino_of(attribute);
  out.mode = attribute.mode;
  bool directory = S_ISDIR(attribute.mode);
  out.nlink = directory ? 2 : 1;
  if (!directory) {
    if (open) {
      out.size = open->snapshot.size();
    } else {
      // By path: the present value's size, whatever other opens hold.
      scratch_.clear();
      attribute.handler->serialize(attribute.vertex, scratch_);
      out.size = scratch_.size();
    }
  }
  out.atime_ns = attribute.atime_ns;
  out.mtime_ns = attribute.mtime_ns;
  out.ctime_ns = attribute.ctime_ns;
}

int IOFileSystem::getattr(uint64_t ino, const uint64_t* handle, FileStat& out) {
  describe(*attribute_of(ino), handle ? open_file(*handle) : nullptr, out);
  return 0;
}

int IOFileSystem::open(uint64_t ino, int flags, uint64_t& handle) {
  FileAttribute& attribute = *attribute_of(ino);
  int access = flags & O_ACCMODE;
  bool reads = access != O_WRONLY;
  bool writes = access != O_RDONLY;
  if ((reads && !(attribute.mode & S_IRUSR)) || (writes && !(attribute.mode & S_IWUSR))) return EACCES;
  return bind(attribute, flags, handle);
}

int IOFileSystem::opendir(uint64_t ino, uint64_t& handle) { return bind(*attribute_of(ino), O_RDONLY, handle); }

// The open's snapshot is taken here, once: every read of this open shows the
// value as it was now.
int IOFileSystem::bind(FileAttribute& attribute, int flags, uint64_t& handle) {
  if (!attribute.handler) {
    ZEL_ERROR("File API object somehow deallocated?!");
    return EACCES;
  }
  try {
    auto file = std::make_unique<OpenFile>();
    file->attribute = &attribute;
    attribute.handler->load(*file);
    handle = reinterpret_cast<uint64_t>(file.get());
    open_files_.emplace(handle, std::move(file));
  } catch (const std::bad_alloc&) {
    log_open_failure(attribute.path, flags, attribute.mode & S_IFMT, ENOSPC);
    return ENOSPC;
  }
  ++attribute.opens;
  return 0;
}

OpenFile* IOFileSystem::open_file(uint64_t handle) {
  auto it = open_files_.find(handle);
  return it == open_files_.end() ? nullptr : it->second.get();
}

int IOFileSystem::read(uint64_t handle, size_t size, uint64_t offset, std::string_view& out) {
  OpenFile* file = open_file(handle);
  if (!file) return EBADF;
  out = file->attribute->handler->read(*file, size, offset);
  return 0;
}

int IOFileSystem::write(uint64_t handle, std::string_view data, uint64_t offset, size_t& written) {
  OpenFile* file = open_file(handle);
  if (!file) return EBADF;
  return file->attribute->handler->write(*file, data, offset, written);
}

int IOFileSystem::readdir(uint64_t handle, uint64_t offset, DirectoryFiller& filler) {
  OpenFile* dir = open_file(handle);
  if (!dir) return EBADF;
  dir->attribute->handler->list(*dir, offset, filler);
  return 0;
}

void IOFileSystem::release(uint64_t handle) {
  auto it = open_files_.find(handle);
  if (it == open_files_.end()) return;
  --it->second->attribute->opens;
  open_files_.erase(it);
}

void IOFileSystem::log_open_failure(std::string_view path, int flags, uint32_t file_type, int error) {
  // Double quotes and ampersands inside the path are escaped with an ampersand.
  std::string quoted = "\"";
  for (char c : path) {
    if (c == '"' || c == '&') quoted.push_back('&');
    quoted.push_back(c);
  }
  quoted.push_back('"');
  ZEL_ERROR("Failed to open {}", quoted);
  ZEL_ERROR("Subtype:{} File-Type:{}", flags, file_type);
  if (error == ENOSPC) ZEL_ERROR("There's insufficient memory to allocate the OCB.");
  else if (error == ENOMEM)
    ZEL_ERROR("There's insufficient memory to allocate an internal data structure required by resmgr_open_bind()");
  else ZEL_ERROR("{}", std::strerror(error));
}

// ---- IOServer --------------------------------------------------------------

IOServer::IOServer(const VTree& config) : CtxComp(config) {
  describe("IO Server", "The file IO driver for the system.", "database");
  set_default("hidden", true);
  std::string mount;
  if (config.get("mount", mount)) configured_mount_ = mount == "none" ? std::string() : mount;
  auto test_config = config.child_or_empty("json_test");
  auto& test = adopt(std::make_unique<SelfTest>(test_config, &IOServer::json_test));
  test.set_default("label", std::string("JSON Test"));
}

IOServer::~IOServer() { end_file_system(); }

std::string IOServer::mount_point() const { return configured_mount_ ? *configured_mount_ : Paths::io_mount(); }

void IOServer::start() {
  CtxComp::start();
  auto dir = mount_point();
  if (dir.empty()) return;
  Vertex* top = this;
  while (top->parent()) top = top->parent();
  files_ = std::make_unique<IOFileSystem>(*top);
  FuseMount::Failure failure = FuseMount::Failure::None;
  std::string reason;
  mount_ = FuseMount::mount(dir, *files_, failure, reason);
  if (!mount_) {
    if (failure == FuseMount::Failure::Session) ZEL_ERROR("Unable to allocate dispatch handle: {}", reason);
    else ZEL_ERROR("Unable to attach name {}: {}", dir, reason);
    files_.reset();
    return;
  }
  mounted_ = true;
  ZEL_INFO("Serving the tree's files at {}", dir);
  post([this] {
    if (mount_) mount_->serve_on(io());
  });
}

void IOServer::stop(StopStage stage) {
  if (stage == StopStage::Stop0 || stage == StopStage::Stop1) end_file_system();
  CtxComp::stop(stage);
}

void IOServer::end_file_system() {
  if (!mount_) return;
  auto end = [this] {
    if (!mount_->unmount()) ZEL_ERROR("Failed to detach resource manager");
    mount_.reset();
    files_.reset();
    mounted_ = false;
  };
  if (!running() || in_context()) {
    end();
    return;
  }
  // The serving objects belong to the context's thread: end them there.
  std::promise<void> ended;
  post([&] {
    struct Signal {
      std::promise<void>& promise;
      ~Signal() { promise.set_value(); }
    } signal{ended};
    end();
  });
  ended.get_future().wait();
}

// ---- Browser ---------------------------------------------------------------

Browser::Browser(const VTree& config) : Component(config) {
  describe("Browser", "Browse all the available controls in the system.", "cog");
  set_default("element", std::string("zel-browser"));
  set_default("style", std::string("height: 80vh; width: 90vw;"));
  set_default("hidden", true);
}

// The tree's files under a FUSE mount, side by side in one run with
//  (a) the smallest FUSE file system that serves one constant file of the same
//      size, the same way (names kept by the kernel, file attributes and
//      contents not: direct I/O): the limit of FUSE itself on this machine;
//  (b) the same file on tmpfs.
// Each iteration opens the file, reads it once and closes it. Also: listing a
// directory of 10,000 children.
#define FUSE_USE_VERSION 314
#include <dirent.h>
#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <sys/stat.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "core/io_server.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kValueText = "21.5";  // what x/value.json holds

std::string make_temp_dir(const fs::path& parent) {
  auto pattern = (parent / "zel-bench-XXXXXX").string();
  if (!mkdtemp(pattern.data())) return {};
  return pattern;
}

// A tree with the given children, its files mounted in a folder of its own.
class MountedTree {
 public:
  explicit MountedTree(const std::string& children) : dir_(make_temp_dir(fs::temp_directory_path())) {
    Log::set_level(LogLevel::Warning);
    fs::create_directory(mount());
    root_ = FormatXML::instance().build("<root><io_server mount=\"" + mount() + "\"/>" + children + "</root>");
    root_->initialize();
    ok_ = static_cast<IOServer&>(*root_->find_path("io_server")).mounted();
  }
  ~MountedTree() {
    root_.reset();
    fs::remove_all(dir_);
  }
  bool ok() const { return ok_; }
  std::string mount() const { return dir_ + "/io"; }

 private:
  std::string dir_;
  std::unique_ptr<Root> root_;
  bool ok_ = false;
};

// The smallest FUSE file system: a root directory holding "value.json" with
// kValueText, served by libfuse's own single-threaded loop.
class ConstantFileSystem {
 public:
  ConstantFileSystem() : dir_(make_temp_dir(fs::temp_directory_path())) {
    fuse_args args = FUSE_ARGS_INIT(0, nullptr);
    fuse_opt_add_arg(&args, "constant");
    se_ = fuse_session_new(&args, &kOperations, sizeof kOperations, nullptr);
    fuse_opt_free_args(&args);
    if (!se_ || fuse_session_mount(se_, dir_.c_str()) != 0) return;
    mounted_ = true;
    loop_ = std::thread([this] { fuse_session_loop(se_); });
  }
  ~ConstantFileSystem() {
    if (mounted_) {
      // The loop is not woken by fuse_session_exit alone: the unmount ends it.
      fuse_session_exit(se_);
      fuse_session_unmount(se_);
      loop_.join();
    }
    if (se_) fuse_session_destroy(se_);
    fs::remove_all(dir_);
  }
  bool ok() const { return mounted_; }
  std::string file() const { return dir_ + "/value.json"; }

 private:
  static constexpr fuse_ino_t kFileIno = 2;

  static struct stat attributes(fuse_ino_t ino) {
    struct stat st {};
    st.st_ino = ino;
    st.st_mode = ino == FUSE_ROOT_ID ? S_IFDIR | 0777 : S_IFREG | 0666;
    st.st_nlink = ino == FUSE_ROOT_ID ? 2 : 1;
    st.st_size = ino == FUSE_ROOT_ID ? 0 : static_cast<off_t>(kValueText.size());
    return st;
  }
  static double attribute_timeout(fuse_ino_t ino) { return ino == FUSE_ROOT_ID ? 86400 : 0; }

  static void lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    if (parent != FUSE_ROOT_ID || std::strcmp(name, "value.json") != 0) {
      fuse_reply_err(req, ENOENT);
      return;
    }
    fuse_entry_param entry{};
    entry.ino = kFileIno;
    entry.attr = attributes(kFileIno);
    entry.entry_timeout = 86400;
    entry.attr_timeout = attribute_timeout(kFileIno);
    fuse_reply_entry(req, &entry);
  }
  static void getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
    auto st = attributes(ino);
    fuse_reply_attr(req, &st, attribute_timeout(ino));
  }
  static void open(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    fi->direct_io = 1;
    fuse_reply_open(req, fi);
  }
  static void read(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info*) {
    auto at = std::min<size_t>(static_cast<size_t>(offset), kValueText.size());
    fuse_reply_buf(req, kValueText.data() + at, std::min(size, kValueText.size() - at));
  }
  static void release(fuse_req_t req, fuse_ino_t, fuse_file_info*) { fuse_reply_err(req, 0); }

  static constexpr fuse_lowlevel_ops kOperations = [] {
    fuse_lowlevel_ops ops{};
    ops.lookup = lookup;
    ops.getattr = getattr;
    ops.open = open;
    ops.read = read;
    ops.release = release;
    return ops;
  }();

  std::string dir_;
  fuse_session* se_ = nullptr;
  bool mounted_ = false;
  std::thread loop_;
};

void open_read_close(benchmark::State& state, const std::string& path) {
  char buffer[256];
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_RDONLY);
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (n != static_cast<ssize_t>(kValueText.size())) {
      state.SkipWithError(("read of " + path + " failed").c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_FieldFileOpenReadClose(benchmark::State& state) {
  MountedTree tree(R"(<x type="analog_io" value="21.5"/>)");
  if (!tree.ok()) return state.SkipWithError("no FUSE mount possible");
  open_read_close(state, tree.mount() + "/x/value.json");
}
BENCHMARK(BM_FieldFileOpenReadClose)->MeasureProcessCPUTime()->UseRealTime();

void BM_ConstantFuseFileOpenReadClose(benchmark::State& state) {
  ConstantFileSystem constant;
  if (!constant.ok()) return state.SkipWithError("no FUSE mount possible");
  open_read_close(state, constant.file());
}
BENCHMARK(BM_ConstantFuseFileOpenReadClose)->MeasureProcessCPUTime()->UseRealTime();

void BM_TmpfsFileOpenReadClose(benchmark::State& state) {
  auto dir = make_temp_dir("/dev/shm");
  if (dir.empty()) return state.SkipWithError("no tmpfs at /dev/shm");
  std::ofstream(dir + "/value.json") << kValueText;
  open_read_close(state, dir + "/value.json");
  fs::remove_all(dir);
}
BENCHMARK(BM_TmpfsFileOpenReadClose)->MeasureProcessCPUTime()->UseRealTime();

void BM_ListDirectoryOf10000Children(benchmark::State& state) {
  std::string children = R"(<big type="component">)";
  for (int i = 0; i < 10000; ++i) children += "<c" + std::to_string(i) + R"( type="digital_io"/>)";
  children += "</big>";
  MountedTree tree(children);
  if (!tree.ok()) return state.SkipWithError("no FUSE mount possible");
  const std::string dir = tree.mount() + "/big";
  for (auto _ : state) {
    size_t entries = 0;
    DIR* d = opendir(dir.c_str());
    while (readdir(d)) ++entries;
    closedir(d);
    if (entries != 10001) {
      state.SkipWithError("listing incomplete");
      break;
    }
  }
}
BENCHMARK(BM_ListDirectoryOf10000Children)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

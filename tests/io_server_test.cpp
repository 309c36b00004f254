// The tree as files: a real kernel FUSE mount in a folder of the test's own,
// read and written with POSIX calls, shell tools and other processes.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <thread>

#include "core/api/dir_api.hpp"
#include "core/api/json_api.hpp"
#include "core/io/io.hpp"
#include "core/io_server.hpp"
#include "core/pulse.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "wait_until.hpp"
#include "zel_process.hpp"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A folder of the test's own with an empty "io" folder in it.
class Workspace : public TempDir {
 public:
  Workspace() { fs::create_directory(mount()); }
  ~Workspace() { umount2(mount().c_str(), MNT_DETACH); }  // only if a failed test left it mounted
  std::string mount() const { return *this / "io"; }
};

bool is_mount_point(const std::string& dir) {
  struct statfs fs {};
  if (statfs(dir.c_str(), &fs) != 0) return errno == ENOTCONN;  // a dead file system is still mounted
  struct stat here {}, parent {};
  if (stat(dir.c_str(), &here) != 0) return errno == ENOTCONN;
  if (stat((dir + "/..").c_str(), &parent) != 0) return false;
  return here.st_dev != parent.st_dev;
}

struct ReadResult {
  int error = 0;
  std::string text;
};

ReadResult read_whole(const std::string& path) {
  ReadResult result;
  int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return {errno, {}};
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0) result.text.append(buffer, static_cast<size_t>(n));
  if (n < 0) result.error = errno;
  ::close(fd);
  return result;
}

// The count written, or minus the errno.
ssize_t write_whole(const std::string& path, std::string_view text) {
  int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC);
  if (fd < 0) return -errno;
  ssize_t n = ::write(fd, text.data(), text.size());
  if (n < 0) n = -errno;
  ::close(fd);
  return n;
}

// A shell command's standard output and exit status.
std::pair<std::string, int> shell(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return {"", -1};
  std::array<char, 4096> buffer;
  size_t n;
  while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) out.append(buffer.data(), n);
  return {out, pclose(pipe)};
}

// The names a listing must show: index.json, then the children in order.
std::string expected_listing(const Vertex& vertex) {
  std::string out = "index.json\n";
  for (auto& c : vertex.children()) out += c->name() + (c->is_field() ? ".json\n" : "\n");
  return out;
}

// Returns once every job posted to `context` before has run.
void drain(Context& context) {
  std::promise<void> done;
  context.post([&] { done.set_value(); });
  done.get_future().wait();
}

std::vector<std::string> lines_from(const LogCapture& log, std::string_view source) {
  std::vector<std::string> out;
  for (auto& e : log.entries())
    if (e.source == source) out.push_back(e.text);
  return out;
}

class IOFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access("/dev/fuse", R_OK | W_OK) != 0)
      GTEST_SKIP() << "no FUSE mount possible, /dev/fuse: " << std::strerror(errno);
  }

  void TearDown() override {
    if (!root_) return;
    root_.reset();
    EXPECT_FALSE(is_mount_point(work_.mount())) << "mount left behind at " << work_.mount();
  }

  void serve(const std::string& children) {
    root_ = FormatXML::instance().build("<root><io_server mount=\"" + work_.mount() + "\"/>" + children + "</root>");
    ASSERT_TRUE(root_);
    root_->initialize();
    ASSERT_TRUE(server().mounted());
  }

  IOServer& server() const { return static_cast<IOServer&>(*root_->find_path("io_server")); }
  template <class T>
  T& node(std::string_view path) const {
    return dynamic_cast<T&>(*root_->find_path(path));
  }
  std::string file(const std::string& relative) const { return work_.mount() + "/" + relative; }

  Workspace work_;
  std::unique_ptr<Root> root_;
};

TEST_F(IOFiles, VertexReadsAlikeBesideAndInsideItsDirectory) {
  serve(R"(<x type="analog_io" value="21.5"/>)");
  EXPECT_EQ(read_whole(file("x.json")).text, R"({"value":21.5})");
  EXPECT_EQ(read_whole(file("x/index.json")).text, R"({"value":21.5})");
  EXPECT_EQ(shell("cat " + file("x.json")).first, R"({"value":21.5})");
  EXPECT_EQ(read_whole(file("x/value.json")).text, "21.5");
  EXPECT_EQ(read_whole(file("index.json")).text, root_->json());
  // A stem "index" names the directory it is in.
  EXPECT_EQ(shell("ls -U " + file("x/index")).first, expected_listing(*root_->find_path("x")));
}

TEST_F(IOFiles, ListingGivesIndexFirstThenChildrenInChildOrderWithTheirModes) {
  serve(R"(<g type="component" label="Group"><b type="digital_io"/><a type="analog_io"/></g>)");
  auto listing = shell("ls -U " + file("g")).first;
  EXPECT_EQ(listing, expected_listing(*root_->find_path("g")));
  EXPECT_TRUE(listing.starts_with("index.json\nlabel.json\n")) << listing;
  EXPECT_NE(listing.find("\nb\na\n"), std::string::npos) << listing;
  EXPECT_EQ(shell("ls -U " + file("")).first, expected_listing(*root_));
  // A vertex without children lists only its index (a field as a directory).
  EXPECT_EQ(shell("ls -U " + file("g/b/value")).first, "index.json\n");

  std::map<std::string, unsigned char> types;
  DIR* dir = opendir(file("g").c_str());
  ASSERT_NE(dir, nullptr);
  while (auto* entry = readdir(dir)) types[entry->d_name] = entry->d_type;
  closedir(dir);
  EXPECT_EQ(types["b"], DT_DIR);
  EXPECT_EQ(types["label.json"], DT_REG);

  auto mode = [&](const std::string& relative) {
    struct stat st {};
    EXPECT_EQ(stat(file(relative).c_str(), &st), 0) << relative;
    return st.st_mode;
  };
  EXPECT_EQ(mode(""), S_IFDIR | 0777u);
  EXPECT_EQ(mode("g"), S_IFDIR | 0755u);
  EXPECT_EQ(mode("g/label.json"), S_IFREG | 0444u);  // an attribute describes, it is not set
  EXPECT_EQ(mode("g.json"), S_IFREG | 0644u);
  EXPECT_EQ(mode("pulse/count.json"), S_IFREG | 0444u);  // a read-only field
}

// Run as root the mount is open to every local account; the kernel holds the
// others to the modes, so they read the tree and change nothing.
TEST_F(IOFiles, OtherLocalAccountsReadButNeverWrite) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to mount for others and to become another account";
  serve(R"(<x type="analog_io" value="1"/>)");
  std::filesystem::permissions(std::filesystem::path(work_.mount()).parent_path(),
                               std::filesystem::perms::owner_all | std::filesystem::perms::group_exec |
                                   std::filesystem::perms::others_exec);
  auto as_nobody = [&](int flags) {
    pid_t child = fork();
    if (child == 0) {
      if (setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
      int fd = ::open(file("x/value.json").c_str(), flags);
      _exit(fd >= 0 ? 0 : errno);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  EXPECT_EQ(as_nobody(O_RDONLY), 0);
  EXPECT_EQ(as_nobody(O_WRONLY), EACCES);
  EXPECT_EQ(node<AnalogIO>("x").get(), 1.0);
}

TEST_F(IOFiles, UnknownExtensionIsRefusedSilentlyAndAMissingVertexIsLoggedTwice) {
  serve(R"(<x type="analog_io"/>)");
  LogCapture log;
  EXPECT_EQ(read_whole(file("x.txt")).error, EACCES);
  EXPECT_EQ(read_whole(file("x/value.csv")).error, EACCES);
  EXPECT_TRUE(lines_from(log, "src/core/io_server").empty());

  EXPECT_EQ(read_whole(file("nonexistent.json")).error, EACCES);
  EXPECT_EQ(read_whole(file("x/missing/index.json")).error, EACCES);
  EXPECT_EQ(lines_from(log, "src/core/io_server"), (std::vector<std::string>{
                                                       "Error: Vertex not found /nonexistent",
                                                       "Error: Uknown file IO error occurred!",
                                                       "Error: Vertex not found /x/missing",
                                                       "Error: Uknown file IO error occurred!",
                                                   }));
}

TEST_F(IOFiles, AnOpenShowsTheValueAsItWasWhenOpened) {
  serve(R"(<s type="string_io" value="short"/>)");
  auto& s = node<StringIO>("s");
  int fd = ::open(file("s/value.json").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  char head[2];
  ASSERT_EQ(::read(fd, head, 2), 2);
  s.set("a much longer value");
  // The kernel asks sizes without the open's handle: they are the present
  // value's, by path and by descriptor alike, whatever an open holds.
  struct stat st {};
  ASSERT_EQ(stat(file("s/value.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 21);
  char rest[64];
  ssize_t n = ::read(fd, rest, sizeof rest);
  ASSERT_GE(n, 0);
  EXPECT_EQ(std::string(head, 2) + std::string(rest, static_cast<size_t>(n)), "\"short\"");
  ::close(fd);

  EXPECT_EQ(read_whole(file("s/value.json")).text, "\"a much longer value\"");
  ASSERT_EQ(stat(file("s/value.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 21);
}

TEST_F(IOFiles, EachWriteIsTheWholeNewValueAndCountsEveryByte) {
  serve(R"(<d type="digital_io"/><x type="analog_io" value="1"/>)");
  auto& d = node<DigitalIO>("d");
  auto& x = node<AnalogIO>("x");

  EXPECT_EQ(write_whole(file("d/value.json"), "1\n"), 2);
  EXPECT_TRUE(d.get());
  EXPECT_EQ(write_whole(file("d/value.json"), " 0 \r \n"), 6);
  EXPECT_FALSE(d.get());
  EXPECT_EQ(shell("echo 4.5 > " + file("x/value.json")).second, 0);
  EXPECT_EQ(x.get(), 4.5);
  EXPECT_EQ(write_whole(file("x.json"), R"({"value":7})"), 11);
  EXPECT_EQ(x.get(), 7.0);

  // Two writes through one open: each is a value of its own, at any offset.
  // (Only a value of 128 KiB or more, refused, has its further pieces refused.)
  int fd = ::open(file("x/value.json").c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(::write(fd, "12", 2), 2);
  EXPECT_EQ(::write(fd, "3", 1), 1);
  EXPECT_EQ(x.get(), 3.0);

  LogCapture log;
  // A value the field rejects fails the write; the field keeps its value.
  EXPECT_EQ(::write(fd, "abc", 3), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(x.get(), 3.0);
  EXPECT_TRUE(log.contains("'abc' is not a double"));
  ::close(fd);

  EXPECT_EQ(write_whole(file("pulse/count.json"), "99"), -EACCES);
  EXPECT_NE(shell("echo 99 > " + file("pulse/count.json") + " 2>/dev/null").second, 0);
  EXPECT_EQ(node<Pulse>("pulse").count().get(), 0u);
}

TEST_F(IOFiles, TheServerContextRunsItsOtherJobsWhileServing) {
  serve("");
  auto& test = node<SelfTest>("io_server/json_test");
  auto& button = static_cast<ButtonField&>(*test.child("run_button"));
  button.press();  // from this thread: posted to the serving context
  EXPECT_TRUE(wait_until([&] { return test.passed().assigned(); }));
  EXPECT_TRUE(test.passed().get());

  EXPECT_EQ(write_whole(file("io_server/json_test/run_button.json"), "true"), 4);
  EXPECT_EQ(button.presses(), 2u);
  EXPECT_EQ(read_whole(file("io_server/json_test/result.json")).text, "\"Passed\"");
}

TEST_F(IOFiles, NamesTooLongForTheKernelEndTheListingWithALogLine) {
  std::string long_name(DirAPI::kMaxNameLength, 'n');
  serve(R"(<g type="component"><first type="digital_io"/><)" + long_name +
        R"( type="digital_io"/><after type="digital_io"/></g>)");
  LogCapture log;
  EXPECT_EQ(shell("ls -U " + file("g")).first, "index.json\nfirst\n");
  auto lines = lines_from(log, "include/core/api/dir_api");
  ASSERT_FALSE(lines.empty());
  for (auto& line : lines) EXPECT_EQ(line, "Error: Filename too long " + long_name);
}

// Readers in child processes check every read against the values the tree
// may hold; a torn or mixed text, a failed read or a hang fails them.
TEST_F(IOFiles, ReadersInOtherProcessesSeeWholeValuesWhileTheTreeChangesThem) {
  serve(R"(<s type="string_io" value="x"/>)");
  auto& s = node<StringIO>("s");
  const std::vector<std::string> values = {"x", std::string(300, 'y'), std::string(6000, 'z')};
  std::vector<std::string> texts;
  for (auto& v : values) texts.push_back(x2x::to_json(v));
  std::atomic<size_t> next{0};
  auto changer = root_->async().every(100us, [&] { s.set(values[next++ % values.size()]); });

  const std::string path = file("s/value.json");
  constexpr int kReaders = 4, kReadsEach = 300;
  std::vector<pid_t> readers;
  for (int r = 0; r < kReaders; ++r) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      // Only async-signal-safe calls here: the parent has threads.
      alarm(60);
      static char buffer[16384];
      for (int i = 0; i < kReadsEach; ++i) {
        int fd = ::open(path.c_str(), O_RDONLY);
        if (fd < 0) _exit(2);
        size_t length = 0;
        ssize_t n;
        while ((n = ::read(fd, buffer + length, sizeof buffer - length)) > 0) length += static_cast<size_t>(n);
        ::close(fd);
        if (n < 0) _exit(3);
        bool whole = false;
        for (auto& t : texts) whole = whole || (t.size() == length && std::memcmp(t.data(), buffer, length) == 0);
        if (!whole) _exit(4);
      }
      _exit(0);
    }
    readers.push_back(pid);
  }
  for (pid_t pid : readers) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "reader " << pid << (WIFEXITED(status) ? " exit " : " signal ")
        << (WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
  }
  root_->async().cancel(changer);
  drain(root_->async());
  EXPECT_GT(next, 10u);
  EXPECT_TRUE(server().mounted());
}

TEST_F(IOFiles, StopReturnsAndUnmountsWhileAClientHoldsAFileOpen) {
  serve(R"(<x type="analog_io" value="2"/>)");
  int fd = ::open(file("x/value.json").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  auto stopping = std::async(std::launch::async, [&] { root_->stop_all(); });
  ASSERT_EQ(stopping.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(server().mounted());
  EXPECT_FALSE(is_mount_point(work_.mount()));
  char c;
  EXPECT_EQ(::read(fd, &c, 1), -1);  // the file system is gone
  ::close(fd);
}

// ---- the program, and mounts that cannot be made --------------------------

TEST(IOServerMount, TheProgramUnmountsWhenTerminatedAndAMountLeftByAKilledOneIsDetachedBeforeMountingAgain) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE mount possible, /dev/fuse: " << std::strerror(errno);
  Workspace work;
  for (int signal : {SIGTERM, SIGKILL}) {
    ZelProcess zel(ZEL_BINARY, ZelProcess::arguments_for(work, work.mount()));
    ASSERT_TRUE(wait_until([&] { return is_mount_point(work.mount()); })) << "the program never mounted";
    EXPECT_EQ(read_whole(work.mount() + "/pulse/rate.json").error, 0);
    zel.signal(signal);
    auto status = zel.wait_exit(10s);
    ASSERT_TRUE(status) << "the program did not stop";
    if (signal == SIGTERM) {
      EXPECT_EQ(ZelProcess::exit_code(status), 0);
      EXPECT_FALSE(is_mount_point(work.mount()));
    }
  }
  struct statfs st {};
  ASSERT_EQ(statfs(work.mount().c_str(), &st), -1);
  ASSERT_EQ(errno, ENOTCONN);

  auto root = FormatXML::instance().build("<root><io_server mount=\"" + work.mount() + "\"/></root>");
  root->initialize();
  EXPECT_TRUE(static_cast<IOServer&>(*root->find_path("io_server")).mounted());
  EXPECT_EQ(read_whole(work.mount() + "/index.json").text, root->json());
  root.reset();
  EXPECT_FALSE(is_mount_point(work.mount()));
}

TEST(IOServerMount, AFailedMountIsLoggedAndTheSystemRunsOn) {
  Workspace work;
  std::string missing = work / "missing";
  LogCapture log;
  auto root = FormatXML::instance().build("<root><io_server mount=\"" + missing + "\"/></root>");
  root->initialize();
  auto& server = static_cast<IOServer&>(*root->find_path("io_server"));
  EXPECT_FALSE(server.mounted());
  EXPECT_EQ(lines_from(log, "src/core/io_server"),
            std::vector<std::string>{"Error: Unable to attach name " + missing + ": No such file or directory"});
  std::promise<void> ran;
  server.post([&] { ran.set_value(); });
  EXPECT_EQ(ran.get_future().wait_for(5s), std::future_status::ready);
  auto stopping = std::async(std::launch::async, [&] { root->stop_all(); });
  EXPECT_EQ(stopping.wait_for(10s), std::future_status::ready);
}

TEST(IOServerMount, NoMountPointMeansNoFiles) {
  LogCapture log;
  auto root = FormatXML::instance().build(R"(<root><io_server mount="none"/></root>)");
  root->initialize();
  auto& server = static_cast<IOServer&>(*root->find_path("io_server"));
  EXPECT_EQ(server.mount_point(), "");
  EXPECT_FALSE(server.mounted());
  EXPECT_TRUE(lines_from(log, "src/core/io_server").empty());
}

// ---- resolution and logging without a mount --------------------------------

TEST(IOFileSystem, AHandlerMissingFromTheRegistryIsLoggedAndRefused) {
  auto root = FormatXML::instance().build(R"(<root><x type="analog_io"/></root>)");
  FileAPIRegistry registry{{"", nullptr}, {".json", std::make_shared<JSONAPI>()}};
  IOFileSystem files(*root, registry);
  LogCapture log;
  FileStat st;
  EXPECT_EQ(files.lookup(FileSystemHandler::kRootIno, "x", st), EACCES);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Error: File API object somehow deallocated?!"});
  EXPECT_EQ(files.lookup(FileSystemHandler::kRootIno, "x.json", st), 0);
  EXPECT_EQ(st.mode, S_IFREG | 0644u);
}

// The kernel does not pass empty writes on; the server ignores them too (the
// field would log the empty text as a value it cannot convert).
TEST(IOFileSystem, AnEmptyWriteChangesNothing) {
  auto root = FormatXML::instance().build(R"(<root><x type="analog_io" value="1"/></root>)");
  IOFileSystem files(*root);
  FileStat dir, value;
  ASSERT_EQ(files.lookup(FileSystemHandler::kRootIno, "x", dir), 0);
  ASSERT_EQ(files.lookup(dir.ino, "value.json", value), 0);
  uint64_t handle = 0;
  ASSERT_EQ(files.open(value.ino, O_WRONLY, handle), 0);
  LogCapture log;
  size_t written = 99;
  EXPECT_EQ(files.write(handle, "", 0, written), 0);
  EXPECT_EQ(written, 0u);
  EXPECT_TRUE(log.entries().empty());
  EXPECT_EQ(files.write(handle, "2", 0, written), 0);
  EXPECT_EQ(written, 1u);
  EXPECT_EQ(static_cast<AnalogIO*>(root->find_path("x"))->get(), 2.0);
  files.release(handle);
}

TEST(IOFileSystem, AFailedOpenLogsTheEscapedPathItsKindAndTheCause) {
  LogCapture log;
  IOFileSystem::log_open_failure(R"(/a"b&c.json)", O_WRONLY, S_IFREG, ENOSPC);
  IOFileSystem::log_open_failure("/d", O_RDONLY, S_IFDIR, ENOMEM);
  IOFileSystem::log_open_failure("/e.json", O_RDONLY, S_IFREG, EIO);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{
                R"(Error: Failed to open "/a&"b&&c.json")",
                "Error: Subtype:1 File-Type:32768",
                "Error: There's insufficient memory to allocate the OCB.",
                R"(Error: Failed to open "/d")",
                "Error: Subtype:0 File-Type:16384",
                "Error: There's insufficient memory to allocate an internal data structure required by "
                "resmgr_open_bind()",
                R"(Error: Failed to open "/e.json")",
                "Error: Subtype:0 File-Type:32768",
                std::string("Error: ") + std::strerror(EIO),
            }));
  for (auto& e : log.entries()) EXPECT_EQ(e.source, "src/core/io_server");
}

}  // namespace

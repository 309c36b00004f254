// The application's lifecycle, black-box: the real program as a child process
// in a temporary folder (its working directory and data root), driven by
// signals, by its program file and by self-test nodes that act on request
// files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>

#include "std/capabilities.hpp"
#include "emulation.hpp"
#include "web_client.hpp"
#include "zel_process.hpp"

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// A restart execs the program's own image again; the kernel starts an ARM
// image only through a binfmt_misc entry for qemu, which a build machine need
// not have.
constexpr const char* kRestartNeedsBinfmt = "a restart execs the ARM program itself, which needs binfmt_misc";

const std::string kProgram = ZEL_BINARY;

int exit_code(std::optional<int> status) { return ZelProcess::exit_code(status); }

// The program copied into the folder, so that the test may replace it.
std::string copy_program(const TempDir& dir, const std::string& name = "zel") {
  std::filesystem::copy_file(kProgram, dir / name, std::filesystem::copy_options::overwrite_existing);
  return dir / name;
}

void touch(const std::string& file) { std::ofstream(file) << "1"; }

ino_t inode_of(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

std::vector<std::string> command_line_of(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
  std::vector<std::string> words;
  for (std::string word; std::getline(file, word, '\0');) words.push_back(word);
  return words;
}

// A configuration for the working directory's default place.
void configure(const TempDir& dir, const std::string& children) {
  dir.write("config/system.xml", "<root>" + children + "</root>");
}

std::string press_on_request(const TempDir& dir, const std::string& name, const std::string& button) {
  return "<" + name + R"( type="press_on_request" request_file=")" + (dir / name) + R"(" button=")" + button + R"("/>)";
}

// A reboot command that tells when it has run, slowly.
std::string harmless_reboot(const TempDir& dir, double seconds = 0) {
  dir.write("reboot.sh", "#!/bin/sh\nsleep " + std::to_string(seconds) + "\necho REBOOTED >&2\ntouch " +
                             (dir / "rebooted") + "\n");
  std::filesystem::permissions(dir / "reboot.sh", std::filesystem::perms::owner_all);
  return dir / "reboot.sh";
}

// A terminated instance stops in order and exits 0.
void expect_plain_stop(ZelProcess& zel) {
  zel.signal(SIGTERM);
  EXPECT_EQ(exit_code(zel.wait_exit(10s)), 0);
}

std::vector<std::string> with(std::vector<std::string> arguments, std::initializer_list<std::string> more) {
  arguments.insert(arguments.end(), more);
  return arguments;
}

}  // namespace

TEST(ApplicationStart, HelpPrintsTheOptionsAndExitsOneTouchingNothing) {
  for (const char* help : {"--help", "-h"}) {
    TempDir dir;
    ZelProcess zel(kProgram, with(ZelProcess::arguments_for(dir), {help}));
    EXPECT_EQ(exit_code(zel.wait_exit(10s)), 1) << help;
    auto out = zel.output_text();
    for (const char* text : {"Allowed options", "Print this help message", "Working directory",
                             "Configuration file", "config/system.xml"})
      EXPECT_THAT(out, HasSubstr(text)) << help;
    EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << help << ": no pid file, nothing else";
  }
}

TEST(ApplicationStart, NoConfigurationGivesAnEmptyRootAndAStalePidFileIsOverwrittenWithoutKill) {
  TempDir dir;
  pid_t gone = ::fork();
  if (gone == 0) ::_exit(0);
  ::waitpid(gone, nullptr, 0);
  dir.write("zel.pid", std::to_string(gone));

  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  EXPECT_THAT(zel.error_text(), HasSubstr("PID:" + std::to_string(zel.pid())));
  EXPECT_EQ(dir.read("zel.pid"), std::to_string(zel.pid()));
  EXPECT_THAT(zel.output_text(), Not(HasSubstr("already running")));
  expect_plain_stop(zel);
  EXPECT_THAT(zel.error_text(), HasSubstr("\rZEL INTERUPTED (15)\n"));
}

TEST(ApplicationStart, AnOlderInstanceInThePidFileIsKilledAndReplaced) {
  ZEL_SKIP_UNDER_EMULATION("an emulated program's process runs the emulator, so it is not known as this program");
  TempDir dir;
  ZelProcess older(kProgram, ZelProcess::arguments_for(dir));
  ASSERT_TRUE(older.wait_for("Initialized"));
  ASSERT_EQ(dir.read("zel.pid"), std::to_string(older.pid()));

  ZelProcess newer(kProgram, ZelProcess::arguments_for(dir));
  EXPECT_EQ(exit_code(older.wait_exit(10s)), 0);
  EXPECT_THAT(older.error_text(), HasSubstr("ZEL INTERUPTED (15)"));
  ASSERT_TRUE(newer.wait_for("Initialized"));
  EXPECT_EQ(newer.output_text(), "ZEL already running, killing existing process\n");
  EXPECT_EQ(dir.read("zel.pid"), std::to_string(newer.pid()));
}

TEST(ApplicationStart, APidFileNamingAnotherProgramOrPlantedAsALinkEndsNothingAndIsReplaced) {
  TempDir dir;
  pid_t unrelated = ::fork();
  if (unrelated == 0) {
    ::pause();
    ::_exit(0);
  }
  dir.write("zel.pid", std::to_string(unrelated));
  {
    ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
    ASSERT_TRUE(zel.wait_for("Initialized"));
    EXPECT_THAT(zel.error_text(), HasSubstr("names process " + std::to_string(unrelated) + " ("));
    EXPECT_THAT(zel.error_text(), HasSubstr("which is not this program: left alone"));
    EXPECT_THAT(zel.output_text(), Not(HasSubstr("already running")));
    EXPECT_EQ(::waitpid(unrelated, nullptr, WNOHANG), 0) << "the unrelated process still runs";
    EXPECT_EQ(dir.read("zel.pid"), std::to_string(zel.pid()));
    zel.signal(SIGTERM);
    EXPECT_EQ(exit_code(zel.wait_exit(10s)), 0);
  }
  // A link planted in the pid file's place is neither believed nor written through.
  dir.write("victim", std::to_string(unrelated));
  std::filesystem::remove(dir / "zel.pid");
  std::filesystem::create_symlink(dir / "victim", dir / "zel.pid");
  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  EXPECT_THAT(zel.error_text(), HasSubstr("is not trusted"));
  EXPECT_EQ(dir.read("victim"), std::to_string(unrelated));
  EXPECT_FALSE(std::filesystem::is_symlink(dir / "zel.pid"));
  EXPECT_EQ(dir.read("zel.pid"), std::to_string(zel.pid()));
  struct stat info {};
  ASSERT_EQ(::stat((dir / "zel.pid").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u) << "no one else may write it";
  EXPECT_EQ(::waitpid(unrelated, nullptr, WNOHANG), 0);
  ::kill(unrelated, SIGKILL);
  ::waitpid(unrelated, nullptr, 0);
}

// Bad built-in settings keeping their defaults: Root.BuiltInNodesKeepTheirDefaultForABadSetting...
TEST(ApplicationStart, StoreFilesThatAreNoRegularFileOrHugeStillLetTheInstrumentStart) {
  TempDir dir;
  std::filesystem::create_directories(dir / "config");
  ASSERT_EQ(::mkfifo((dir / "config/config.json").c_str(), 0644), 0);
  std::filesystem::create_symlink("/dev/zero", dir / "config/calibration.json");
  dir.write("config/admin.json", "{}");
  std::filesystem::resize_file(dir / "config/admin.json", 17u << 20);  // sparse: 17 MiB of nothing
  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
  ASSERT_TRUE(zel.wait_for("Initialized")) << zel.error_text();
  EXPECT_THAT(zel.error_text(), HasSubstr("config.json' is not a regular file"));
  EXPECT_THAT(zel.error_text(), HasSubstr("calibration.json' is not a regular file"));
  EXPECT_THAT(zel.error_text(), HasSubstr("admin.json' holds more than 16777216 bytes"));
  expect_plain_stop(zel);
}

TEST(ApplicationStart, MalformedConfigurationLogsTheParseFaultAndRootFailsToConstruct) {
  TempDir dir;
  dir.write("config/system.xml", "<root>\n  <a type=\"component\">\n  </b>\n</root>\n");
  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
  EXPECT_EQ(exit_code(zel.wait_exit(10s)), 255);
  auto err = zel.error_text();
  EXPECT_THAT(err, HasSubstr("error src/formats/format_xml:"));
  EXPECT_THAT(err, ::testing::ContainsRegex("Error: XML parse [^\n]+ line:[0-9]+ '  </b>'"));
  EXPECT_THAT(err, HasSubstr("Root failed to construct\n"));
  EXPECT_THAT(err, Not(HasSubstr("Initialized")));
}

TEST(ApplicationStart, ATakenWebPortIsAStartFailureNamingThePort) {
  // The port is held by a listening socket of this test.
  int holder = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(holder, 1), 0);
  socklen_t length = sizeof address;
  ::getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length);
  auto port = std::to_string(ntohs(address.sin_port));
  TempDir dir;
  dir.write("config/system.xml", R"(<root><web_server type="web_server" address="127.0.0.1"/></root>)");
  auto arguments = ZelProcess::arguments_for(dir);
  arguments.back() = port;
  ZelProcess zel(kProgram, arguments);
  EXPECT_EQ(exit_code(zel.wait_exit(10s)), 1);
  EXPECT_THAT(zel.error_text(), HasSubstr("Web server cannot listen on port " + port + " (bind: "));
  ::close(holder);
}

TEST(ApplicationSignals, SigpipeIsIgnoredAndEachInterruptionEndsInAPlainExit) {
  for (int signal : {SIGINT, SIGQUIT, SIGABRT, SIGTERM}) {
    TempDir dir;
    ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
    ASSERT_TRUE(zel.wait_for("Initialized"));
    zel.signal(SIGPIPE);
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(zel.running()) << "SIGPIPE";
    zel.signal(signal);
    EXPECT_EQ(exit_code(zel.wait_exit(10s)), 0) << signal;
    auto err = zel.error_text();
    EXPECT_THAT(err, HasSubstr("\rZEL INTERUPTED (" + std::to_string(signal) + ")\n"));
    EXPECT_THAT(err, HasSubstr("Clean Shutdown"));
    EXPECT_EQ(zel.count("Initialized"), 1) << "no restart after " << signal;
    EXPECT_THAT(err, Not(HasSubstr("(13)")));
  }
}

TEST(ApplicationSignals, ASecondInterruptDuringASlowShutdownExitsOneAtOnce) {
  TempDir dir;
  configure(dir, R"(<slow type="hang_on_destroy" hang_seconds="30"/>)");
  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  zel.signal(SIGINT);
  ASSERT_TRUE(zel.wait_for("Hanging on destroy"));
  zel.signal(SIGINT);
  EXPECT_EQ(exit_code(zel.wait_exit(2s)), 1);
  EXPECT_EQ(zel.count("\rZEL INTERUPTED (2)\n"), 2);
}

TEST(ApplicationRestart, FaultSignalsRestartInPlaceWithTheSamePidAndArguments) {
  ZEL_SKIP_UNDER_EMULATION(kRestartNeedsBinfmt);
  TempDir dir;
  auto arguments = ZelProcess::arguments_for(dir);
  ZelProcess::Options options;
  options.own_pid_file = dir / "zel.pid";
  ZelProcess zel(kProgram, arguments, options);
  ASSERT_TRUE(zel.wait_for("Initialized"));
  auto command_line = command_line_of(zel.pid());
  ASSERT_FALSE(command_line.empty());
  ASSERT_EQ(std::vector<std::string>(command_line.begin() + 1, command_line.end()), arguments);

  const int faults[] = {SIGSEGV, SIGILL, SIGBUS, SIGFPE};
  int starts = 1;
  for (int fault : faults) {
    zel.signal(fault);
    ASSERT_TRUE(zel.wait_for("Initialized", ++starts)) << fault;
    EXPECT_THAT(zel.error_text(), HasSubstr("\rZEL FAULTED (" + std::to_string(fault) + ")\n"));
  }
  EXPECT_TRUE(zel.running()) << "the same process, not a new one";
  EXPECT_EQ(command_line_of(zel.pid()), command_line);
  EXPECT_EQ(zel.count("PID:" + std::to_string(zel.pid())), starts);
  EXPECT_EQ(zel.count("Clean Shutdown"), starts - 1);
  EXPECT_THAT(zel.output_text(), Not(HasSubstr("already running"))) << "the own pid in the pid file kills nothing";

  expect_plain_stop(zel);
}

TEST(ApplicationRestart, AGenuineCrashOrStackOverflowInTheTreeRestartsInPlaceAndServesTheTreesFilesAgain) {
  ZEL_SKIP_UNDER_EMULATION(kRestartNeedsBinfmt);
  TempDir dir;
  configure(dir, R"(<crash type="crash_on_request" request_file=")" + (dir / "crash") + R"("/>)" +
                     R"(<overflow type="crash_on_request" fault="stack" request_file=")" + (dir / "overflow") + R"("/>)");
  std::filesystem::create_directory(dir / "io");
  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir, dir / "io"));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  ASSERT_TRUE(std::filesystem::exists(dir / "io/crash"));

  touch(dir / "crash");
  ASSERT_TRUE(zel.wait_for("Initialized", 2)) << zel.error_text();
  EXPECT_TRUE(zel.running());
  auto err = zel.error_text();
  EXPECT_LT(err.find("Crashing on request"), err.find("\rZEL FAULTED (11)\n"));
  EXPECT_EQ(zel.count("PID:" + std::to_string(zel.pid())), 2);
  EXPECT_TRUE(std::filesystem::exists(dir / "io/crash")) << "the mount the crash left behind was replaced";

  // A runaway recursion: the handler runs on the thread's alternate stack.
  touch(dir / "overflow");
  ASSERT_TRUE(zel.wait_for("Initialized", 3)) << zel.error_text();
  EXPECT_EQ(zel.count("\rZEL FAULTED (11)\n"), 2);
  EXPECT_TRUE(zel.running());

  expect_plain_stop(zel);
  EXPECT_FALSE(std::filesystem::exists(dir / "io/crash")) << "unmounted at the end";
}

TEST(ApplicationSignals, AHangUpSavesTheStoresAndReloadsInPlace) {
  ZEL_SKIP_UNDER_EMULATION(kRestartNeedsBinfmt);
  TempDir dir;
  configure(dir, R"(<admin><store_manager save_delay="0"/></admin><churn type="store_exerciser" store="config"/>)");
  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  std::this_thread::sleep_for(100ms);
  ASSERT_FALSE(std::filesystem::exists(dir / "config/config.json")) << "no save before the hang-up";
  zel.signal(SIGHUP);
  ASSERT_TRUE(zel.wait_for("Initialized", 2));
  EXPECT_TRUE(zel.running());
  EXPECT_THAT(zel.error_text(), HasSubstr("\rZEL RELOADING (1)\n"));
  EXPECT_THAT(dir.read("config/config.json"), HasSubstr("\"churn/generation\": "));
  expect_plain_stop(zel);
}

TEST(ApplicationRestart, StartedThroughALinkInPathTheProgramRunsInTheLinksFolderAndFollowsItsNewTarget) {
  ZEL_SKIP_UNDER_EMULATION(kRestartNeedsBinfmt);
  TempDir dir;
  std::filesystem::create_directories(dir / "v1");
  std::filesystem::create_directories(dir / "v2");
  auto first = copy_program(dir, "v1/zel");
  auto second = copy_program(dir, "v2/zel");
  std::filesystem::create_directories(dir / "bin/config");
  dir.write("bin/config/system.xml", "<root><pulse rate=\"fast\"/></root>");  // says when it is read
  std::filesystem::create_symlink(first, dir / "bin/zel");

  // Started by its bare name from elsewhere, without --dir.
  std::string command = "cd / && exec zel --data-root " + dir.path().string() + " --pid-file " + (dir / "zel.pid") +
                        " --io-mount none --port 0";
  ZelProcess::Options options;
  options.environment = {"PATH=" + (dir / "bin") + ":" + std::getenv("PATH")};
  ZelProcess zel("/bin/sh", {"-c", command}, options);
  ASSERT_TRUE(zel.wait_for("Initialized")) << zel.error_text();
  auto proc = "/proc/" + std::to_string(zel.pid());
  EXPECT_EQ(std::filesystem::read_symlink(proc + "/cwd"), dir.path() / "bin") << "the folder of the path as started";
  EXPECT_THAT(zel.error_text(), HasSubstr("'fast': default kept")) << "its configuration was found there";
  EXPECT_EQ(inode_of(proc + "/exe"), inode_of(first));

  // The link re-pointed as version switches do it: a new link renamed over the old.
  std::filesystem::create_symlink(second, dir / "bin/zel.new");
  std::filesystem::rename(dir / "bin/zel.new", dir / "bin/zel");
  ASSERT_TRUE(zel.wait_for("Initialized", 2, 15s)) << zel.error_text();
  EXPECT_THAT(zel.error_text(), HasSubstr("Program file " + (dir / "bin/zel") + " replaced"));
  EXPECT_EQ(inode_of(proc + "/exe"), inode_of(second));

  // The file the link names replaced in its own folder.
  copy_program(dir, "v2/zel.new");
  std::filesystem::rename(dir / "v2/zel.new", second);
  ASSERT_TRUE(zel.wait_for("Initialized", 3, 15s)) << zel.error_text();
  EXPECT_EQ(inode_of(proc + "/exe"), inode_of(second));
  expect_plain_stop(zel);
}

// The program file is watched from the moment "Initialized" is logged.
TEST(ApplicationRestart, AReplacedProgramFileIsRestartedIntoAndAMissingOneIsWaitedForThenEndsTheProcess) {
  ZEL_SKIP_UNDER_EMULATION(kRestartNeedsBinfmt);
  TempDir dir;
  auto program = copy_program(dir);
  ZelProcess zel(program, ZelProcess::arguments_for(dir));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  auto exe = "/proc/" + std::to_string(zel.pid()) + "/exe";
  ASSERT_EQ(inode_of(exe), inode_of(program));

  // A new file renamed over the program.
  copy_program(dir, "zel.new");
  std::filesystem::rename(dir / "zel.new", program);
  ASSERT_TRUE(zel.wait_for("Initialized", 2, 15s));
  EXPECT_EQ(inode_of(exe), inode_of(program));
  EXPECT_THAT(zel.error_text(), HasSubstr("Program file " + program + " replaced, restarting"));

  // The program removed and a new one written in its place.
  std::filesystem::remove(program);
  copy_program(dir);
  ASSERT_TRUE(zel.wait_for("Initialized", 3, 15s));
  EXPECT_EQ(inode_of(exe), inode_of(program));

  // Moved aside, as the first step of a manual update does, and back.
  const std::string waiting = "can't be started (No such file or directory): trying again";
  int waited = zel.count(waiting);
  std::filesystem::rename(program, dir / "zel.old");
  ASSERT_TRUE(zel.wait_for(waiting, waited + 1, 15s));
  std::filesystem::rename(dir / "zel.old", program);
  ASSERT_TRUE(zel.wait_for("Initialized", 4, 5s)) << zel.error_text();

  // Moved aside for good: the process ends with a failure for its service manager.
  std::filesystem::rename(program, dir / "zel.old");
  EXPECT_EQ(exit_code(zel.wait_exit(25s)), 1);
  EXPECT_THAT(zel.error_text(), HasSubstr("Error: No such file or directory execv"));
}

TEST(ApplicationUpdate, UnpackingDelaysTheRestartIntoTheNewProgramUntilTheUpdateHasEnded) {
  ZEL_SKIP_UNDER_EMULATION(kRestartNeedsBinfmt);
  TempDir dir;
  auto program = copy_program(dir);
  TempDir staging;
  copy_program(staging);
  auto pack = "tar -cf - -C " + staging.path().string() + " zel | gzip -1 > " + (dir / "zel-update.gz");
  ASSERT_EQ(std::system(pack.c_str()), 0);
  configure(dir, press_on_request(dir, "update", "admin/update_button"));
  ZelProcess zel(program, with(ZelProcess::arguments_for(dir), {"--reboot-command", harmless_reboot(dir, 1)}));
  ASSERT_TRUE(zel.wait_for("Initialized"));

  touch(dir / "update");
  ASSERT_TRUE(zel.wait_for("Initialized", 2, 20s));
  auto err = zel.error_text();
  auto installing = err.find("Installing update");
  auto replaced = err.find("Program file " + program + " replaced");
  auto rebooted = err.find("REBOOTED");
  auto restarted = err.find("Clean Shutdown");
  ASSERT_NE(installing, std::string::npos);
  ASSERT_NE(replaced, std::string::npos);
  ASSERT_NE(rebooted, std::string::npos);
  EXPECT_LT(installing, replaced);
  EXPECT_LT(replaced, rebooted) << "the unpacked program was seen while the update still ran";
  EXPECT_LT(rebooted, restarted) << "the restart waited for the update to end";
  EXPECT_EQ(inode_of("/proc/" + std::to_string(zel.pid()) + "/exe"), inode_of(program));
  EXPECT_TRUE(zel.running());
  expect_plain_stop(zel);
}

TEST(ApplicationUpdate, AnArchiveThatDoesNotUnpackIsLoggedAndTheSystemKeepsRunning) {
  TempDir dir;
  configure(dir, press_on_request(dir, "update", "admin/update_button"));
  ZelProcess zel(kProgram, with(ZelProcess::arguments_for(dir), {"--reboot-command", harmless_reboot(dir)}));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  touch(dir / "update");
  ASSERT_TRUE(zel.wait_for("Couldn't unzip update file"));
  EXPECT_THAT(zel.error_text(), HasSubstr("Error: tar -mxzf " + (dir / "zel*.gz") + " -C " + dir.path().string() +
                                          " Couldn't unzip update file"));
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(zel.running());
  EXPECT_FALSE(std::filesystem::exists(dir / "rebooted"));
  expect_plain_stop(zel);
}

TEST(ApplicationShutdown, AHangingDestructionTimesOutAfterEightSecondsAndTheRebootStillFollows) {
  TempDir dir;
  configure(dir, R"(<slow type="hang_on_destroy" hang_seconds="60"/>)" +
                     press_on_request(dir, "reboot", "admin/reboot_button"));
  ZelProcess zel(kProgram, with(ZelProcess::arguments_for(dir), {"--reboot-command", harmless_reboot(dir)}));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  touch(dir / "reboot");
  ASSERT_TRUE(zel.wait_for("Hanging on destroy"));
  auto begin = ZelProcess::Clock::now();
  ASSERT_TRUE(zel.wait_for("Error: Shutdown process timed out", 1, 15s));
  auto waited = ZelProcess::Clock::now() - begin;
  EXPECT_GT(waited, 7500ms);
  EXPECT_LT(waited, 9500ms);
  EXPECT_EQ(exit_code(zel.wait_exit(5s)), 1) << "a stop that ran out of time is no orderly stop";
  EXPECT_TRUE(std::filesystem::exists(dir / "rebooted"));
}

TEST(ApplicationShutdown, AStopThatHangsBeforeTheStoresStillSavesTheLastValueAndExitsOne) {
  TempDir dir;
  // No save timer: only the stop can write the value.
  configure(dir, R"(<admin><store_manager save_delay="0" hourmeter_period="0"/></admin>
                    <web_server type="web_server" anonymous_write="true"/><x type="analog_io" store="config" value="1"/>
                    <slow type="hang_on_destroy" hang_at="stop0" hang_seconds="60"/>)");
  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  ASSERT_EQ(web_client::request(zel.web_port(), web_client::http::verb::put, "/io/x", "42").status, 200u);
  zel.signal(SIGTERM);
  ASSERT_TRUE(zel.wait_for("Hanging on destroy"));
  EXPECT_EQ(exit_code(zel.wait_exit(15s)), 1);
  EXPECT_THAT(dir.read("config/config.json"), HasSubstr("\"x\": 42"));
}

TEST(ApplicationAdmin, StopAndRestartButtonsReachTheApplication) {
  ZEL_SKIP_UNDER_EMULATION(kRestartNeedsBinfmt);
  TempDir dir;
  configure(dir, press_on_request(dir, "reset", "admin/reset_button") +
                     press_on_request(dir, "stop", "admin/stop_button"));
  ZelProcess zel(kProgram, with(ZelProcess::arguments_for(dir), {"--reboot-command", harmless_reboot(dir)}));
  ASSERT_TRUE(zel.wait_for("Initialized"));
  touch(dir / "reset");
  ASSERT_TRUE(zel.wait_for("Initialized", 2));
  EXPECT_TRUE(zel.running());
  touch(dir / "stop");
  EXPECT_EQ(exit_code(zel.wait_exit(10s)), 0);
  EXPECT_EQ(zel.count("Initialized"), 2);
  EXPECT_THAT(zel.error_text(), Not(HasSubstr("ZEL INTERUPTED")));
  EXPECT_FALSE(std::filesystem::exists(dir / "rebooted"));
}

namespace {

// A datagram socket standing in for the service manager's NOTIFY_SOCKET.
class NotifySocket {
 public:
  explicit NotifySocket(std::string path) : path_(std::move(path)) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) ADD_FAILURE() << "bind " << path_;
  }
  ~NotifySocket() { ::close(fd_); }

  // The next message, or "" after `limit`.
  std::string next(std::chrono::milliseconds limit = 5s) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) return "";
    char buffer[256];
    auto n = ::recv(fd_, buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
  }
  // Messages up to and including `state`; empty when it does not come.
  std::vector<std::string> until(const std::string& state) {
    std::vector<std::string> seen;
    for (std::string m = next(); !m.empty(); m = next()) {
      seen.push_back(m);
      if (m == state) return seen;
    }
    return {};
  }

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace

TEST(ApplicationHeartbeat, WatchdogMessagesReachTheNotifySocketAcrossARestart) {
  ZEL_SKIP_UNDER_EMULATION(kRestartNeedsBinfmt);
  TempDir dir;
  NotifySocket manager(dir / "notify");
  ZelProcess::Options options;
  options.environment = {"NOTIFY_SOCKET=" + (dir / "notify"), "WATCHDOG_USEC=100000"};
  ZelProcess zel(kProgram, ZelProcess::arguments_for(dir), options);
  EXPECT_EQ(manager.next(), "READY=1");
  EXPECT_TRUE(zel.wait_for("Initialized"));
  for (int beat = 0; beat < 3; ++beat) EXPECT_EQ(manager.next(1s), "WATCHDOG=1") << beat;

  zel.signal(SIGSEGV);
  auto restart = manager.until("READY=1");
  ASSERT_GE(restart.size(), 2u);
  EXPECT_THAT(restart[restart.size() - 2], ::testing::StartsWith("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_TRUE(zel.wait_for("Initialized", 2));
  EXPECT_EQ(manager.next(1s), "WATCHDOG=1") << "the new image beats too";

  zel.signal(SIGTERM);
  EXPECT_FALSE(manager.until("STOPPING=1").empty());
  EXPECT_EQ(exit_code(zel.wait_exit(10s)), 0);
  EXPECT_EQ(manager.next(300ms), "") << "no beat after the stop";
}

TEST(Capabilities, TheNeededOnesThatAreMissingAreNamed) {
  auto names = [](const std::vector<Capability>& list) {
    std::vector<std::string_view> out;
    for (auto& c : list) out.push_back(c.name);
    return out;
  };
  using V = std::vector<std::string_view>;
  EXPECT_EQ(names(Capabilities::missing(0, 80)), (V{"CAP_NET_BIND_SERVICE", "CAP_SYS_RAWIO"}));
  EXPECT_EQ(names(Capabilities::missing(0, 8080)), (V{"CAP_SYS_RAWIO"}));
  EXPECT_EQ(names(Capabilities::missing(0, 0)), (V{"CAP_SYS_RAWIO"})) << "a free port needs no privilege";
  EXPECT_EQ(names(Capabilities::missing(1ull << 17, 80)), (V{"CAP_NET_BIND_SERVICE"}));
  EXPECT_TRUE(Capabilities::missing(~0ull, 80).empty());

  // The effective set is the kernel's, as /proc shows it.
  std::ifstream status("/proc/self/status");
  std::string line;
  uint64_t shown = 0;
  while (std::getline(status, line))
    if (line.starts_with("CapEff:")) shown = std::stoull(line.substr(7), nullptr, 16);
  EXPECT_EQ(Capabilities::effective(), shown);
}

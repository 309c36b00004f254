// The safety chain attacked from outside the process, the way an operator's
// scripts or a confused user would: the real program with a real "/io" mount
// and its web server on 127.0.0.1, written through every way in (files at
// every level, HTTP, WebSocket) with non-finite and out-of-range texts, poll
// settings changed at run time and repeated "Enable All". After each attack,
// a condition in error must keep the permit revoked and the output off.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "interlock_chain.hpp"
#include "wait_until.hpp"
#include "web_client.hpp"
#include "zel_process.hpp"

namespace {

using namespace std::chrono_literals;
namespace http = boost::beast::http;

const std::string kProgram = ZEL_BINARY;

// 0, or the errno with which the kernel refused writing `text` to `file`.
int write_file(const std::string& file, const std::string& text) {
  int fd = ::open(file.c_str(), O_WRONLY);
  if (fd < 0) return errno;
  ssize_t n = ::write(fd, text.data(), text.size());
  int error = n < 0 ? errno : 0;
  ::close(fd);
  return error;
}

class ChainUnderAttack : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/fuse";
    // An error must hold 0.3 s before it trips.
    dir_.write("config/system.xml", interlock_chain(R"(<web_server type="web_server" anonymous_write="true"/>)",
                                                    R"(error_time_duration="0.3")"));
    std::filesystem::create_directory(io_root());
    zel_ = std::make_unique<ZelProcess>(kProgram, ZelProcess::arguments_for(dir_, io_root()));
    port_ = zel_->web_port();
    ASSERT_NE(port_, 0);
    ASSERT_TRUE(wait_until([&] { return file_text(io("hv_enable/value.json")) == "false"; }));
  }

  std::string io_root() const { return dir_ / "io"; }
  std::string io(const std::string& below_chamber) const { return io_root() + "/chamber/" + below_chamber; }
  std::string value(const std::string& below_chamber) const { return file_text(io(below_chamber)); }

  web_client::Reply put(const std::string& path, const std::string& body) {
    return web_client::request(port_, http::verb::put, "/io/" + path, body);
  }

  // The operator's command, through the permit's own file.
  void command_on() {
    ASSERT_EQ(write_file(io("hv_permit/user_command.json"), "true"), 0);
    ASSERT_TRUE(wait_until([&] { return value("hv_enable/value.json") == "true"; }));
  }
  void trip() {
    ASSERT_EQ(put("chamber/pressure", "1").status, 200u);
    ASSERT_TRUE(wait_until([&] { return value("hv_permit/vacuum/value.json") == "1"; }, 3s));
  }
  // The chain as it must be while its condition is in error.
  void expect_tripped(const std::string& after) {
    SCOPED_TRACE("after " + after);
    EXPECT_EQ(value("hv_permit/vacuum/value.json"), "1");
    EXPECT_EQ(value("hv_permit/value.json"), "false");
    EXPECT_EQ(value("hv_enable/value.json"), "false");
    auto summary = web_client::request(port_, http::verb::get, "/io/interlocks/summary/value.json");
    EXPECT_EQ(summary.body, "\"error\"");
  }

  TempDir dir_;
  std::unique_ptr<ZelProcess> zel_;  // stopped, and its mount gone, before the folder is removed
  uint16_t port_ = 0;
};

}  // namespace

TEST_F(ChainUnderAttack, NoWritePathOpensATrippedChain) {
  command_on();
  trip();
  expect_tripped("the trip");

  // Files at every level naming the state, a limit or the delay: refused
  // whole, with one log line naming the member.
  EXPECT_EQ(write_file(io("hv_permit/vacuum/value.json"), "0"), EACCES);
  EXPECT_EQ(write_file(io("hv_permit.json"), R"({"vacuum":{"value":0}})"), EACCES);
  EXPECT_EQ(write_file(io_root() + "/chamber.json", R"({"hv_permit":{"user_command":true,"vacuum":{"value":0}}})"),
            EACCES);
  EXPECT_EQ(write_file(io_root() + "/index.json", R"({"chamber":{"hv_permit":{"vacuum":{"upper_limit":10}}}})"),
            EACCES);
  EXPECT_EQ(write_file(io("hv_permit/vacuum.json"), R"({"error_time_duration":1e9,"state_time":0})"), EACCES);
  EXPECT_TRUE(zel_->wait_for("member 'chamber/hv_permit/vacuum/value' is a value of a read-only node"));
  EXPECT_EQ(value("hv_permit/user_command.json"), "false") << "a refused object applies none of its members";
  expect_tripped("files at every level");

  // A failed sensor: non-finite readings are taken, and they trip.
  for (const char* reading : {"nan", "inf", "-inf", "null"}) {
    EXPECT_EQ(write_file(io("pressure/value.json"), reading), 0) << reading;
    expect_tripped(std::string("pressure ") + reading);
  }
  EXPECT_EQ(put("chamber/pressure", "nan").status, 200u);
  expect_tripped("a PUT of nan");

  // HTTP: state, limits and the driven output refused with the reason.
  auto state = put("chamber/hv_permit/vacuum/value", "0");
  EXPECT_EQ(state.status, 403u);
  EXPECT_NE(state.error.find("read-only node"), std::string::npos) << state.error;
  EXPECT_EQ(put("chamber/hv_permit/vacuum/upper_limit", "nan").status, 403u);
  auto output = put("chamber/hv_enable", "true");
  EXPECT_EQ(output.status, 403u);
  EXPECT_NE(output.error.find("driven by 'chamber/hv_permit'"), std::string::npos) << output.error;
  EXPECT_EQ(put("chamber/hv_permit", R"({"vacuum":{"latching":{"value":true}},"value":true})").status, 403u);
  // The operator's command is taken, and withdrawn at once by the revoked permit.
  EXPECT_EQ(put("chamber/hv_permit/user_command", "true").status, 200u);
  EXPECT_TRUE(zel_->wait_for("permit revoked", 2));
  expect_tripped("HTTP");

  // WebSocket: the same refusals, each answered with a reply naming the path.
  boost::asio::io_context client_io;
  web_client::WebSocketClient ws(client_io, port_);
  ws.send(R"({"event":"set","data":{"chamber/hv_permit/vacuum/value":0,"chamber/hv_enable":true}})");
  std::string replies;
  for (int i = 0; i < 2; ++i) {
    auto reply = ws.receive_containing("set_refused", 3000ms);
    ASSERT_TRUE(reply);
    replies += *reply;
  }
  EXPECT_NE(replies.find(R"({"path":"chamber/hv_permit/vacuum/value","reason":"is a value of a read-only node"})"),
            std::string::npos) << replies;
  EXPECT_NE(replies.find(R"({"path":"chamber/hv_enable","reason":"is driven by)"), std::string::npos) << replies;
  ws.send(R"({"event":"set","data":{"chamber/pressure":1e300,"chamber/hv_permit/user_command":true}})");
  EXPECT_TRUE(zel_->wait_for("User websocket", 2));
  expect_tripped("WebSocket");

  // A value of 128 KiB or more is refused whole, not applied in pieces.
  std::string huge = R"({"hv_permit":{"gate_command":false},"label":")" + std::string(200 * 1024, 'x') + "\"}";
  EXPECT_EQ(write_file(io_root() + "/chamber.json", huge), EFBIG);
  EXPECT_EQ(put("chamber", huge).status, 413u);
  expect_tripped("a huge value");
}

TEST_F(ChainUnderAttack, DelayedTripsAndEnableAllDoNotDependOnAnySetting) {
  // Poll rates that would stop or spin the manager are refused, with the range.
  auto stopped = put("interlocks/poll/rate", "0");
  EXPECT_EQ(stopped.status, 400u);
  EXPECT_NE(stopped.error.find("above 0 up to 1000"), std::string::npos) << stopped.error;
  EXPECT_EQ(write_file(io_root() + "/interlocks/poll/rate.json", "1e9"), EINVAL);
  // The slowest allowed poll: a pending trip still fires when its delay ends.
  ASSERT_EQ(write_file(io_root() + "/interlocks/poll/rate.json", "0.001"), 0);
  command_on();
  auto set_at = std::chrono::steady_clock::now();
  trip();
  EXPECT_GT(std::chrono::steady_clock::now() - set_at, 300ms);
  expect_tripped("a delayed trip with a slow poll");

  // Delay and limits refuse non-finite and negative values.
  EXPECT_EQ(write_file(io("hv_permit/vacuum/error_time_duration.json"), "-1"), EACCES);
  EXPECT_EQ(write_file(io("hv_permit/vacuum/enabled/value.json"), "nan"), EINVAL);

  // Disable by hand, then "Enable All", twice: each write enables again.
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(write_file(io("hv_permit/vacuum/enabled/value.json"), "false"), 0);
    ASSERT_TRUE(wait_until([&] { return value("hv_permit/value.json") == "true"; }));
    EXPECT_EQ(value("hv_enable/value.json"), "false") << "a returning permit does not switch the output on";
    ASSERT_EQ(write_file(io_root() + "/interlocks/enable_all/value.json", "true"), 0);
    ASSERT_TRUE(wait_until([&] { return value("hv_permit/vacuum/enabled/value.json") == "true"; }));
    ASSERT_TRUE(wait_until([&] { return value("hv_permit/vacuum/value.json") == "1"; }, 3s));
    expect_tripped("Enable All, round " + std::to_string(round + 1));
  }
}

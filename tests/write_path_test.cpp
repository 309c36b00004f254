// The rules of the one write path, against the function itself: which
// fields each way in may write, what a node's object does when one member is
// refused, ranges, and the log lines. That every server really goes through
// it is pinned from outside by safety_chain_attack_test.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "core/io/interlock_manager.hpp"
#include "core/io/permit_command_io.hpp"
#include "core/io/range_interlock_io.hpp"
#include "core/root.hpp"
#include "core/permissions.hpp"
#include "core/write_path.hpp"
#include "formats/format_xml.hpp"
#include "interlock_chain.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"
#include "tree_access.hpp"
#include "wait_until.hpp"
#include "web_client.hpp"

namespace {

std::unique_ptr<Root> chain() {
  auto root = FormatXML::instance().build(interlock_chain());
  root->initialize();
  return root;
}

WriteAnswer write(Root& root, WriteSource source, const std::string& path, const std::string& text) {
  // An admin: these tests are about the rules before the caller's role.
  return WritePath::write(root, {{source, "tester", Role::Admin}, path, text});
}

}  // namespace

TEST(WritePath, EachFieldKindIsWritableOnlyWhereTheRulesSay) {
  auto root = chain();
  struct Case {
    const char* path;
    const char* text;
    WriteStatus http;
    WriteStatus store;
  };
  const Case cases[] = {
      {"chamber/pressure", "5e-5", WriteStatus::Done, WriteStatus::Done},                          // an IO's value
      {"chamber/hv_permit/vacuum/value", "0", WriteStatus::ReadOnly, WriteStatus::ReadOnly},   // a state
      {"chamber/hv_permit/vacuum/upper_limit", "9", WriteStatus::ReadOnly, WriteStatus::ReadOnly},
      {"chamber/hv_permit/vacuum/state_time", "0", WriteStatus::ReadOnly, WriteStatus::ReadOnly},
      {"chamber/hv_permit/vacuum/trip_time", "0", WriteStatus::ReadOnly, WriteStatus::ReadOnly},
      {"chamber/hv_permit/user_command", "false", WriteStatus::Done, WriteStatus::ReadOnly},  // an operator control
      {"chamber/hv_enable", "true", WriteStatus::ReadOnly, WriteStatus::ReadOnly},                // driven by the permit
      {"chamber/label", "\"x\"", WriteStatus::ReadOnly, WriteStatus::ReadOnly},            // an attribute
      {"interlocks/generate_report_csv", "false", WriteStatus::Done, WriteStatus::ReadOnly},  // a button
      {"interlocks/poll/rate", "0", WriteStatus::BadValue, WriteStatus::BadValue},
      {"interlocks/poll/rate", "nan", WriteStatus::BadValue, WriteStatus::BadValue},
      {"chamber/hv_permit/vacuum/enabled", "maybe", WriteStatus::BadValue, WriteStatus::BadValue},
      {"chamber/nowhere", "1", WriteStatus::NotFound, WriteStatus::NotFound},
  };
  for (auto& c : cases) {
    auto* field = WritePath::field_for(root->find_path(c.path));
    std::string before = field ? field->json() : "";
    for (auto [source, expected] : {std::pair{WriteSource::Http, c.http}, std::pair{WriteSource::Store, c.store}}) {
      SCOPED_TRACE(std::string(c.path) + " from " + std::string(write_source_name(source)));
      LogCapture log;
      auto answer = write(*root, source, c.path, c.text);
      EXPECT_EQ(answer.status, expected) << answer.reason;
      if (answer.ok()) continue;
      EXPECT_FALSE(answer.reason.empty());
      if (field) {
        EXPECT_EQ(field->json(), before) << "a refused write changed the value";
      }
      ASSERT_EQ(log.entries().size(), 1u) << "one line per refusal";
      EXPECT_NE(log.entries()[0].text.find(answer.reason), std::string::npos) << log.entries()[0].text;
    }
  }
}

// A refused member refusing its whole object is pinned on every way in by
// ChainUnderAttack.NoWritePathOpensATrippedChain.
TEST(WritePath, ANodeObjectAppliesEachMemberWithALogLineOrRefusesAMalformedOrHugeText) {
  auto root = chain();
  LogCapture log;
  auto accepted = write(*root, WriteSource::File, "chamber",
                        R"({"pressure":{"value":3e-5},"hv_permit":{"gate_command":true}})");
  ASSERT_TRUE(accepted.ok()) << accepted.reason;
  EXPECT_EQ(at<AnalogIO>(*root, "chamber/pressure").get(), 3e-5);
  EXPECT_TRUE(at<PermitCommandIO>(*root, "chamber/hv_permit").gate_command().get());
  EXPECT_TRUE(log.contains(R"(User file tester set 'chamber/pressure/value' from 1e-6 to 3e-5)"));
  EXPECT_EQ(write(*root, WriteSource::File, "chamber", R"({"pressure":)").status, WriteStatus::BadValue);
  EXPECT_EQ(write(*root, WriteSource::File, "chamber", std::string(WritePath::kMaxTextBytes, 'x')).status,
            WriteStatus::TooLarge);
}

TEST(WritePath, ThePermissionHookDecidesLastAndAlone) {
  auto root = chain();
  WritePath::set_permission_check([](const Caller& caller, const FieldBase&, std::string& reason) {
    reason = "viewers may not write";
    return caller.who != "viewer";
  });
  auto denied = WritePath::write(*root, {{WriteSource::Http, "viewer"}, "chamber/pressure", "2"});
  auto unreadable = WritePath::write(*root, {{WriteSource::Http, "viewer"}, "chamber/pressure", "two"});
  auto allowed = WritePath::write(*root, {{WriteSource::Http, "operator"}, "chamber/pressure", "2"});
  WritePath::set_permission_check(&Permissions::check);
  EXPECT_EQ(denied.status, WriteStatus::Denied);
  EXPECT_EQ(denied.reason, "viewers may not write");
  EXPECT_EQ(denied.http_status(), 403u);
  EXPECT_EQ(unreadable.status, WriteStatus::BadValue) << "the value is checked before the caller";
  EXPECT_TRUE(allowed.ok());
}

TEST(WritePath, ConfiguredValuesOutOfRangeAreRefusedWithTheRange) {
  Root::reset_configuration_errors();
  LogCapture log;
  auto root = FormatXML::instance().build(R"(<root>
    <interlocks><poll rate="0"/></interlocks>
    <x type="analog_io"/>
    <lock type="range_interlock_io" input="x" upper_limit="nan" error_time_duration="-1"/>
  </root>)");
  root->initialize();
  EXPECT_EQ(at<InterlockManager>(*root, "interlocks").poll_rate(), InterlockManager::kDefaultPollHz);
  EXPECT_TRUE(log.contains("Setting 'rate' of 'interlocks/poll' refused: 0 is out of range: takes above 0 up to 1000"));
  EXPECT_TRUE(log.contains("Setting 'error_time_duration' of 'lock' refused: -1 is out of range: takes from 0"));
  EXPECT_EQ(Root::configuration_errors(), 3u);
  EXPECT_TRUE(at<RangeInterlockIO>(*root, "lock").is_error()) << "a broken limit holds the chain tripped";
}

// Writers on every way in at once (HTTP, WebSocket, files under the mount,
// a call inside the program) against one chain whose trip is pending on its
// own timer, in a component with a thread of its own: the chain's listeners
// run on one thread at a time, and the chain ends tripped once its input
// stays in error.
TEST(WritePath, WritersOnEveryWayInNeverRunAChainsListenersOnTwoThreadsAtOnce) {
  using namespace std::chrono_literals;
  if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/fuse";
  TempDir dir;
  std::filesystem::create_directory(dir / "io");
  auto root = FormatXML::instance().build(interlock_chain(
      R"(<web_server type="web_server" port="0" anonymous_write="true"/><io_server mount=")" + (dir / "io") + R"("/>)",
      R"(error_time_duration="0.02")", "ctx_comp"));
  ASSERT_TRUE(root);
  root->initialize();
  auto port = static_cast<uint16_t>(at<ValueField<int>>(*root, "web_server/port").get());
  ASSERT_NE(port, 0);

  // Registered after the chain's own listeners: runs once each evaluation is over.
  std::atomic<int> inside{0}, overlaps{0}, calls{0};
  auto guard = [&] {
    if (inside.fetch_add(1) != 0) ++overlaps;
    ++calls;
    std::this_thread::sleep_for(20us);
    inside.fetch_sub(1);
  };
  WritePath::field_for(root->find_path("chamber/pressure"))->listen(guard);
  WritePath::field_for(root->find_path("chamber/hv_permit/vacuum"))->listen(guard);

  // Fine, in error: each error arms the delayed trip. Every writer ends in
  // error, so a set still in flight cannot clear the final one.
  const char* texts[] = {"0", "10"};
  constexpr int kRounds = 30;
  std::vector<std::thread> writers;
  writers.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) web_client::request(port, web_client::http::verb::put, "/io/chamber/pressure", texts[i % 2]);
  });
  writers.emplace_back([&] {
    boost::asio::io_context io;
    web_client::WebSocketClient ws(io, port);
    for (int i = 0; i < kRounds; ++i) {
      ws.send(std::string(R"({"event":"set","data":{"chamber/pressure":)") + texts[i % 2] + "}}");
      std::this_thread::sleep_for(1ms);
    }
  });
  writers.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) {
      int fd = ::open((dir / "io/chamber/pressure/value.json").c_str(), O_WRONLY);
      if (fd < 0) continue;
      EXPECT_GT(::write(fd, texts[i % 2], 1 + i % 2), 0);
      ::close(fd);
    }
  });
  writers.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) {
      write(*root, WriteSource::Local, "chamber/pressure", texts[(i + 1) % 2]);
      write(*root, WriteSource::Local, "chamber/hv_permit/user_command", "true");
      std::this_thread::sleep_for(1ms);
    }
  });
  for (auto& w : writers) w.join();

  ASSERT_EQ(web_client::request(port, web_client::http::verb::put, "/io/chamber/pressure", "10").status, 200u);
  auto& lock = at<RangeInterlockIO>(*root, "chamber/hv_permit/vacuum");
  EXPECT_TRUE(wait_until([&] { return lock.is_error(); }, 3s));
  EXPECT_TRUE(wait_until([&] { return at<ValueField<bool>>(*root, "chamber/hv_enable/value").get() == false; }, 3s));
  EXPECT_EQ(WritePath::field_for(root->find_path("chamber/hv_permit"))->json(), "false");
  EXPECT_GT(calls.load(), kRounds) << "the writers reached the chain";
  EXPECT_EQ(overlaps.load(), 0) << "a chain's listeners ran on two threads at once";
}

// The alarm journal: what an interlock's changes put into it, what survives a
// reload (and a damaged file), the bound it keeps, and acknowledgements over
// HTTP by the real program, which only operators may give and which survive
// a restart.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include "core/alarm_journal.hpp"
#include "core/alarms.hpp"
#include "core/io/interlock_io.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "tree_access.hpp"
#include "web_client.hpp"
#include "zel_process.hpp"

using namespace std::chrono_literals;
using testing::HasSubstr;
using web_client::http::verb;

namespace {

std::vector<std::string> kinds_and_paths(const AlarmJournal::Page& page) {
  std::vector<std::string> out;
  for (auto& alarm : page.alarms) out.push_back(std::string(to_string(alarm.kind)) + " " + alarm.path);
  return out;
}

size_t lines_of(const std::string& file) {
  std::ifstream in(file);
  size_t lines = 0;
  for (std::string line; std::getline(in, line);) ++lines;
  return lines;
}

}  // namespace

TEST(Alarms, EveryStateChangeOfAnInterlockIsOneEntryAndOneLogLine) {
  auto root = FormatXML::instance().build(R"(<root>
    <chamber type="component">
      <pressure type="analog_io" units="mbar" value="1"/>
      <vacuum type="range_interlock_io" input="chamber/pressure" upper_warning="5" upper_limit="10"/>
    </chamber>
  </root>)");
  ASSERT_TRUE(root);
  root->initialize();
  auto& journal = root->alarms().journal();
  auto& pressure = at<AnalogIO>(*root, "chamber/pressure");
  LogCapture log;
  for (double value : {1.5, 7.0, 20.0, 20.5, 2.0}) {  // OK, warning, trip, still tripped, OK
    pressure.set(value);
    journal.flush();
  }
  auto page = journal.list(0, 100);
  EXPECT_THAT(kinds_and_paths(page), testing::ElementsAre("ok chamber/vacuum", "trip chamber/vacuum",
                                                          "warning chamber/vacuum"))
      << "the first OK at start is no change";
  EXPECT_EQ(page.alarms[1].text, "'chamber/pressure' is 20 mbar (upper_limit 10, upper_warning 5)");
  EXPECT_EQ(page.unacknowledged, 3u);
  EXPECT_EQ(at<ValueField<unsigned long long>>(*root, "alarms/unacknowledged").get(), 3u);
  EXPECT_EQ(at<ValueField<unsigned long long>>(*root, "alarms/sequence").get(), page.last);
  EXPECT_TRUE(log.contains("Interlock 'chamber/vacuum' warning: 'chamber/pressure' is 7 mbar"));
  EXPECT_TRUE(log.contains("Interlock 'chamber/vacuum' tripped: 'chamber/pressure' is 20 mbar"));
  EXPECT_TRUE(log.contains("Interlock 'chamber/vacuum' back to OK: 'chamber/pressure' is 2 mbar"));
  EXPECT_EQ(page.alarms[0].time, at<InterlockIO>(*root, "chamber/vacuum").state_time().get())
      << "the time of the change itself";
}

TEST(AlarmJournal, EntriesAndAcknowledgementsSurviveAReloadAndADamagedLineIsSkipped) {
  TempDir dir;
  const std::string file = dir / "data/alarms.jsonl";
  uint64_t last = 0;
  {
    AlarmJournal journal(file, 100);
    journal.start();
    journal.record(1000, "a/lock", AlarmKind::Trip, "first");
    journal.record(2000, "b/lock", AlarmKind::Warning, "second \"quoted\"\n");
    journal.record(3000, "a/lock", AlarmKind::Ok, "third");
    journal.flush();
    EXPECT_EQ(journal.acknowledge(2, "olga", 5000), AlarmJournal::AckResult::Done);
    EXPECT_EQ(journal.acknowledge(2, "otto", 6000), AlarmJournal::AckResult::AlreadyAcknowledged);
    EXPECT_EQ(journal.acknowledge(99, "olga", 6000), AlarmJournal::AckResult::NotFound);
    auto changed = journal.list(3, 10);
    ASSERT_EQ(changed.alarms.size(), 1u) << "only the acknowledgement came after sequence 3";
    EXPECT_EQ(changed.alarms[0].id, 2u);
    last = changed.last;
    journal.stop();
  }
  // A power cut in the middle of a line, then a stray line of something else.
  std::ofstream(file, std::ios::app) << "{\"seq\":9,\"ti\n[1,2]\n{\"seq\":10,\"time\":\"7000\",\"path\":\"c/l";

  LogCapture log;
  AlarmJournal reloaded(file, 100);
  reloaded.load();
  auto page = reloaded.list(0, 10);
  EXPECT_THAT(kinds_and_paths(page), testing::ElementsAre("ok a/lock", "warning b/lock", "trip a/lock"));
  EXPECT_EQ(page.last, last);
  EXPECT_EQ(page.unacknowledged, 2u);
  EXPECT_EQ(page.alarms[1].text, "second \"quoted\"\n");
  EXPECT_EQ(page.alarms[1].acknowledged_by, "olga");
  EXPECT_EQ(page.alarms[1].acknowledged_at, 5000u);
  EXPECT_EQ(page.alarms[2].time, 1000u);
  EXPECT_EQ(log.texts().size(), 4u) << "three malformed lines and the summary";
  EXPECT_TRUE(log.contains("Error: Alarm journal '" + file + "' line 6 is malformed and skipped"));

  // The damaged file was rewritten whole: it loads clean, and numbers go on.
  reloaded.record(8000, "d/lock", AlarmKind::Trip, "fourth");
  reloaded.flush();
  EXPECT_EQ(reloaded.acknowledge_all("ada", 9000), 3u);
  LogCapture again;
  AlarmJournal third(file, 100);
  third.load();
  EXPECT_EQ(again.texts().size(), 1u) << again.texts().front();
  auto final_page = third.list(0, 10);
  ASSERT_EQ(final_page.alarms.size(), 4u);
  EXPECT_EQ(final_page.alarms[0].id, last + 1);
  EXPECT_EQ(final_page.unacknowledged, 0u);
  EXPECT_EQ(final_page.alarms[0].acknowledged_by, "ada");
  EXPECT_EQ(final_page.alarms[2].acknowledged_by, "olga") << "the first acknowledgement stays";
}

TEST(AlarmJournal, AnUnreadableJournalIsSetAsideAndANewOneNumbersFromOne) {
  TempDir dir;
  const std::string file = dir / "data/alarms.jsonl";
  std::filesystem::create_directories(file);  // not a file at all: it cannot be read
  LogCapture log;
  AlarmJournal journal(file, 100);
  journal.load();
  EXPECT_TRUE(log.contains("Alarm journal '" + file + "' can't be read"));
  EXPECT_TRUE(log.contains("kept as '" + file + ".unreadable', a new journal begins"));
  EXPECT_TRUE(std::filesystem::is_directory(file + ".unreadable"));
  journal.start();
  journal.record(1000, "a/lock", AlarmKind::Trip, "first");
  journal.stop();
  AlarmJournal reloaded(file, 100);
  reloaded.load();
  auto page = reloaded.list(0, 10);
  ASSERT_EQ(page.alarms.size(), 1u);
  EXPECT_EQ(page.alarms[0].id, 1u);
}

TEST(AlarmJournal, KeepsTheNewestEntriesWithinItsBoundInMemoryAndOnDisk) {
  TempDir dir;
  const std::string file = dir / "alarms.jsonl";
  {
    AlarmJournal journal(file, 10);
    journal.start();
    for (int i = 1; i <= 40; ++i) {
      journal.record(static_cast<uint64_t>(i), "lock", i % 2 ? AlarmKind::Trip : AlarmKind::Ok, std::to_string(i));
      if (i % 7 != 0) continue;
      journal.flush();  // an operator acknowledges what the journal shows
      journal.acknowledge_all("olga", static_cast<uint64_t>(i));
    }
    journal.flush();
    auto page = journal.list(0, 100);
    ASSERT_EQ(page.alarms.size(), 10u);
    EXPECT_EQ(page.alarms.back().text, "31");
    EXPECT_EQ(page.unacknowledged, 5u) << "31..35 were acknowledged at 35";
    EXPECT_LE(lines_of(file), 16u) << "rewritten once it held half as many lines again";
    journal.stop();
  }
  AlarmJournal reloaded(file, 10);
  reloaded.load();
  auto page = reloaded.list(0, 100);
  ASSERT_EQ(page.alarms.size(), 10u);
  EXPECT_EQ(page.alarms.front().text, "40");
  EXPECT_EQ(page.alarms.back().text, "31");
  EXPECT_EQ(page.unacknowledged, 5u);

  AlarmJournal smaller(file, 4);  // a smaller bound set meanwhile
  smaller.load();
  EXPECT_EQ(smaller.list(0, 100).alarms.size(), 4u);
  EXPECT_EQ(lines_of(file), 5u) << "the sequence line and four entries";
}

namespace {

// The program with a web server and a door interlock that is tripped from
// the start, so every start journals a trip.
struct AlarmProgram {
  explicit AlarmProgram(const TempDir& dir)
      : zel(ZEL_BINARY, ZelProcess::arguments_for(dir)) {
    port = zel.web_port();
  }
  ~AlarmProgram() {
    zel.signal(SIGTERM);
    zel.wait_exit(10s);
  }
  web_client::Reply call(verb method, const std::string& target, const std::string& cookie = {},
                         web_client::Headers headers = {}) {
    if (!cookie.empty()) headers.emplace_back("Cookie", cookie);
    return web_client::request(port, method, target, {}, headers);
  }
  nlohmann::json alarms() { return nlohmann::json::parse(call(verb::get, "/api/alarms").body); }
  std::string login(const std::string& user, const std::string& password) {
    auto reply = web_client::request(port, verb::post, "/api/login",
                                     nlohmann::json{{"user", user}, {"password", password}}.dump());
    EXPECT_EQ(reply.status, 200u) << reply.error;
    return reply.set_cookie.substr(0, reply.set_cookie.find(';'));
  }
  ZelProcess zel;
  uint16_t port = 0;
};

constexpr const char* kRig = R"(<root>
  <web_server type="web_server"/>
  <sensors type="component"><door_open type="digital_io" value="true"/></sensors>
  <interlocks><door type="digital_interlock_io" input="sensors/door_open"/></interlocks>
</root>)";

}  // namespace

TEST(AlarmJournalProgram, OnlyOperatorsAcknowledgeAndBothTripAndAcknowledgementSurviveARestart) {
  TempDir dir;
  dir.write("config/system.xml", kRig);
  std::string admin_password;
  {
    AlarmProgram program(dir);
    ASSERT_NE(program.port, 0);
    ASSERT_TRUE(program.zel.wait_for("Interlock 'interlocks/door' tripped: 'sensors/door_open' is true"));
    std::string shown;
    for (int i = 0; i < 100 && shown.find("it is not shown again") == std::string::npos; ++i) {
      std::this_thread::sleep_for(50ms);
      shown = program.zel.output_text();
    }
    auto at = shown.find("with the password '");
    ASSERT_NE(at, std::string::npos) << shown;
    at += std::string("with the password '").size();
    admin_password = shown.substr(at, shown.find('\'', at) - at);
    auto admin = program.login("admin", admin_password);
    auto viewer_made = web_client::request(program.port, verb::post, "/api/users",
                                           R"({"name":"vera","password":"vera's long secret","role":"viewer"})",
                                           {{"Cookie", admin}});
    ASSERT_EQ(viewer_made.status, 200u) << viewer_made.error;
    auto viewer = program.login("vera", "vera's long secret");

    auto before = program.alarms();
    ASSERT_EQ(before["alarms"].size(), 1u) << before.dump();
    auto& trip = before["alarms"][0];
    EXPECT_EQ(trip["kind"], "trip");
    EXPECT_EQ(trip["path"], "interlocks/door");
    EXPECT_TRUE(trip["acknowledged_by"].is_null());
    const std::string ack = "/api/alarms/" + trip["id"].dump() + "/ack";

    auto anonymous = program.call(verb::post, ack);
    EXPECT_EQ(anonymous.status, 401u);
    EXPECT_THAT(anonymous.error, HasSubstr("log in to acknowledge alarms"));
    auto refused = program.call(verb::post, "/api/alarms/ack-all", viewer);
    EXPECT_EQ(refused.status, 403u);
    EXPECT_THAT(refused.error, HasSubstr("needs the role operator, more than viewer"));
    auto foreign = program.call(verb::post, ack, admin, {{"Origin", "http://evil.example"}});
    EXPECT_EQ(foreign.status, 403u);
    EXPECT_EQ(program.alarms(), before) << "refusals change nothing";
    EXPECT_EQ(web_client::get(program.port, "/io/alarms/unacknowledged.json").body, "1");

    auto done = program.call(verb::post, ack, admin);
    EXPECT_EQ(done.status, 200u) << done.error;
    EXPECT_EQ(done.body, R"({"status":"success"})");
    EXPECT_TRUE(program.zel.wait_for("acknowledged alarm " + trip["id"].dump() + " (trip of 'interlocks/door')"));
    EXPECT_TRUE(program.zel.wait_for("User http admin (admin) 127.0.0.1:"));
    EXPECT_EQ(program.call(verb::put, "/io/alarms/unacknowledged", admin).status, 403u) << "a state value";
  }
  AlarmProgram restarted(dir);
  ASSERT_TRUE(restarted.zel.wait_for("Interlock 'interlocks/door' tripped"));
  auto after = restarted.alarms();
  ASSERT_EQ(after["alarms"].size(), 2u) << after.dump();
  EXPECT_EQ(after["alarms"][1]["acknowledged_by"], "admin");
  EXPECT_TRUE(after["alarms"][1]["acknowledged_at"].is_string());
  EXPECT_TRUE(after["alarms"][0]["acknowledged_by"].is_null()) << "this start's own trip";
  EXPECT_EQ(after["unacknowledged"], 1);
  EXPECT_GT(after["alarms"][0]["id"].get<uint64_t>(), after["alarms"][1]["id"].get<uint64_t>());
}

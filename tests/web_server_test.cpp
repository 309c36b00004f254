// The web server: the WebSocket protocol and its pushes, the HTTP API and the
// document root, and the server itself on real sockets with real clients.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "core/button_field.hpp"
#include "core/io/io.hpp"
#include "core/log_io.hpp"
#include "core/root.hpp"
#include "log_capture.hpp"
#include "std/paths.hpp"
#include "std/process_limits.hpp"
#include "web/client_protocol.hpp"
#include "web/document_root.hpp"
#include "web/http_router.hpp"
#include "web/web_access.hpp"
#include "web/web_server.hpp"
#include "router_rig.hpp"
#include "temp_dir.hpp"
#include "test_tree.hpp"
#include "tree_access.hpp"
#include "wait_until.hpp"
#include "web_client.hpp"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using web_client::http::verb;

namespace {

std::unique_ptr<Root> build(const std::string& inner) { return build_tree("<root>" + inner + "</root>"); }

std::string stamp_of(Root& root, const std::string& path) {
  std::string out;
  at<FieldBase>(root, path).write_stamp_json(out);
  return out;
}

// The protocol of one session, without a socket.
struct Session {
  explicit Session(Root& root, Role role = Role::Operator)
      : protocol(root, trigger, 1000, [role] { return WebCaller::of(role, "tester", "a test"); }) {}
  std::string push() {
    std::string out;
    return protocol.write_push(out).wrote ? out : std::string();
  }
  std::shared_ptr<PushTrigger> trigger = std::make_shared<PushTrigger>();
  ClientProtocol protocol;
};

}  // namespace

// ---------------------------------------------------------------- protocol

TEST(WebsocketProtocol, PushHasTheExactOpeningAndOneSampleKeyedByFieldPath) {
  auto root = build(R"(<a type="analog_io" value="1.5"/><s type="string_io" value="x"/>)");
  Session session(*root);
  session.protocol.handle_message(R"({"event":"subscribe","data":{"a/value":1,"s/value":1}})");
  EXPECT_EQ(session.push(), R"({"event": "update","data":{"a/value":[[1.5,)" + stamp_of(*root, "a/value") +
                                R"(]],"s/value":[["x",)" + stamp_of(*root, "s/value") + "]]}}");
  // Nothing changed: no push. Then only the changed field is sent.
  EXPECT_EQ(session.push(), "");
  at<StringIO>(*root, "s").set("say \"hi\"");
  EXPECT_EQ(session.push(),
            R"({"event": "update","data":{"s/value":[["say \"hi\"",)" + stamp_of(*root, "s/value") + "]]}}");
}

TEST(WebsocketProtocol, ChangesBetweenPassesWakeOnceAndPushEachFieldsLatestValueOnce) {
  auto root = build(R"(<a type="analog_io" value="1"/><b type="analog_io" value="1"/>)");
  Session session(*root);
  int wakes = 0;
  session.trigger->set_wake([&wakes] { ++wakes; });
  session.protocol.handle_message(R"({"event":"subscribe","data":{"a/value":1,"b/value":1}})");
  EXPECT_EQ(wakes, 1);  // the subscriptions' first push
  session.push();
  at<AnalogIO>(*root, "a").set(2);
  at<AnalogIO>(*root, "b").set(20);
  at<AnalogIO>(*root, "a").set(3);
  at<AnalogIO>(*root, "b").set(30);
  EXPECT_EQ(wakes, 2) << "one wake for all the changes until the next pass";
  EXPECT_EQ(session.push(), R"({"event": "update","data":{"a/value":[[3,)" + stamp_of(*root, "a/value") +
                                R"(]],"b/value":[[30,)" + stamp_of(*root, "b/value") + "]]}}");
  at<AnalogIO>(*root, "a").set(4);
  EXPECT_EQ(wakes, 3);
  session.trigger->cut();
  session.push();
  at<AnalogIO>(*root, "a").set(5);
  EXPECT_EQ(wakes, 3) << "a cut trigger wakes nobody";
}

TEST(WebsocketProtocol, UnknownPathsAreLoggedAndTheOtherMembersStillApply) {
  auto root = build(R"(<a type="analog_io" value="1"/><b type="digital_io"/>)");
  Session session(*root);
  LogCapture log;
  session.protocol.handle_message(R"({"event":"set","data":{"nowhere/value":5,"a/value":2.5,"b/value":true}})");
  EXPECT_EQ(at<AnalogIO>(*root, "a").get(), 2.5);
  EXPECT_TRUE(at<DigitalIO>(*root, "b").get());
  EXPECT_TRUE(log.has_line("Error: User no valid Field found websocket tester (operator) a test nowhere/value: there is nothing at that path"));

  // A node is not a field: no subscription, the same kind of line.
  session.protocol.handle_message(R"({"event":"subscribe","data":{"a":1,"missing":1,"b/value":1}})");
  EXPECT_EQ(session.protocol.subscription_count(), 1u);
  EXPECT_TRUE(log.has_line("Error: WebSocket client tried to subscribe to unknown field 'a'"));
  EXPECT_TRUE(log.has_line("Error: WebSocket client tried to subscribe to unknown field 'missing'"));
}

TEST(WebsocketProtocol, MalformedMessagesAreLoggedAndChangeNothing) {
  auto root = build(R"(<a type="analog_io" value="1"/>)");
  Session session(*root);
  LogCapture log;
  std::string deep(100000, '[');
  // Well formed, but writing "data" out again would recurse 100,000 deep.
  std::string deep_data = R"({"event":"set","data":)" + deep + std::string(100000, ']') + "}";
  for (const std::string& message :
       {std::string("{not json"), std::string("[1,2]"), std::string(R"({"data":{}})"),
        std::string(R"({"event":"explode","data":{}})"), std::string(R"({"event":"set","data":[1]})"),
        std::string(R"({"event":"subscribe","data":"a/value"})"), std::string(R"({"event":"set","data":{"a/value":"x"}})"),
        deep, deep_data, std::string("\xff\xfe"), std::string()})
    session.protocol.handle_message(message);
  EXPECT_EQ(at<AnalogIO>(*root, "a").get(), 1.0);
  EXPECT_EQ(session.protocol.subscription_count(), 0u);
  for (const char* part : {"Error: Malformed WebSocket message: {not json", "Error: WebSocket message is not an object",
                           "Error: WebSocket message without an event name", "Error: Unknown WebSocket event 'explode'",
                           "Error: WebSocket 'set' data is not an object: [1]",
                           "Error: WebSocket 'subscribe' data is not an object", "'\\\"x\\\"' is not a double",
                           "Error: WebSocket message nested deeper than 128 levels"})
    EXPECT_TRUE(log.contains(part)) << part;
}

TEST(WebsocketProtocol, AFloodOfBadMessagesCostsAFewLogLines) {
  auto root = build("");
  Session session(*root);
  LogCapture log;
  for (int i = 0; i < 300; ++i) session.protocol.handle_message("nonsense");
  EXPECT_FALSE(log.texts().empty());
  EXPECT_LE(log.texts().size(), 2 * 20u) << "at most twenty per place in the code that logs them";
}

TEST(WebsocketProtocol, RepeatedSubscribeReportsAgainWithoutADuplicate) {
  auto root = build(R"(<a type="analog_io" value="1"/>)");
  Session session(*root);
  session.protocol.handle_message(R"({"event":"subscribe","data":{"a/value":1}})");
  EXPECT_NE(session.push(), "");
  session.protocol.handle_message(R"({"event":"subscribe","data":{"a/value":1}})");
  EXPECT_EQ(session.protocol.subscription_count(), 1u);
  auto again = session.push();
  EXPECT_EQ(again.find("a/value"), again.rfind("a/value")) << again;
  EXPECT_NE(again, "");
  session.protocol.handle_message(R"({"event":"unsubscribe","data":{"a/value":1}})");
  at<AnalogIO>(*root, "a").set(7);
  EXPECT_EQ(session.push(), "");
}

TEST(WebsocketProtocol, HistoryModeReportsEveryChangeUpToItsBound) {
  auto root = build(R"(<a type="analog_io" value="0"/>)");
  Session session(*root);
  session.protocol.handle_message(R"({"event":"subscribe","data":{"a/value":"history"}})");
  session.push();
  for (int i = 1; i <= 3; ++i) at<AnalogIO>(*root, "a").set(i);
  auto push = nlohmann::json::parse(session.push().substr(0));
  auto samples = push["data"]["a/value"];
  ASSERT_EQ(samples.size(), 3u);
  EXPECT_EQ(samples[0][0], 1);
  EXPECT_EQ(samples[2][0], 3);
  EXPECT_LT(samples[0][1].get<uint64_t>(), samples[2][1].get<uint64_t>());

  for (int i = 0; i < 200; ++i) at<AnalogIO>(*root, "a").set(1000 + i);
  samples = nlohmann::json::parse(session.push())["data"]["a/value"];
  ASSERT_EQ(samples.size(), Subscription::kHistoryMax);
  EXPECT_EQ(samples.back()[0], 1199) << "the oldest samples are the ones dropped";
  EXPECT_EQ(session.push(), R"({"event":"history_dropped","data":{"a/value":136}})") << "and the client is told";
  at<AnalogIO>(*root, "a").set(5);
  EXPECT_EQ(session.push().find("history_dropped"), std::string::npos) << "only once";
}

TEST(WebsocketProtocol, ANeverAssignedFieldIsPushedOnceAsNullWithStampZero) {
  auto root = build("");
  auto& node = root->add<Node>(VTree("n"));
  auto& a = node.add<ValueField<double>>("a");
  node.add<ValueField<double>>("b");
  Session session(*root);
  session.protocol.handle_message(R"({"event":"subscribe","data":{"n/a":1,"n/b":"history"}})");
  auto first = nlohmann::json::parse(session.push());
  EXPECT_EQ(first["data"]["n/a"].dump(), "[[null,0]]");
  EXPECT_EQ(first["data"]["n/b"].dump(), "[[null,0]]");
  EXPECT_EQ(session.push(), "") << "once";
  a.set(2);
  EXPECT_EQ(nlohmann::json::parse(session.push())["data"]["n/a"][0][0], 2);
}

namespace {
// A field whose report takes 0.3 s of (manual) time.
class SlowField : public ValueField<double> {
 public:
  SlowField(std::string name, ManualClock& clock) : ValueField<double>(std::move(name)), clock_(clock) {}
  void write_json(std::string& out) const override {
    clock_.advance(0.3);
    ValueField<double>::write_json(out);
  }

 private:
  ManualClock& clock_;
};
}  // namespace

TEST(WebsocketProtocol, PassStopsAfterHalfASecondAndTheNextGoesOnWhereItStopped) {
  ManualClockScope time;
  auto root = build("");
  auto& node = root->add<Node>(VTree("slow"));
  for (const char* name : {"a", "b", "c", "d"}) node.add<SlowField>(name, time.clock).set(1);
  Session session(*root);
  LogCapture log;
  session.protocol.handle_message(R"({"event":"subscribe","data":{"slow/a":1,"slow/b":1,"slow/c":1,"slow/d":1}})");

  std::string out;
  auto first = session.protocol.write_push(out);
  EXPECT_FALSE(first.complete);
  EXPECT_NE(out.find("slow/a"), std::string::npos);
  EXPECT_NE(out.find("slow/b"), std::string::npos);
  EXPECT_EQ(out.find("slow/c"), std::string::npos);
  EXPECT_TRUE(log.has_line("Slow WebSocket response time: 0.6 seconds")) << log.texts().size();

  session.protocol.write_push(out);
  EXPECT_NE(out.find("slow/c"), std::string::npos);
  EXPECT_NE(out.find("slow/d"), std::string::npos);
  EXPECT_EQ(out.find("slow/a"), std::string::npos);

  auto third = session.protocol.write_push(out);
  EXPECT_TRUE(third.complete);
  EXPECT_FALSE(third.wrote);
}

// ---------------------------------------------------------- document root

TEST(WebDocumentRoot, TargetsThatLeaveTheRootAreRefusedEvenEncodedOrThroughLinks) {
  TempDir dir;
  dir.write("web/index.html", "<p>home</p>");
  dir.write("web/docs/guide.html", "guide");
  dir.write("secret.txt", "top secret");
  fs::create_symlink(dir.path() / "secret.txt", dir.path() / "web/out_link.txt");
  fs::create_symlink("/etc", dir.path() / "web/etc");
  fs::create_symlink("docs/guide.html", dir.path() / "web/in_link.html");
  DocumentRoot documents((dir.path() / "web").string());
  LogCapture log;
  DocumentRoot::Document file;
  for (const char* target : {"/../secret.txt", "/%2e%2e/secret.txt", "/%2E%2E%2fsecret.txt", "/docs/../../secret.txt",
                             "/out_link.txt", "/etc/passwd", "http://host/../secret.txt", "/%00index.html", "/%zz"}) {
    EXPECT_EQ(documents.find(target, file), DocumentRoot::Result::Refused) << target;
    EXPECT_EQ(file.content.find("secret"), std::string::npos) << target;
  }
  EXPECT_TRUE(log.contains("Error: Refused HTTP target '/../secret.txt'"));
  EXPECT_TRUE(log.contains("Error: Refused HTTP target '/out_link.txt': it resolves outside the document root"));

  ASSERT_EQ(documents.find("/in_link.html", file), DocumentRoot::Result::Found);
  EXPECT_EQ(file.content, "guide");
  ASSERT_EQ(documents.find("/docs/./guide.html?x=../..", file), DocumentRoot::Result::Found);
  EXPECT_EQ(file.content, "guide");
}

TEST(WebDocumentRoot, FoldersGiveTheirIndexAndBareNamesTryHtml) {
  TempDir dir;
  dir.write("index.html", "home");
  dir.write("docs/index.html", "docs home");
  dir.write("interlocks.html", "overview");
  dir.write("app.js", "export {}");
  DocumentRoot documents(dir.path().string());
  DocumentRoot::Document file;
  ASSERT_EQ(documents.find("/", file), DocumentRoot::Result::Found);
  EXPECT_EQ(file.content, "home");
  EXPECT_EQ(file.content_type, "text/html");
  EXPECT_EQ(file.cache_control, "no-store");
  ASSERT_EQ(documents.find("/docs", file), DocumentRoot::Result::Found);
  EXPECT_EQ(file.content, "docs home");
  ASSERT_EQ(documents.find("/interlocks", file), DocumentRoot::Result::Found);
  EXPECT_EQ(file.content, "overview");
  ASSERT_EQ(documents.find("/app.js", file), DocumentRoot::Result::Found);
  EXPECT_EQ(file.content_type, "text/javascript");
  EXPECT_EQ(file.cache_control, "public max-age=600");
  EXPECT_EQ(documents.find("/missing.css", file), DocumentRoot::Result::NotFound);
  EXPECT_EQ(DocumentRoot(dir.path().string() + "/absent").find("/", file), DocumentRoot::Result::NotFound);
}

TEST(WebDocumentRoot, KeptFilesAreServedFreshAfterEditsAndSwappedLinksAreJudgedAgain) {
  TempDir dir;
  dir.write("web/page.html", "first");
  dir.write("secret.txt", "top secret");
  DocumentRoot documents((dir.path() / "web").string());
  DocumentRoot::Document file;
  ASSERT_EQ(documents.find("/page.html", file), DocumentRoot::Result::Found);
  ASSERT_EQ(documents.find("/page.html", file), DocumentRoot::Result::Found);  // now from memory
  EXPECT_EQ(file.content, "first");

  dir.write("web/page.html", "second, longer");
  ASSERT_EQ(documents.find("/page.html", file), DocumentRoot::Result::Found);
  EXPECT_EQ(file.content, "second, longer");

  fs::remove(dir.path() / "web/page.html");
  fs::create_symlink(dir.path() / "secret.txt", dir.path() / "web/page.html");
  file.content.clear();
  EXPECT_EQ(documents.find("/page.html", file), DocumentRoot::Result::Refused);
  EXPECT_EQ(file.content.find("secret"), std::string::npos);
}

// ------------------------------------------------------------------ HTTP API

namespace {
// The router with anonymous writes let in (as an operator's), unless told otherwise.
struct Api : RouterRig {
  explicit Api(const std::string& inner, WebAccessSettings settings = {.anonymous_write = true})
      : RouterRig(build(inner), std::move(settings)) {}
};
}  // namespace

TEST(WebHttpApi, TreeReadsGiveTheSameTextAsTheVertexJson) {
  Api api(R"(<channels type="component"><t type="analog_io" value="21.5"/><p type="digital_io"/></channels>)");
  auto& channels = *api.root->find_path("channels");
  for (const char* target : {"/io/channels.json", "/io/channels/index.json", "/io/channels"}) {
    auto reply = api.call("GET", target);
    EXPECT_EQ(reply.status, 200u);
    EXPECT_EQ(reply.body, channels.json()) << target;
    EXPECT_EQ(reply.content_type, "application/json");
    EXPECT_EQ(reply.cache_control, "no-store");
  }
  EXPECT_EQ(api.call("GET", "/io/channels/t/value.json").body, "21.5");
  EXPECT_EQ(api.call("GET", "/io").body, api.root->json());
  auto missing = api.call("GET", "/io/nothing.json");
  EXPECT_EQ(missing.status, 404u);
  EXPECT_EQ(missing.body, "File not found");
}

TEST(WebHttpApi, SetAnswersSuccessOrFailedWithTheReason) {
  Api api(R"(<t type="analog_io" value="1" units="degC"/>)");
  LogCapture log;
  auto ok = api.call("PUT", "/io/t.json", "2.5\n");
  EXPECT_EQ(ok.body, R"({"status":"success"})");
  EXPECT_EQ(at<AnalogIO>(*api.root, "t").get(), 2.5);
  EXPECT_EQ(api.call("POST", "/io/t/value", "-4").body, R"({"status":"success"})");
  EXPECT_EQ(at<AnalogIO>(*api.root, "t").get(), -4.0);

  struct Case {
    const char* target;
    const char* body;
    unsigned status;
    const char* reason;
  };
  // Refusals by the kind of field, the caller and the page: WebAccessTable.
  for (auto& c : {Case{"/io/t", "warm", 400, "'warm' is not a double"}, Case{"/io/none", "1", 404, "nothing at that path"},
                  Case{"/io/pulse", "1", 404, "node without a value"}}) {
    auto reply = api.call("PUT", c.target, c.body);
    EXPECT_EQ(reply.status, c.status) << c.target;
    EXPECT_EQ(reply.body, R"({"status":"failed"})") << c.target;
    EXPECT_NE(reply.error.find(c.reason), std::string::npos) << reply.error;
  }
  EXPECT_EQ(at<AnalogIO>(*api.root, "t").get(), -4.0);
  EXPECT_TRUE(log.contains("User http anonymous (operator) set 't/value' from 2.5 to -4"));
}

TEST(WebHttpApi, TreeDescriptionCarriesWhatAPageNeedsToDrawAnyNode) {
  Api api(R"(<ch type="component" label="Channels"><t type="analog_io" label="Temp" units="degC" format="%.2f" value="3"/></ch>)");
  at<Node>(*api.root, "io_server/json_test").set_attribute("confirm", "Run the self-check now?");
  auto tree = nlohmann::json::parse(api.call("GET", "/api/tree/ch?depth=1").body);
  EXPECT_EQ(tree["kind"], "node");
  EXPECT_EQ(tree["label"], "Channels");
  EXPECT_EQ(tree["nodes"], 1);
  auto& t = tree["children"][0];
  EXPECT_EQ(t["kind"], "io");
  EXPECT_EQ(t["type"], "AnalogIO");
  EXPECT_EQ(t["units"], "degC");
  EXPECT_EQ(t["value"]["path"], "ch/t/value");
  EXPECT_EQ(t["value"]["value"], 3);
  EXPECT_EQ(t["value"]["units"], "degC");
  EXPECT_EQ(t["format"], "%.2f");
  EXPECT_EQ(t["value"]["format"], "%.2f") << "an IO's value takes the IO's format";
  EXPECT_EQ(t["value"]["role"], "operator");
  EXPECT_FALSE(t.contains("children")) << "depth 1 ends here";

  auto self_test = nlohmann::json::parse(api.call("GET", "/api/tree/io_server/json_test?depth=0").body);
  ASSERT_EQ(self_test["buttons"].size(), 1u);
  EXPECT_EQ(self_test["buttons"][0]["name"], "run_button");
  EXPECT_EQ(self_test["buttons"][0]["kind"], "button");
  EXPECT_EQ(self_test["buttons"][0]["confirm"], true);
  EXPECT_EQ(self_test["confirm"], "Run the self-check now?");

  auto log = nlohmann::json::parse(api.call("GET", "/io/log").body);
  EXPECT_TRUE(log.contains("value"));
  auto logged = nlohmann::json::parse(api.call("GET", "/api/log?after=0&limit=5").body);
  EXPECT_LE(logged["records"].size(), 5u);
  EXPECT_EQ(api.call("GET", "/api/unknown").status, 404u);
}

// A node type whose name says it is an interlock, wherever it is configured.
class OverviewTestInterlock : public StateIO<int> {
 public:
  explicit OverviewTestInterlock(const VTree& config) : StateIO<int>(config) {}
};
ZEL_REGISTER_NODE("overview_test_interlock", OverviewTestInterlock);

TEST(WebHttpApi, InterlockOverviewListsInterlocksAndColouredNodesOfTheManagerOnly) {
  Api api(R"(<interlocks><door type="digital_io" label="Door" color="green"/>
                         <hid type="digital_io" color="red" hidden="true"/></interlocks>
             <vacuum type="overview_test_interlock" label="Vacuum" value="1"/>
             <fit type="analog_io" color="red"/><plain type="analog_io"/>)");
  auto overview = nlohmann::json::parse(api.call("GET", "/api/interlocks").body);
  std::vector<std::string> paths;
  for (auto& item : overview["items"]) paths.push_back(item["path"]);
  EXPECT_EQ(paths, (std::vector<std::string>{"interlocks/door", "vacuum"}));
  auto& door = overview["items"][0];
  EXPECT_EQ(door["label"], "Door");
  EXPECT_EQ(door["color"], "green");
  EXPECT_EQ(door["color_field"], "interlocks/door/color");
  EXPECT_EQ(door["state_field"], "interlocks/door/value");
  EXPECT_EQ(overview["items"][1]["state"], 1);
  EXPECT_FALSE(door.contains("inputs")) << "a coloured node is no interlock";
  EXPECT_EQ(overview["manager"]["path"], "interlocks");
}

TEST(WebHttpApi, TheInterlockReportTheManagerWritesCanBeDownloadedAndNothingBesideIt) {
  Api api("");
  auto& manager = *api.root->find_path("interlocks");
  dynamic_cast<ButtonField&>(*static_cast<Node&>(manager).field("generate_report_csv")).press();
  auto report = api.call("GET", "/reports/interlock_report.csv");
  EXPECT_EQ(report.status, 200u);
  EXPECT_EQ(report.content_type, "text/csv");
  EXPECT_TRUE(report.body.starts_with("Path,Parent,Label,Detail\r\n")) << report.body;
  std::ofstream(Paths::data_root() + "/secret.txt") << "top secret";
  for (const char* target : {"/reports/../secret.txt", "/reports/%2e%2e/secret.txt", "/reports/none.csv"})
    EXPECT_EQ(api.call("GET", target).status, 404u) << target;
}

TEST(WebHttpApi, OtherMethodsGet405AndALogLine) {
  Api api("");
  LogCapture log;
  for (const char* method : {"DELETE", "PATCH", "BREW"}) {
    auto reply = api.call(method, "/io/pulse");
    EXPECT_EQ(reply.status, 405u);
    EXPECT_EQ(reply.allow, "GET, HEAD, PUT, POST");
  }
  EXPECT_EQ(api.call("PUT", "/index.html").allow, "GET, HEAD");
  EXPECT_EQ(api.call("GET", "/api/login").allow, "POST");
  EXPECT_TRUE(log.contains("Error: HTTP method DELETE is not allowed for '/io/pulse'"));
}

// ------------------------------------------------------- server on sockets

namespace {
// The messages a client receives up to the first that holds `part` (that one
// counted), each within `wait` of the one before; nothing if it never comes.
std::optional<int> messages_until(web_client::WebSocketClient& client, std::string_view part,
                                  std::chrono::milliseconds wait) {
  int count = 0;
  while (auto message = client.receive(wait)) {
    ++count;
    if (message->find(part) != std::string::npos) return count;
  }
  return std::nullopt;
}

class WebServerTest : public ::testing::Test {
 protected:
  void start(const std::string& inner = "", const std::string& server_settings = "") {
    Paths::set_data_root(dir.path().string());
    dir.write("web/index.html", "<!doctype html><title>ZEL</title>");
    dir.write("web/app.js", "export const x = 1;");
    dir.write("secret.txt", "top secret");
    root = build(R"(<web_server type="web_server" port="0" )" + server_settings + "/>" + inner);
    root->initialize();
    server = &at<WebServer>(*root, "web_server");
    port = server->port();
    ASSERT_NE(port, 0);
  }
  void TearDown() override { root.reset(); }

  TempDir dir;
  std::unique_ptr<Root> root;
  WebServer* server = nullptr;
  uint16_t port = 0;
  web_client::net::io_context io;
};
}  // namespace

TEST_F(WebServerTest, ListensOnAFreePortAndShowsItInFieldAndLog) {
  LogCapture log;
  start();
  EXPECT_EQ(at<ValueField<int>>(*root, "web_server/port").get(), port);
  EXPECT_TRUE(log.has_line("Web server listening on port " + std::to_string(port)));
  auto page = web_client::get(port, "/");
  EXPECT_EQ(page.status, 200u);
  EXPECT_EQ(page.body, "<!doctype html><title>ZEL</title>");
  EXPECT_EQ(page.content_type, "text/html");
  auto script = web_client::get(port, "/app.js");
  EXPECT_EQ(script.cache_control, "public max-age=600");
  auto missing = web_client::get(port, "/nothing.png");
  EXPECT_EQ(missing.status, 404u);
  EXPECT_EQ(missing.body, "File not found");
  auto head = web_client::request(port, verb::head, "/app.js");
  EXPECT_EQ(head.status, 200u);
  EXPECT_EQ(head.body, "");
}

TEST_F(WebServerTest, SettingsOutOfRangeAreRefusedWithTheRangeAndTheServerRunsOnItsDefaults) {
  Root::reset_configuration_errors();
  LogCapture log;
  start("", R"(threads="0" session_timeout="-5" http_body_max="0" push_spacing="5000")");
  for (const char* line : {"Setting 'threads' of 'web_server' refused: 0 is out of range: takes from 1 to 64",
                           "Setting 'session_timeout' of 'web_server' refused: -5 is out of range: takes from 1 to "
                           "31536000",
                           "Setting 'http_body_max' of 'web_server' refused: 0 is out of range: takes from 1 to "
                           "2147483647",
                           "Setting 'push_spacing' of 'web_server' refused: 5000 is out of range: takes from 0 to 1000"})
    EXPECT_TRUE(log.contains(line)) << line;
  EXPECT_EQ(Root::configuration_errors(), 4u);
  EXPECT_EQ(at<ValueField<int>>(*root, "web_server/http_body_max").get(), 1 << 20);
  EXPECT_EQ(at<ValueField<int>>(*root, "web_server/session_timeout").get(), 1800);
  EXPECT_EQ(web_client::get(port, "/").status, 200u);
}

TEST_F(WebServerTest, ABusyPortIsAStartFailureNamingThePort) {
  start();
  LogCapture log;
  auto second = build(R"(<web_server type="web_server" port=")" + std::to_string(port) + R"("/>)");
  second->initialize();
  EXPECT_EQ(at<WebServer>(*second, "web_server").port(), 0);
  EXPECT_TRUE(second->start_failed()) << "the program stops instead of running without its page";
  EXPECT_TRUE(log.contains(fmt::format("Error: Web server cannot listen on port {} (bind: ", port)));
  EXPECT_EQ(web_client::get(port, "/").status, 200u) << "the first server is unaffected";
}

TEST_F(WebServerTest, TraversalOverTheWireNeverServesAFileOutsideTheRoot) {
  start();
  fs::create_symlink(dir.path() / "secret.txt", dir.path() / "web/link.txt");
  for (const char* target : {"/../secret.txt", "/%2e%2e/secret.txt", "/..%2fsecret.txt", "/link.txt",
                             "//../secret.txt", "/web/../../secret.txt"}) {
    auto answer = web_client::raw_exchange(port, std::string("GET ") + target + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(answer.find("top secret"), std::string::npos) << target;
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 404")) << target << ": " << answer.substr(0, 40);
  }
}

TEST_F(WebServerTest, BadRequestsAreAnsweredAndClosedWhileOthersAreServed) {
  start();
  LogCapture log;
  EXPECT_TRUE(web_client::raw_exchange(port, "GARBAGE\r\n\r\n").starts_with("HTTP/1.1 400"));
  EXPECT_TRUE(log.contains("Error: Bad HTTP request: "));
  auto big = web_client::raw_exchange(port, "PUT /io/pulse/rate HTTP/1.1\r\nHost: x\r\nContent-Length: 50000000\r\n\r\n");
  EXPECT_TRUE(big.starts_with("HTTP/1.1 413")) << big.substr(0, 40);
  auto header = web_client::raw_exchange(port, "GET / HTTP/1.1\r\nX-Big: " + std::string(40000, 'a') + "\r\n\r\n");
  EXPECT_TRUE(header.starts_with("HTTP/1.1 431")) << header.substr(0, 40);
  EXPECT_EQ(web_client::request(port, verb::delete_, "/io/pulse").status, 405u);
  // Pipelined requests are answered in order on one connection.
  auto both = web_client::raw_exchange(
      port, "GET /io/pulse/rate HTTP/1.1\r\nHost: x\r\n\r\nGET /missing HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  auto first = both.find("HTTP/1.1 200"), second = both.find("HTTP/1.1 404");
  EXPECT_NE(first, std::string::npos);
  EXPECT_NE(second, std::string::npos);
  EXPECT_LT(first, second);
  EXPECT_EQ(web_client::get(port, "/").status, 200u);
}

TEST_F(WebServerTest, AClientThatExpectsContinueIsAskedForTheBodyBeforeSendingIt) {
  start(R"(<t type="analog_io" value="1.5"/>)", R"(anonymous_write="true")");
  web_client::RawConnection connection(port);
  connection.send("PUT /io/t/value HTTP/1.1\r\nHost: 127.0.0.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");
  // curl would wait a second for this before sending the body anyway.
  auto interim = connection.read_until("\r\n\r\n", std::chrono::milliseconds(500));
  EXPECT_TRUE(interim.starts_with("HTTP/1.1 100 Continue\r\n")) << interim;
  connection.send("42.5");
  auto answer = connection.read_until(std::string(HttpRouter::kSuccess));
  EXPECT_NE(answer.find("HTTP/1.1 200"), std::string::npos) << answer;
  EXPECT_EQ(at<AnalogIO>(*root, "t").get(), 42.5);

  // Too large a body is refused with the header: the client never sends it.
  auto refused = web_client::raw_exchange(
      port, "PUT /io/t/value HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 50000000\r\n\r\n");
  EXPECT_TRUE(refused.starts_with("HTTP/1.1 413")) << refused.substr(0, 40);
}

TEST_F(WebServerTest, AHugeMessageClosesOnlyThatConnection) {
  start(R"(<t type="analog_io" value="1"/>)");
  LogCapture log;
  web_client::WebSocketClient big(io, port), other(io, port);
  other.send(R"({"event":"subscribe","data":{"t/value":1}})");
  ASSERT_TRUE(other.receive(5s));
  try {
    big.send(R"({"event":"set","data":{"t/value":")" + std::string(2u << 20, 'x') + "\"}}");
  } catch (const boost::system::system_error&) {
    // Closed by the server before the whole message was out: as refused.
  }
  EXPECT_FALSE(big.receive(5s));
  // The close frame may be overtaken by the reset of the unread rest.
  if (big.last_error() == web_client::websocket::error::closed) {
    EXPECT_EQ(big.stream().reason().code, web_client::websocket::close_code::too_big);
  }
  EXPECT_TRUE(wait_until([&] { return log.contains("Error: WebSocket message of more than 1048576 bytes refused"); }));
  at<AnalogIO>(*root, "t").set(9);
  EXPECT_TRUE(other.receive_containing("[[9,", 5s));
}

TEST_F(WebServerTest, PushesToAClientAreAtLeastThePushSpacingApart) {
  start(R"(<t type="analog_io" value="0"/>)", R"(push_spacing="200")");
  web_client::WebSocketClient client(io, port);
  client.send(R"({"event":"subscribe","data":{"t/value":1}})");
  ASSERT_TRUE(client.receive(5s));
  // 50 changes over about half a second: at most one push per 200 ms.
  auto begin = std::chrono::steady_clock::now();
  for (int i = 1; i <= 50; ++i) {
    at<AnalogIO>(*root, "t").set(i);
    std::this_thread::sleep_for(10ms);
  }
  auto changing = std::chrono::steady_clock::now() - begin;
  auto pushes = messages_until(client, "[[50,", 1s);
  ASSERT_TRUE(pushes) << "the last value never came";
  EXPECT_GE(*pushes, 2);
  EXPECT_LE(*pushes, 2 + changing / 200ms) << "pushes came closer than the spacing";
}

TEST_F(WebServerTest, AStalledClientDelaysNobodyAndGetsEachFieldsLatestValueInOrder) {
  start(R"(<big type="string_io"/><t type="analog_io" value="0"/>)", R"(threads="1")");
  // The stalled client reads nothing while 200 large values are pushed at
  // it; its session shares the one network thread with the fast client's.
  web_client::WebSocketClient stalled(io, port, false, 4096), fast(io, port);
  stalled.send(R"({"event":"subscribe","data":{"big/value":1}})");
  fast.send(R"({"event":"subscribe","data":{"t/value":1}})");
  ASSERT_TRUE(fast.receive(5s));
  for (int i = 0; i < 200; ++i) {
    at<StringIO>(*root, "big").set(std::to_string(i) + std::string(100000, 'x'));
    std::this_thread::sleep_for(1ms);
  }
  at<StringIO>(*root, "big").set("final");
  // Served while the stalled client's write is still out: it never reads
  // until the fast client has every one of these.
  for (int i = 1; i <= 5; ++i) {
    at<AnalogIO>(*root, "t").set(i);
    ASSERT_TRUE(fast.receive_containing("[[" + std::to_string(i) + ",", 5s)) << "push " << i << " never came";
  }

  // What the stalled client gets: values that only grow, ending with the
  // last one; the intermediate ones it could not take are skipped.
  int messages = 0, last = -1;
  bool final_came = false;
  while (auto message = stalled.receive(2s)) {
    ++messages;
    auto at_sample = message->find("[[\"");
    if (at_sample == std::string::npos) continue;  // the field before its first set
    auto text = message->substr(at_sample + 3, 6);
    if (text.starts_with("final")) {
      final_came = true;
      break;
    }
    if (!std::isdigit(static_cast<unsigned char>(text[0]))) continue;
    int value = std::stoi(text);
    EXPECT_GT(value, last) << "an older value came after a newer one";
    last = value;
  }
  EXPECT_TRUE(final_came) << "the final value never came";
  EXPECT_LT(messages, 100) << "intermediate values are skipped, not queued";
}

TEST_F(WebServerTest, AThousandWebSocketClientsAreAllServed) {
  raise_open_file_limit();
  start(R"(<t type="analog_io" value="0"/>)", R"(connections_per_address_max="2000")");
  constexpr int kClients = 1000;
  std::vector<std::unique_ptr<web_client::WebSocketClient>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<web_client::WebSocketClient>(io, port));
    clients.back()->send(R"({"event":"subscribe","data":{"t/value":1}})");
  }
  auto& sessions = at<ValueField<unsigned int>>(*root, "web_server/websocket_sessions");
  EXPECT_TRUE(wait_until([&] { return sessions.get() == kClients; }, 20s)) << sessions.get();
  at<AnalogIO>(*root, "t").set(77);
  int served = 0;
  for (auto& client : clients)
    if (client->receive_containing("[[77,", 10s)) ++served;
  EXPECT_EQ(served, kClients);
}

TEST_F(WebServerTest, StopClosesEveryConnection) {
  start(R"(<t type="analog_io" value="0"/>)");
  web_client::WebSocketClient client(io, port);
  client.send(R"({"event":"subscribe","data":{"t/value":1}})");
  ASSERT_TRUE(client.receive(5s));
  root->stop_all();
  EXPECT_FALSE(client.receive(5s));
  at<AnalogIO>(*root, "t").set(5);  // a change after the stop reaches no session
  EXPECT_THROW(web_client::get(port, "/"), boost::system::system_error);
}

TEST_F(WebServerTest, AnUpgradePipelinedBehindALargeReplyWaitsUntilTheReplyIsWritten) {
  start();
  constexpr size_t kSize = 8u << 20;
  dir.write("web/big.bin", std::string(kSize, 'b'));
  web_client::RawConnection connection(port);
  connection.send("GET /big.bin HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"
                  "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
                  "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
  auto& received = connection.read_until("101 Switching Protocols", 20s);
  auto body = received.find("\r\n\r\n");
  ASSERT_NE(body, std::string::npos);
  EXPECT_TRUE(received.starts_with("HTTP/1.1 200")) << received.substr(0, 40);
  EXPECT_EQ(received.find("HTTP/1.1 101"), body + 4 + kSize) << "the switch comes right after the whole body";
}

TEST_F(WebServerTest, WebSocketsGetExactPushesAndCarryTheirSessionAndForeignPagesGetNone) {
  start(R"(<t type="analog_io" value="1.5"/>)");
  auto& access = server->access();
  auto session = access.sessions().open("olga", Role::Operator);
  LogCapture log;
  auto foreign = web_client::raw_exchange(
      port, "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://evil.example\r\nConnection: Upgrade\r\n"
            "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
            "Cookie: zel_session=" + session + "\r\n\r\n");
  EXPECT_TRUE(foreign.starts_with("HTTP/1.1 403")) << foreign.substr(0, 40);
  EXPECT_TRUE(log.contains("Error: Cross-origin GET of '/' from 127.0.0.1:"));
  EXPECT_TRUE(log.contains("refused: the page of 'http://evil.example' is not this instrument's own"));

  web_client::WebSocketClient olga(io, port, true, 0,
                                   {{"Cookie", "zel_session=" + session}, {"Origin", "http://127.0.0.1"}});
  olga.send(R"({"event":"subscribe","data":{"t/value":1}})");
  auto first = olga.receive(5s);
  ASSERT_TRUE(first);
  EXPECT_EQ(*first, R"({"event": "update","data":{"t/value":[[1.5,)" + stamp_of(*root, "t/value") + "]]}}");
  at<AnalogIO>(*root, "t").set(2.25);
  auto changed = olga.receive(5s);
  ASSERT_TRUE(changed);
  EXPECT_EQ(*changed, R"({"event": "update","data":{"t/value":[[2.25,)" + stamp_of(*root, "t/value") + "]]}}");

  olga.send(R"({"event":"set","data":{"t/value":-3}})");
  ASSERT_TRUE(olga.receive_containing("[[-3,", 5s));
  EXPECT_TRUE(log.contains("set 't/value' from 2.25 to -3"));
  EXPECT_TRUE(log.contains("User websocket olga (operator) 127.0.0.1:"));
  EXPECT_EQ(at<ValueField<unsigned int>>(*root, "web_server/websocket_sessions").get(), 1u) << "the foreign one got none";

  access.sessions().close(session);  // logged out elsewhere: the open socket loses its rights too
  olga.send(R"({"event":"set","data":{"t/value":7}})");
  EXPECT_TRUE(wait_until([&] { return log.contains("log in to change 't/value'"); }));
  EXPECT_EQ(at<AnalogIO>(*root, "t").get(), -3.0);
}

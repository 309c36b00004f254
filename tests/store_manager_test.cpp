#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "core/io/io.hpp"
#include "core/root.hpp"
#include "core/store_manager.hpp"
#include "core/store_text.hpp"
#include "log_capture.hpp"
#include "test_tree.hpp"
#include "std/atomic_file.hpp"
#include "std/paths.hpp"
#include "wait_until.hpp"
#include "zel_process.hpp"
#include "tree_access.hpp"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// A fresh data root for one test, removed afterwards.
class DataRoot : public TempDir {
 public:
  DataRoot() { Paths::set_data_root(dir()); }
  std::string dir() const { return path().string(); }
  std::string store(const std::string& name) const { return Paths::store_file(name); }
};

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void write_text(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path) << text;
}

std::unique_ptr<Root> start(const std::string& xml) {
  auto root = build_tree(xml);
  root->initialize();
  return root;
}

StoreManager& stores(Root& root) { return dynamic_cast<StoreManager&>(*root.find_path("admin/store_manager")); }

// The real program on `config`, with the data root as its working folder.
std::unique_ptr<ZelProcess> start_zel(const DataRoot& data, const std::string& config) {
  auto arguments = ZelProcess::arguments_for(data);
  arguments.push_back(config);
  return std::make_unique<ZelProcess>(ZEL_BINARY, arguments);
}

// Timers off: only explicit saves, the service action and shutdown write.
constexpr const char* kQuiet = R"(<admin><store_manager save_delay="0" hourmeter_period="0"/></admin>)";

std::string quiet(const std::string& body) { return std::string("<root>") + kQuiet + body + "</root>"; }


}  // namespace

TEST(StoreFile, MissingFileLoadsNothingAndKeepsTheConfiguredDefault) {
  DataRoot data;
  LogCapture log;
  auto root = start(quiet(R"(<x type="analog_io" store="config" value="3"/>)"));
  EXPECT_EQ(at<AnalogIO>(*root, "x").get(), 3.0);
  for (auto& t : log.texts()) EXPECT_EQ(t.find("Error: "), std::string::npos) << t;
}

TEST(StoreFile, ThreeMembersRoundTripInTheWritersExactLayout) {
  DataRoot data;
  const std::string xml = quiet(R"(<a type="analog_io" store="config"/><b type="digital_io" store="config"/>
                                   <c type="string_io" store="config"/>)");
  {
    auto root = start(xml);
    at<AnalogIO>(*root, "a").set(1.5);
    at<DigitalIO>(*root, "b").set(true);
    at<StringIO>(*root, "c").set("say \"hi\"");
    EXPECT_TRUE(stores(*root).save("config"));
  }
  EXPECT_EQ(read_text(data.store("config")), "{\n \"a\": 1.5,\n \"b\": true,\n \"c\": \"say \\\"hi\\\"\"\n}");
  auto root = start(xml);
  EXPECT_EQ(at<AnalogIO>(*root, "a").get(), 1.5);
  EXPECT_EQ(at<DigitalIO>(*root, "b").get(), true);
  EXPECT_EQ(at<StringIO>(*root, "c").get(), "say \"hi\"");
}

TEST(StoreFile, AllValueTypesRoundTrip) {
  DataRoot data;
  const std::string xml = quiet(R"(<t type="stored_types"/>)");
  std::map<std::string, std::string> before;
  {
    auto root = start(xml);
    at<ValueField<bool>>(*root, "t/b").set(true);
    at<ValueField<int>>(*root, "t/i").set(std::numeric_limits<int>::min());
    at<ValueField<unsigned char>>(*root, "t/u8").set(255);
    at<ValueField<unsigned short>>(*root, "t/u16").set(65535);
    at<ValueField<unsigned int>>(*root, "t/u32").set(4294967295u);
    at<ValueField<unsigned long long>>(*root, "t/u64").set(18446744073709551615ull);
    at<ValueField<float>>(*root, "t/f").set(0.1f);
    at<ValueField<double>>(*root, "t/d").set(-1.0 / 3.0);
    at<ValueField<std::string>>(*root, "t/s").set("tab\t, quote \" and \xc2\xb5");
    at<ValueField<std::vector<bool>>>(*root, "t/vb").set({true, false, true});
    at<ValueField<std::vector<double>>>(*root, "t/vd").set({1e-300, 2.5, -0.0});
    at<ValueField<std::vector<std::string>>>(*root, "t/vs").set({"", "x,y", "[z]"});
    EXPECT_TRUE(stores(*root).save("config"));
    // Each value's text stands for it exactly (FieldTypes pins that per type).
    for (auto& path : stores(*root).member_paths("config")) before[path] = at<FieldBase>(*root, path).json();
  }
  auto root = start(xml);
  ASSERT_EQ(before.size(), 12u);
  for (auto& [path, text] : before) EXPECT_EQ(at<FieldBase>(*root, path).json(), text) << path;
}

TEST(StoreFile, NoMembersNoFileAndNeverAssignedMembersAreLeftOut) {
  DataRoot data;
  auto root = start(quiet(R"(<set type="analog_io" store="config" value="1"/><unset type="analog_io" store="config"/>)"));
  EXPECT_FALSE(stores(*root).save("network"));
  stores(*root).service();
  EXPECT_FALSE(fs::exists(data.store("network")));
  EXPECT_EQ(read_text(data.store("config")), "{\n \"set\": 1\n}");
}

TEST(StoreText, SplitsMembersInFileOrderWithTheirValueTextsAsTheyStand) {
  std::vector<std::string> seen;
  auto collect = [&](std::string_view path, std::string_view value) {
    seen.push_back(std::string(path) + "=" + std::string(value));
  };
  std::string error;
  // A byte-order mark, odd blanks, brackets and an escaped quote inside strings,
  // an escaped key and a repeated one.
  std::string text = "\xEF\xBB\xBF {" R"("z":["]}\"",{"a":[1]}] ,)" "\r\n\t" R"("b\u002Fq" :-1.5e3, "m":{}, "z":"}"})" "\n";
  ASSERT_TRUE(StoreText::parse(text, collect, error)) << error;
  EXPECT_EQ(seen, (std::vector<std::string>{R"(z=["]}\"",{"a":[1]}])", "b/q=-1.5e3", "m={}", R"(z="}")"}));
  seen.clear();
  EXPECT_TRUE(StoreText::parse(" {}", collect, error));
  EXPECT_FALSE(StoreText::parse(R"({"a": 1, "b": )", collect, error));
  EXPECT_TRUE(seen.empty());  // nothing of a malformed file is applied
}

TEST(Members, FieldsAndIOsJoinInTreeOrderAndUnknownStoreNamesAreLogged) {
  DataRoot data;
  LogCapture log;
  auto root = start(quiet(R"(<z type="analog_io" store="interlocks"/><t type="stored_types"/>
                             <a type="digital_io" store="interlocks"/><odd type="analog_io" store="interlock"/>)"));
  auto& manager = stores(*root);
  EXPECT_EQ(manager.member_paths("interlocks"), (std::vector<std::string>{"z", "a"}));
  auto config = manager.member_paths("config");
  ASSERT_EQ(config.size(), 12u);
  EXPECT_EQ(config.front(), "t/b");
  EXPECT_EQ(config.back(), "t/vs");
  EXPECT_TRUE(log.contains("Error: Unknown store 'interlock' for 'odd'"));
}

TEST(Loading, UnknownPathsAreSkippedSilentlyAndNonValuesAreLogged) {
  DataRoot data;
  write_text(data.store("config"), R"({"gone/x": 5, "box": 1, "x": 7, "box/label": "Box"})");
  LogCapture log;
  auto root = start(quiet(R"(<x type="analog_io" store="config"/><box type="component" label="Crate"/>)"));
  EXPECT_EQ(at<AnalogIO>(*root, "x").get(), 7.0);
  // An attribute describes its node: a store restores values, never those.
  EXPECT_EQ(dynamic_cast<Node&>(*root->find_path("box")).label(), "Crate");
  std::vector<std::string> errors;
  for (auto& e : log.entries())
    if (e.level == LogLevel::Error) errors.push_back(e.source + " " + e.text);
  EXPECT_EQ(errors, (std::vector<std::string>{
                        "src/core/store_manager Error: Vertex is neither Field or IO 'box",
                        "src/core/write_path Error: User can't set Field, readonly store config box/label: describes "
                        "its node and is not a value"}));
}

// A store restores settings and values; it never presses a button or sets a
// state, and a store manager's delays are checked like every other setting.
TEST(Loading, StoresRestoreValuesOnlyAndAbsurdDelaysAreRefused) {
  DataRoot data;
  write_text(data.store("config"),
             R"({"admin/store_manager/service_button": true, "interlocks/summary": "error", "x": 7})");
  Root::reset_configuration_errors();
  LogCapture log;
  auto root = start(R"(<root><admin><store_manager save_delay="1e-9" hourmeter_period="-5"/></admin>
                       <x type="analog_io" store="config"/><spare type="store_manager"/></root>)");
  EXPECT_EQ(at<AnalogIO>(*root, "x").get(), 7.0);
  EXPECT_EQ(at<ButtonField>(*root, "admin/store_manager/service_button").presses(), 0u);
  EXPECT_EQ(root->find_path("interlocks/summary")->json(), R"({"value":"ok"})");
  EXPECT_TRUE(log.contains("service_button: is a button: a store never presses one"));
  EXPECT_TRUE(log.contains("interlocks/summary/value: is a value of a read-only node"));
  EXPECT_TRUE(log.contains(
      "Setting 'save_delay' of 'admin/store_manager' refused: 1e-9 is out of range: takes 0 (off) or from 0.01 to 86400"));
  EXPECT_EQ(stores(*root).save_delay().get(), 1.0);
  EXPECT_TRUE(log.contains("Setting 'hourmeter_period' of 'admin/store_manager' refused: -5"));
  EXPECT_TRUE(log.contains("A second store manager at 'spare' is refused: 'admin/store_manager' keeps the stores"));
  EXPECT_EQ(Root::configuration_errors(), 2u);
}

TEST(Loading, WithoutARootLogsFailedToInitializeRoot) {
  DataRoot data;
  write_text(data.store("config"), R"({"x": 7})");
  auto manager = NodeFactory::make<StoreManager>(VTree("store_manager"));
  LogCapture log;
  manager->restore();
  ASSERT_EQ(log.entries().size(), 1u);
  EXPECT_EQ(log.entries()[0].text, "Error: Failed to initialize root");
  EXPECT_EQ(log.entries()[0].source, "src/core/store_manager");
}

TEST(Loading, MalformedFileIsLoggedKeptAsideAndTheNextSaveWritesAGoodFile) {
  for (std::string bad : {R"({"x": 5, "y": )", R"([1, 2])", "\x01garbage"}) {
    DataRoot data;
    write_text(data.store("config"), bad);
    LogCapture log;
    auto root = start(quiet(R"(<x type="analog_io" store="config" value="1"/>)"));
    EXPECT_EQ(at<AnalogIO>(*root, "x").get(), 1.0) << bad;
    bool logged = false;
    for (auto& t : log.texts())
      logged |= t.starts_with("Error: Malformed store file '" + data.store("config") + "': ") && t.size() > 60;
    EXPECT_TRUE(logged) << bad;
    std::vector<fs::path> aside;
    for (auto& f : fs::directory_iterator(Paths::config_dir()))
      if (f.path().filename().string().starts_with("config.json.bad-")) aside.push_back(f.path());
    ASSERT_EQ(aside.size(), 1u) << bad;
    EXPECT_EQ(read_text(aside[0]), bad);
    stores(*root).flush();  // the store is marked for rewriting
    EXPECT_EQ(read_text(data.store("config")), "{\n \"x\": 1\n}");
  }
}

TEST(Loading, WrongTypedMemberIsLoggedByItsFieldWhileTheOthersLoad) {
  DataRoot data;
  write_text(data.store("config"), R"({"a": "fast", "b": 2, "c": [1]})");
  LogCapture log;
  auto root = start(quiet(R"(<a type="analog_io" store="config" value="1"/><b type="analog_io" store="config"/>
                             <c type="string_io" store="config" value="keep"/>)"));
  EXPECT_EQ(at<AnalogIO>(*root, "a").get(), 1.0);
  EXPECT_EQ(at<AnalogIO>(*root, "b").get(), 2.0);
  EXPECT_EQ(at<StringIO>(*root, "c").get(), "keep");
  EXPECT_TRUE(log.contains("Error: User can't set Field store config a/value: '\\\"fast\\\"' is not a double"));
  EXPECT_TRUE(log.contains("Error: User can't set Field store config c/value: '[1]' is not a string"));
}

TEST(Loading, StoreThatNoMemberUsesIsNotApplied) {
  DataRoot data;
  write_text(data.store("network"), R"({"x": 7})");
  LogCapture log;
  auto root = start(quiet(R"(<x type="analog_io" value="1"/>)"));
  EXPECT_EQ(at<AnalogIO>(*root, "x").get(), 1.0);
  EXPECT_TRUE(log.contains("Store 'network' has no members"));
  EXPECT_EQ(read_text(data.store("network")), R"({"x": 7})");
}

TEST(Saving, ChangesAreCoalescedAndLoadingIsNoChange) {
  DataRoot data;
  write_text(data.store("config"), R"({"x": 7})");
  auto root = start(R"(<root><admin><store_manager save_delay="0.02"/></admin><x type="analog_io" store="config"/></root>)");
  auto& manager = stores(*root);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(manager.writes().get(), 0u);  // what was just loaded is not written back
  auto& x = at<AnalogIO>(*root, "x");
  for (int i = 1; i <= 2000; ++i) x.set(i);
  ASSERT_TRUE(wait_until([&] { return read_text(data.store("config")) == "{\n \"x\": 2000\n}"; }));
  EXPECT_LT(manager.writes().get(), 20u);  // one write per tick that saw changes, not one per change
}

TEST(Saving, AStoreThatCannotBeWrittenAtShutdownSaysItsChangesAreLost) {
  DataRoot data;
  LogCapture log;
  {
    auto root = start(R"(<root><admin><store_manager save_delay="0.02"/></admin><x type="analog_io" store="config"/></root>)");
    fs::create_directories(AtomicFile::temporary_for(data.store("config")));  // where the temporary must go
    at<AnalogIO>(*root, "x").set(1);
    ASSERT_TRUE(wait_until([&] { return log.contains("Can't save store 'config'"); }));
    at<AnalogIO>(*root, "x").set(2);
  }
  EXPECT_TRUE(log.contains("Can't save store 'config' at shutdown, its latest changes are lost"));
}

TEST(Saving, HourMeterIsWrittenOnItsOwnPeriodAndByTheServiceAction) {
  DataRoot data;
  const char* members = R"(<h type="analog_io" store="hourmeter"/><x type="analog_io" store="config"/>)";
  {
    auto root = start(std::string(R"(<root><admin><store_manager save_delay="0.02" hourmeter_period="0"/></admin>)") +
                      members + "</root>");
    at<AnalogIO>(*root, "h").set(1);
    at<AnalogIO>(*root, "x").set(1);
    ASSERT_TRUE(wait_until([&] { return fs::exists(data.store("config")); }));
    std::this_thread::sleep_for(60ms);
    EXPECT_FALSE(fs::exists(data.store("hourmeter")));  // a change alone does not write it
    root->set_field_as_user("operator", "admin/store_manager/service_button", "true");
    EXPECT_TRUE(wait_until([&] { return fs::exists(data.store("hourmeter")); }));
  }
  auto root = start(std::string(R"(<root><admin><store_manager save_delay="0" hourmeter_period="0.02"/></admin>)") +
                    members + "</root>");
  at<AnalogIO>(*root, "h").set(2);
  EXPECT_TRUE(wait_until([&] { return read_text(data.store("hourmeter")) == "{\n \"h\": 2\n}"; }));
}

TEST(AtomicFile, ReplacesWholeFilesAndFailsWithoutTouchingTheOldOne) {
  DataRoot data;
  std::string file = data.dir() + "/new/folder/s.json", content, error;
  EXPECT_EQ(AtomicFile::read(file, content, error), AtomicFile::ReadResult::Missing);
  ASSERT_TRUE(AtomicFile::write(file, "old", error)) << error;
  ASSERT_TRUE(AtomicFile::write(file, "new", error)) << error;
  EXPECT_EQ(AtomicFile::read(file, content, error), AtomicFile::ReadResult::Ok);
  EXPECT_EQ(content, "new");
  EXPECT_FALSE(fs::exists(AtomicFile::temporary_for(file)));
  // A folder where the temporary should go makes the write fail.
  fs::create_directory(AtomicFile::temporary_for(file));
  EXPECT_FALSE(AtomicFile::write(file, "newer", error));
  EXPECT_NE(error.find(AtomicFile::temporary_for(file)), std::string::npos) << error;
  EXPECT_EQ(read_text(file), "new");
}

// The real program, killed again and again while it saves: every store file
// present must parse, be whole and be no older than the one before.
TEST(CrashSafety, KilledWhileSavingEveryStoreFileIsTheOldOrTheNewOne) {
  DataRoot data;
  const std::string config = data.dir() + "/zel.xml", file = data.store("config");
  write_text(config, R"(<root><admin><store_manager save_delay="0.001"/></admin>
                          <churn type="store_exerciser" store="config" size="65536"><poll rate="2000"/></churn></root>)");
  auto generation_in = [](const std::string& text) -> unsigned long long {
    auto doc = nlohmann::json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.contains("churn/generation")) return 0;
    return doc["churn/generation"].get<unsigned long long>();
  };
  std::mt19937 random(std::random_device{}());
  unsigned long long last = 0;
  int kills = 0, mid_write = 0;
  auto deadline = std::chrono::steady_clock::now() + 5s;
  while (kills < 25 && std::chrono::steady_clock::now() < deadline) {
    auto zel = start_zel(data, config);
    // Once this process has saved something newer, kill it at a random moment.
    bool saved = wait_until([&] { return generation_in(read_text(file)) > last; }, 3s);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    zel->signal(SIGKILL);
    ASSERT_TRUE(zel->wait_exit(10s));
    ASSERT_TRUE(saved) << zel->error_text();
    ++kills;
    if (fs::exists(AtomicFile::temporary_for(file))) ++mid_write;

    std::string text = read_text(file);
    auto doc = nlohmann::json::parse(text, nullptr, false);
    ASSERT_FALSE(doc.is_discarded()) << "torn store file after kill " << kills;
    EXPECT_TRUE(text.starts_with("{\n \"churn/generation\": ") && text.ends_with("\n}"));
    auto generation = doc["churn/generation"].get<unsigned long long>();
    EXPECT_GE(generation, last) << "the store went back in time";
    // Each value is whole: the text repeats one generation, the vector holds one.
    auto piece = doc["churn/text"].get<std::string>();
    ASSERT_EQ(piece.size(), 65536u);
    auto unit = piece.substr(0, piece.find(';') + 1);
    for (size_t at = 0; at + unit.size() <= piece.size(); at += unit.size())
      ASSERT_EQ(piece.compare(at, unit.size(), unit), 0) << "torn text at " << at;
    auto values = doc["churn/values"].get<std::vector<double>>();
    ASSERT_EQ(values.size(), 16u);
    for (double v : values) EXPECT_EQ(v, values[0]);
    // The members were taken at one instant: all of one generation.
    EXPECT_EQ(unit, std::to_string(generation) + ";") << "text of another generation, kill " << kills;
    EXPECT_EQ(values[0], static_cast<double>(generation)) << "values of another generation, kill " << kills;
    EXPECT_EQ(doc["churn/flag"].get<bool>(), generation % 2 == 1) << "flag of another generation, kill " << kills;
    last = generation;
  }
  EXPECT_GE(kills, 3);
  RecordProperty("kills", kills);
  RecordProperty("kills_during_a_write", mid_write);
  std::cout << kills << " kills, " << mid_write << " of them while a store file was being written\n";
}

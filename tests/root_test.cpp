#include <gtest/gtest.h>

#include "core/io/io.hpp"
#include "core/log_io.hpp"
#include "core/pulse.hpp"
#include "core/root.hpp"
#include "log_capture.hpp"
#include "test_tree.hpp"

TEST(Root, EmptyConfigurationStillHasAllBuiltInChildren) {
  auto root = build_tree("<root/>");
  std::vector<std::string> names;
  for (auto& c : root->children()) names.push_back(c->name());
  EXPECT_EQ(names, (std::vector<std::string>{"log", "pulse", "async", "interlocks", "alarms", "admin", "io_server",
                                             "iframe", "peers", "upnp"}));
  auto* log = dynamic_cast<Node*>(root->find_path("log"));
  ASSERT_NE(log, nullptr);
  for (const char* field : {"readonly", "icon", "persistant_csv_path", "value", "alias"})
    EXPECT_NE(log->child(field), nullptr) << field;
  EXPECT_NE(dynamic_cast<FieldBase*>(root->find_path("pulse/rate")), nullptr);
  EXPECT_EQ(dynamic_cast<Node*>(root->find_path("interlocks"))->type(), "InterlockManager");
  EXPECT_NE(root->find_path("io_server/json_test"), nullptr);
}

TEST(Root, ConfiguredChildrenFollowTheBuiltInsInDocumentOrder) {
  auto root = build_tree(R"(<root><pulse rate="5"/><b type="analog_io" value="2"/><a type="digital_io"/></root>)");
  auto& children = root->children();
  ASSERT_EQ(children.size(), 12u);
  EXPECT_EQ(children[10]->name(), "b");
  EXPECT_EQ(children[11]->name(), "a");
  EXPECT_EQ(static_cast<Pulse*>(root->find_path("pulse"))->rate().get(), 5.0);
  EXPECT_EQ(static_cast<AnalogIO*>(root->find_path("b"))->get(), 2.0);
  EXPECT_EQ(root->find_path("/b/value"), root->find_path("b/value"));
  EXPECT_EQ(root->find_path("b/value")->path(), "b/value");
}

TEST(Root, UserSetsThatCannotApplyAreLoggedAndChangeNothing) {
  auto root = build_tree(R"(<root><x type="analog_io" readonly="true" value="1"/><c type="component"/></root>)");
  LogCapture log;
  root->set_field_as_user("bob", "x", "2");
  root->set_field_as_user("bob", "nowhere/value", "2");
  root->set_field_as_user("bob", "c", "2");
  auto* pulse_count = dynamic_cast<FieldBase*>(root->find_path("pulse/count"));
  ASSERT_TRUE(pulse_count && pulse_count->readonly());
  root->set_field_as_user("bob", "pulse/count", "99");
  EXPECT_EQ(static_cast<AnalogIO*>(root->find_path("x"))->get(), 1.0);
  EXPECT_EQ(static_cast<Pulse*>(root->find_path("pulse"))->count().get(), 0u);
  auto texts = log.texts();
  EXPECT_EQ(texts, (std::vector<std::string>{
                       "Error: User can't set Field, readonly bob x: is a value of a read-only node",
                       "Error: User no valid Field found bob nowhere/value: there is nothing at that path",
                       "Error: User no valid Field found bob c: a node without a value: it takes a JSON object of "
                       "its members",
                       "Error: User can't set Field, readonly bob pulse/count: is read-only",
                   }));
}

TEST(Root, MissingFieldLookupIsLoggedWithTheNodePath) {
  auto root = build_tree(R"(<root><x type="analog_io"/></root>)");
  LogCapture log;
  EXPECT_EQ(dynamic_cast<Node*>(root->find_path("x"))->field("nope"), nullptr);
  ASSERT_EQ(log.entries().size(), 1u);
  EXPECT_EQ(log.entries()[0].text, "Error: Field not found 'nope' on x");
  EXPECT_EQ(log.entries()[0].source, "src/core/node");
}

TEST(Root, ConfigurationFaultsAreLoggedAndTheRestIsBuilt) {
  Root::reset_configuration_errors();
  LogCapture log;
  auto root = build_tree(R"(<root>
      <good type="analog_io"/>
      <typo type="analgo_io"/>
      <bad type="analog_io" value="fast"/>
      <group type="component"><inner type="digital_io" hidden="maybe"/><ok type="digital_io"/></group>
    </root>)");
  EXPECT_NE(root->find_path("good"), nullptr);
  EXPECT_EQ(root->find_path("typo"), nullptr);
  EXPECT_EQ(root->find_path("bad"), nullptr);
  EXPECT_EQ(root->find_path("group/inner"), nullptr);
  EXPECT_NE(root->find_path("group/ok"), nullptr);
  EXPECT_EQ(Root::configuration_errors(), 3u);
  EXPECT_TRUE(log.contains("Error: Unknown node type 'analgo_io' for 'typo'"));
  EXPECT_TRUE(log.contains("'bad'") && log.contains("'value'") && log.contains("'fast'"));
  EXPECT_TRUE(log.contains("'group/inner'") && log.contains("'hidden'") && log.contains("'maybe'"));
}

TEST(Root, BuiltInNodesKeepTheirDefaultForABadSettingAndQuietMistakesAreCounted) {
  Root::reset_configuration_errors();
  LogCapture log;
  auto root = build_tree(R"(<root hidden="maybe" label="Bench">
      <pulse rate="fast"/>
      <admin><store_manager save_delay="soon" hourmeter_period="30"/></admin>
      <interlocks type="nonsense"/>
      <a type="analog_io" value="1"/>
      <a type="analog_io" value="2"/>
      <settings><lost type="digital_io"/></settings>
    </root>)");
  EXPECT_EQ(root->label(), "Bench") << "the root's other settings are kept";
  EXPECT_DOUBLE_EQ(dynamic_cast<Field<double>&>(*root->find_path("pulse/rate")).get(), 1.0);
  EXPECT_DOUBLE_EQ(dynamic_cast<Field<double>&>(*root->find_path("admin/store_manager/save_delay")).get(), 1.0);
  EXPECT_DOUBLE_EQ(dynamic_cast<Field<double>&>(*root->find_path("admin/store_manager/hourmeter_period")).get(), 30.0);
  EXPECT_EQ(dynamic_cast<AnalogIO&>(*root->find_path("a")).get(), 1.0) << "the first of two siblings is built";
  EXPECT_EQ(root->find_path("settings/lost"), nullptr);
  EXPECT_EQ(Root::configuration_errors(), 6u);
  for (const char* text : {"Setting 'hidden' of '' can't be read as bool: 'maybe': default kept",
                           "Setting 'rate' of 'pulse' can't be read as double: 'fast': default kept",
                           "Setting 'save_delay' of 'admin/store_manager' can't be read as double: 'soon': default kept",
                           "Element 'interlocks' names type 'nonsense', but 'interlocks' is built in as InterlockManager",
                           "Element 'a' repeats the name of an earlier sibling: left out",
                           "Element 'settings/lost' of type 'digital_io' lies in the settings group 'settings'"})
    EXPECT_TRUE(log.contains(text)) << text;

  // A built-in named with its own type, by alias or type name, is no mistake.
  Root::reset_configuration_errors();
  build_tree(R"(<root><pulse type="Pulse"/><interlocks type="interlock_manager"/></root>)");
  EXPECT_EQ(Root::configuration_errors(), 0u);
}

TEST(Root, TreeLogKeepsRecordsForClients) {
  auto root = build_tree("<root/>");
  auto before = root->log().last_sequence();
  ZEL_INFO("hello {}", 42);
  auto records = root->log().records_after(before);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].record.text, "hello 42");
  EXPECT_NE(root->log().get().find("hello 42"), std::string::npos);
}

// The rules of the one write path, against the function itself: which
// fields each way in may write, what a node's object does when one member is
// refused, ranges, and the log lines. That every server really goes through
// it is pinned from outside by safety_chain_attack_test.cpp.
#include <gtest/gtest.h>

#include <string>

#include "core/io/interlock_manager.hpp"
#include "core/io/permit_command_io.hpp"
#include "core/io/range_interlock_io.hpp"
#include "core/root.hpp"
#include "core/permissions.hpp"
#include "core/write_path.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "tree_access.hpp"

namespace {

std::unique_ptr<Root> chain() {
  auto root = FormatXML::instance().build(R"(<root>
    <c type="component" label="Chamber">
      <p type="analog_io" value="1"/>
      <hv type="digital_io" value="false"/>
      <permit type="permit_command_io" output="c/hv">
        <lock type="range_interlock_io" input="c/p" upper_limit="5"/>
      </permit>
    </c>
  </root>)");
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
      {"c/p", "2", WriteStatus::Done, WriteStatus::Done},                            // an IO's value
      {"c/permit/lock/value", "0", WriteStatus::ReadOnly, WriteStatus::ReadOnly},   // a state
      {"c/permit/lock/upper_limit", "9", WriteStatus::ReadOnly, WriteStatus::ReadOnly},
      {"c/permit/lock/state_time", "0", WriteStatus::ReadOnly, WriteStatus::ReadOnly},
      {"c/permit/user_command", "false", WriteStatus::Done, WriteStatus::ReadOnly},  // an operator control
      {"c/hv", "true", WriteStatus::ReadOnly, WriteStatus::ReadOnly},                // driven by the permit
      {"c/label", "\"x\"", WriteStatus::ReadOnly, WriteStatus::ReadOnly},            // an attribute
      {"interlocks/generate_report_csv", "false", WriteStatus::Done, WriteStatus::ReadOnly},  // a button
      {"interlocks/poll/rate", "0", WriteStatus::BadValue, WriteStatus::BadValue},
      {"interlocks/poll/rate", "nan", WriteStatus::BadValue, WriteStatus::BadValue},
      {"c/permit/lock/enabled", "maybe", WriteStatus::BadValue, WriteStatus::BadValue},
      {"c/nowhere", "1", WriteStatus::NotFound, WriteStatus::NotFound},
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
      if (field) EXPECT_EQ(field->json(), before) << "a refused write changed the value";
      ASSERT_EQ(log.entries().size(), 1u) << "one line per refusal";
      EXPECT_NE(log.entries()[0].text.find(answer.reason), std::string::npos) << log.entries()[0].text;
    }
  }
}

TEST(WritePath, ANodeObjectIsAppliedWholeOrNotAtAll) {
  auto root = chain();
  auto& permit = at<PermitCommandIO>(*root, "c/permit");
  auto& p = at<AnalogIO>(*root, "c/p");
  LogCapture log;
  auto refused = write(*root, WriteSource::File, "c", R"({"p":{"value":3},"permit":{"gate_command":true,"lock":{"value":0}}})");
  EXPECT_EQ(refused.status, WriteStatus::ReadOnly);
  EXPECT_NE(refused.reason.find("'c/permit/lock/value'"), std::string::npos) << refused.reason;
  EXPECT_EQ(p.get(), 1.0);
  EXPECT_FALSE(permit.gate_command().get());
  EXPECT_EQ(log.entries().size(), 1u);

  log.clear();
  auto accepted = write(*root, WriteSource::File, "c", R"({"p":{"value":3},"permit":{"gate_command":true}})");
  ASSERT_TRUE(accepted.ok()) << accepted.reason;
  EXPECT_EQ(p.get(), 3.0);
  EXPECT_TRUE(permit.gate_command().get());
  EXPECT_TRUE(log.contains(R"(User file tester set 'c/p/value' from 1 to 3)"));
  EXPECT_EQ(write(*root, WriteSource::File, "c", R"({"p":)").status, WriteStatus::BadValue);
  EXPECT_EQ(write(*root, WriteSource::File, "c", std::string(WritePath::kMaxTextBytes, 'x')).status,
            WriteStatus::TooLarge);
}

TEST(WritePath, ThePermissionHookDecidesLastAndAlone) {
  auto root = chain();
  WritePath::set_permission_check([](const Caller& caller, const FieldBase&, std::string& reason) {
    reason = "viewers may not write";
    return caller.who != "viewer";
  });
  auto denied = WritePath::write(*root, {{WriteSource::Http, "viewer"}, "c/p", "2"});
  auto unreadable = WritePath::write(*root, {{WriteSource::Http, "viewer"}, "c/p", "two"});
  auto allowed = WritePath::write(*root, {{WriteSource::Http, "operator"}, "c/p", "2"});
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

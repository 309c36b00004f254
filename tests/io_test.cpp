#include <gtest/gtest.h>

#include <thread>

#include "core/write_path.hpp"
#include "core/field_subscription.hpp"
#include "core/io/io.hpp"
#include "core/vtree.hpp"

TEST(IO, ListenersRunInRegistrationOrderOnlyOnChangeOrFirstAssignment) {
  AnalogIO io(VTree("a"));
  std::vector<int> calls;
  io.on_change([&] { calls.push_back(1); });
  io.on_change([&] { calls.push_back(2); });

  EXPECT_FALSE(io.assigned());
  EXPECT_EQ(io.stamp(), 0u);
  EXPECT_TRUE(io.set(0.0));  // equal to the initial value, but the first assignment
  EXPECT_TRUE(io.assigned());
  EXPECT_FALSE(io.set(0.0));
  EXPECT_TRUE(io.set(1.5));
  EXPECT_EQ(calls, (std::vector<int>{1, 2, 1, 2}));
}

TEST(IO, EveryChangeGetsAStampAfterThePreviousOne) {
  ManualClockScope time;  // the clock stands still
  DigitalIO io(VTree("d"));
  io.set(true);
  auto first = io.stamp();
  io.set(false);
  EXPECT_GT(io.stamp(), first);
  time.clock.advance(1.0);
  io.set(true);
  EXPECT_GE(io.stamp(), first + 1'000'000'000ULL);
}

TEST(IO, ConfiguredValueCountsAsAssignment) {
  VTree config("s");
  config.set("value", "hello world");
  StringIO io(config);
  EXPECT_TRUE(io.assigned());
  EXPECT_EQ(io.get(), "hello world");
  EXPECT_EQ(io.json(), R"({"value":"hello world"})");
}

TEST(IO, ValueFieldWrittenAsTextNotifiesTheIoListeners) {
  AnalogIO io(VTree("a"));
  int calls = 0;
  io.on_change([&] { ++calls; });
  EXPECT_TRUE(io.value().read_json("2.5\n"));
  EXPECT_FALSE(io.value().read_json("two"));
  EXPECT_EQ(io.get(), 2.5);
  EXPECT_EQ(calls, 1);
}

TEST(Field, SubscriptionsFollowChangesUntilDropped) {
  ValueField<std::string> field("f");
  int seen = 0;
  {
    FieldSubscription subscription(field, [&] { ++seen; });
    field.set("a");
    field.set("a");
    field.set("b");
  }
  field.set("c");
  EXPECT_EQ(seen, 2);
}

// Readers must never see a torn value while writers change it.
TEST(Field, ConcurrentReadersSeeWholeValues) {
  ValueField<std::string> text("t", std::string(64, 'a'));
  ValueField<double> number("n");
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; i < 20000; ++i) {
      text.set(std::string(64, i % 2 ? 'a' : 'b'));
      number.set(i % 2 ? 1.0 : 2.0);
    }
    stop = true;
  });
  int torn = 0;
  while (!stop) {
    auto s = text.get();
    if (s != std::string(64, 'a') && s != std::string(64, 'b')) ++torn;
    std::string json;
    number.write_json(json);
    if (json != "0" && json != "1" && json != "2") ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0);
}

// Every value type a field can hold survives its own text and back.
template <class T>
class FieldTypes : public ::testing::Test {};
using AllFieldTypes = ::testing::Types<bool, int, unsigned char, unsigned short, unsigned int, unsigned long long,
                                       float, double, std::string, std::vector<bool>, std::vector<double>,
                                       std::vector<std::string>>;
TYPED_TEST_SUITE(FieldTypes, AllFieldTypes);

template <class T>
T sample_value() {
  if constexpr (std::is_same_v<T, bool>) return true;
  else if constexpr (std::is_same_v<T, std::string>) return "a \"quoted\"\nline";
  else if constexpr (std::is_same_v<T, std::vector<bool>>) return {true, false};
  else if constexpr (std::is_same_v<T, std::vector<double>>) return {0.1, -2e-300, 7};
  else if constexpr (std::is_same_v<T, std::vector<std::string>>) return {"x", "", "\xC3\xA9"};
  else if constexpr (std::is_floating_point_v<T>) return T(-0.3);
  else return std::numeric_limits<T>::max();
}

TYPED_TEST(FieldTypes, ValueSurvivesItsTextAndAUserSet) {
  ValueField<TypeParam> source("a");
  source.set(sample_value<TypeParam>());
  ValueField<TypeParam> target("b");
  auto answer = WritePath::write_at(target, {}, source.json());
  ASSERT_TRUE(answer.ok()) << answer.reason << " for " << source.json();
  EXPECT_EQ(target.get(), source.get());
  EXPECT_EQ(target.json(), source.json());
  target.set_readonly(true);
  EXPECT_EQ(WritePath::write_at(target, {}, ValueField<TypeParam>("c").json()).status, WriteStatus::ReadOnly);
  EXPECT_EQ(target.get(), source.get());
}

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "core/io_server.hpp"
#include "core/x2x.hpp"

TEST(ValueText, SelfCheckPassesInTheNamedGroupsAndOrder) {
  auto report = IOServer::json_test();
  std::vector<std::string> names;
  for (auto& group : report) {
    names.push_back(group.name);
    EXPECT_GT(group.checks, 0) << group.name;
    for (auto& failure : group.failures) ADD_FAILURE() << group.name << ": " << failure;
  }
  ASSERT_EQ(names.size(), 2u + 8u * 3u + 8u + 2u + 6u + 1u);
  EXPECT_EQ(names[0], "to_json bool");
  EXPECT_EQ(names[2], "to_json uint8_t");
  EXPECT_EQ(names[4], "roundtrip uint8_t");
  EXPECT_EQ(names[5], "to_json int8_t");
  EXPECT_EQ(names[26], "to_json float");
  EXPECT_EQ(names[29], "precession float");
  EXPECT_EQ(names.back(), "to_json vector<vector<string>>");
}

TEST(ValueText, OutOfRangeAndMalformedNumbersAreRefusedAndLeaveTheValue) {
  uint8_t small = 7;
  EXPECT_FALSE(x2x::from_json("256", small));
  EXPECT_FALSE(x2x::from_json("-1", small));
  EXPECT_FALSE(x2x::from_json("1.5", small));
  EXPECT_FALSE(x2x::from_json("", small));
  EXPECT_EQ(small, 7);
  double d = 3;
  EXPECT_FALSE(x2x::from_json("12abc", d));
  EXPECT_FALSE(x2x::from_json("+1", d));
  EXPECT_EQ(d, 3);
  bool b = true;
  EXPECT_FALSE(x2x::from_json("yes", b));
  EXPECT_TRUE(b);
}

TEST(ValueText, AFileWriteWithItsTrailingNulReads) {
  int v = 0;
  std::string text("255\n", 4);
  text.push_back('\0');
  EXPECT_TRUE(x2x::from_json(text, v));
  EXPECT_EQ(v, 255);
}

TEST(ValueText, FloatsTakeTheShortestExponent) {
  EXPECT_EQ(x2x::to_json(1e-4), "1e-4");
  EXPECT_EQ(x2x::to_json(1e20), "1e20");
  EXPECT_EQ(x2x::to_json(-2.5e-300), "-2.5e-300");
  EXPECT_EQ(x2x::to_json(3e-7f), "3e-7");
  EXPECT_EQ(x2x::to_json(120.0), "120");
  double back = 0;
  ASSERT_TRUE(x2x::from_json(x2x::to_json(1.5e-308), back));
  EXPECT_EQ(back, 1.5e-308);
}

TEST(ValueText, NonFiniteNumbersWriteValidJson) {
  EXPECT_EQ(x2x::to_json(std::numeric_limits<double>::quiet_NaN()), "null");
  EXPECT_EQ(x2x::to_json(std::numeric_limits<double>::infinity()), "null");
  double d = 0;
  EXPECT_TRUE(x2x::from_json("null", d));
  EXPECT_TRUE(std::isnan(d));
}

TEST(ValueText, StringsAreAlwaysValidUtf8Json) {
  EXPECT_EQ(x2x::to_json(std::string("a\x01") + "\xff" + "b"), "\"a\\u0001\xEF\xBF\xBD" "b\"");
  EXPECT_EQ(x2x::to_json(std::string("\xC3\xA9")), "\"\xC3\xA9\"");  // é stays as it is
  std::string s;
  EXPECT_TRUE(x2x::from_json(R"("\u00e9\ud83d\ude00")", s));
  EXPECT_EQ(s, "\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_FALSE(x2x::from_json(R"("a"b")", s));
  EXPECT_FALSE(x2x::from_json(R"("\ud83d")", s));
  EXPECT_FALSE(x2x::from_json("plain", s));
}

TEST(ValueText, VectorsRefuseElementsOfTheWrongType) {
  std::vector<double> v{1};
  EXPECT_FALSE(x2x::from_json(R"([1,"x"])", v));
  EXPECT_FALSE(x2x::from_json("{}", v));
  EXPECT_EQ(v, std::vector<double>{1});
}

// Writing a parsed value back out recurses once per level: a few hundred
// kilobytes of "[" used to overflow the stack.
TEST(ValueText, ArraysNestedBeyondTheLimitAreRefusedNotRecursedInto) {
  const size_t deep = 100000;
  std::string text = std::string(deep, '[') + std::string(deep, ']');
  std::vector<double> numbers{1};
  std::vector<std::string> texts{"kept"};
  EXPECT_FALSE(x2x::from_json(text, numbers));
  EXPECT_FALSE(x2x::from_json(text, texts));
  EXPECT_EQ(numbers, std::vector<double>{1});
  EXPECT_EQ(texts, std::vector<std::string>{"kept"});

  EXPECT_TRUE(x2x::json_depth_within(std::string(x2x::kMaxJsonDepth, '{')));
  EXPECT_FALSE(x2x::json_depth_within(std::string(x2x::kMaxJsonDepth + 1, '{')));
  // Brackets inside strings, escaped quotes included, are text.
  EXPECT_TRUE(x2x::json_depth_within("[\"" + std::string(deep, '[') + "\\\"" + std::string(deep, '{') + "\"]"));
  EXPECT_TRUE(x2x::from_json(R"(["[[[","\"{{"])", texts));
  EXPECT_EQ(texts, (std::vector<std::string>{"[[[", "\"{{"}));
}

// Found by fuzzing: elements used to be read from nlohmann's re-written text,
// which turns "-0" into "0"; a vector's text must read back to the same vector.
TEST(ValueText, VectorElementsReadFromTheirOwnTextSoNegativeZeroKeepsItsSign) {
  std::vector<double> values;
  ASSERT_TRUE(x2x::from_json(" [ -0 , 0.5 ,-2e-300]\n", values));
  ASSERT_EQ(values.size(), 3u);
  EXPECT_TRUE(std::signbit(values[0]));
  EXPECT_EQ(x2x::to_json(values), "[-0,0.5,-2e-300]");
  // Every element obeys the rules of its own type, as a single value would.
  EXPECT_FALSE(x2x::from_json("[1e400]", values));
  EXPECT_FALSE(x2x::from_json(std::string("[1]\0[2]", 7), values));
  std::vector<std::string> texts;
  ASSERT_TRUE(x2x::from_json(R"(["a,b" , "\u00e9\"]"])", texts));
  EXPECT_EQ(texts, (std::vector<std::string>{"a,b", "\xC3\xA9\"]"}));
}

#include <gtest/gtest.h>

#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"

TEST(FormatXML, ParseErrorNamesOffsetAndTheLineWhereTheLengthsReachIt) {
  LogCapture log;
  // The parser stops at offset 29, the line end after "/". Line lengths
  // without their ends add up to 6, 28, 35: the sum first reaches 29 on the
  // third line, which is the one printed.
  const char* text = "<root>\n  <a type=\"analog_io\"/\n</root>";
  EXPECT_EQ(FormatXML::instance().build(text), nullptr);
  auto entries = log.entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].source, "src/formats/format_xml");
  EXPECT_EQ(entries[0].text, "Error: XML parse Error parsing start element tag line:29 '</root>'");
}

TEST(FormatXML, TypeAttributeIsNotKeptAndNestedElementsAreSubtrees) {
  auto tree = FormatXML::instance().parse(R"(<root><x type="analog_io" units="V"><poll rate="3"/></x></root>)");
  ASSERT_TRUE(tree);
  auto* x = tree->child("x");
  ASSERT_NE(x, nullptr);
  EXPECT_EQ(x->type(), "analog_io");
  EXPECT_FALSE(x->has("type"));
  EXPECT_EQ(x->attribute("units"), "V");
  EXPECT_EQ(x->path(), "x");
  ASSERT_NE(x->child("poll"), nullptr);
  EXPECT_EQ(x->child("poll")->path(), "x/poll");
  EXPECT_EQ(x->child("poll")->get_or("rate", 0.0), 3.0);
}

TEST(FormatXML, SettingsConvertOrNameTheirElementKeyAndText) {
  auto tree = FormatXML::instance().parse(R"(<root><x type="analog_io" limit="ten" list="[1,2]"/></root>)");
  ASSERT_TRUE(tree);
  std::vector<double> list;
  EXPECT_TRUE(tree->child("x")->get("list", list));
  EXPECT_EQ(list, (std::vector<double>{1, 2}));
  double limit = 0;
  try {
    tree->child("x")->get("limit", limit);
    FAIL() << "no error";
  } catch (const ConfigError& e) {
    EXPECT_STREQ(e.what(), "Setting 'limit' of 'x' can't be read as double: 'ten'");
  }
}

// The tree is built by recursion and keeps each element's whole path: a
// document nested thousands deep would take the stack or quadratic memory.
TEST(FormatXML, ElementsNestedBeyondTheLimitAreAParseErrorNamingTheFirstTooDeep) {
  auto nested = [](int depth) {
    std::string text = "<root>\n";
    for (int i = 0; i < depth; ++i) text += "<a>\n";
    for (int i = 0; i < depth; ++i) text += "</a>";
    return text + "</root>";
  };
  EXPECT_TRUE(FormatXML::instance().parse(nested(64)));
  LogCapture log;
  EXPECT_FALSE(FormatXML::instance().parse(nested(65)));
  EXPECT_EQ(FormatXML::instance().build(nested(200000)), nullptr);
  auto entries = log.entries();
  ASSERT_EQ(entries.size(), 2u);
  // The 65th <a> has its name at offset 7 + 64 * 4 + 1; the line printed is
  // found by the same rule as for any parse error.
  EXPECT_TRUE(entries[0].text.starts_with("Error: XML parse Elements nested too deep line:264 '"));
  EXPECT_EQ(entries[1].text, "Error: XML parse Elements nested too deep line:264 '<a>'");
}

#include <gtest/gtest.h>

#include "core/field.hpp"
#include "core/x2x.hpp"
#include "log_capture.hpp"

namespace {

struct Tree {
  Tree() {
    auto& group = top.add<Vertex>("group");
    number = &group.add<ValueField<double>>("number", 1.0);
    list = &group.add<ValueField<std::vector<double>>>("list");
  }
  Vertex top{"top"};
  ValueField<double>* number;
  ValueField<std::vector<double>>* list;
};

}  // namespace

TEST(Vertex, JsonReadAppliesKnownMembersAndNamesTheUnknown) {
  Tree tree;
  LogCapture log;
  EXPECT_FALSE(tree.top.read_json(R"({"group":{"number":2.5,"list":[1,2],"nope":0}})"));
  EXPECT_EQ(tree.number->get(), 2.5);
  EXPECT_EQ(tree.list->get(), (std::vector<double>{1, 2}));
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Error: Unknown member 'nope' in JSON for 'group'"});
  EXPECT_EQ(tree.top.json(), R"({"group":{"number":2.5,"list":[1,2]}})");
}

// A message nested a hundred thousand deep used to overflow the stack while
// its members were handed down the tree.
TEST(Vertex, JsonNestedBeyondTheLimitIsMalformedAndChangesNothing) {
  Tree tree;
  LogCapture log;
  const size_t deep = 100000;
  std::string members = std::string(deep, '[') + std::string(deep, ']');
  EXPECT_FALSE(tree.top.read_json(R"({"group":{"number":3,"list":)" + members + "}}"));
  EXPECT_EQ(tree.number->get(), 1.0);
  EXPECT_FALSE(tree.list->assigned());
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Error: Malformed JSON object for ''"});

  std::string limit_deep = R"({"group":{"list":)" + std::string(x2x::kMaxJsonDepth - 2, '[') +
                           std::string(x2x::kMaxJsonDepth - 2, ']') + "}}";
  log.clear();
  EXPECT_FALSE(tree.top.read_json(limit_deep));  // deep enough to pass, but not a list of numbers
  EXPECT_EQ(log.texts().size(), 1u);
  EXPECT_NE(log.texts()[0].find("Can't convert"), std::string::npos) << log.texts()[0];
}

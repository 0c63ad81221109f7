#include "core/Json.h"

#include <gtest/gtest.h>

#include "core/InputStream.h"
#include "core/LoggerWrapper.h"

namespace {

using utils::json::json_tree;

TEST(JsonTest, ParsesObjectsArraysAndDottedPaths) {
  json_tree tree;
  ASSERT_TRUE(utils::json::Parse(
      R"({"entries":[{"name":"a","size":12},{"name":"b"}],"parent":{"id":"x1"},"ok":true})",
      &tree));
  EXPECT_EQ(utils::json::Child(tree, "parent.id")->data(), "x1");
  EXPECT_EQ(utils::json::Child(tree, "ok")->data(), "true");
  EXPECT_FALSE(utils::json::Child(tree, "parent.missing"));
  const json_tree& entries = *utils::json::Child(tree, "entries");
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries.front().first, "");  // array items have empty keys
  EXPECT_EQ(entries.front().second.get<int>("size"), 12);
}

TEST(JsonTest, MalformedInputAnswersFalseAndLeavesTheTree) {
  const std::string cases[] = {
      "",
      "{",
      R"({"a":})",
      "[1,2",
      R"({"a":1}})",
      R"({"a":"unterminated})",
      "nul",
      std::string(100000, '['),  // deeper than any real answer; must not exhaust the stack
      std::string(300, '[') + std::string(300, ']') + std::string(300, '{'),
  };
  for (const std::string& text : cases) {
    json_tree tree;
    tree.put("kept", "yes");
    std::string error;
    EXPECT_FALSE(utils::json::Parse(text, &tree, &error)) << text.substr(0, 40);
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(tree.get<std::string>("kept"), "yes");
  }
}

TEST(JsonTest, ReadAndParseTellsAFailedReadFromBadJson) {
  const std::string body = R"({"name":"ä","list":[1,2,3]})";
  MemoryInputStream split(body, 3);
  json_tree tree;
  std::string error;
  ASSERT_TRUE(utils::json::ReadAndParse(&split, &tree, &error)) << error;
  EXPECT_EQ(tree.get<std::string>("name"), "ä");

  MemoryInputStream broken(body, 4096, 10);
  EXPECT_FALSE(utils::json::ReadAndParse(&broken, &tree, &error));
  EXPECT_EQ(error, "Failed to read the body: FAILED");

  MemoryInputStream truncated(body.substr(0, 15));
  EXPECT_FALSE(utils::json::ReadAndParse(&truncated, &tree, &error));
  EXPECT_NE(error.find("Invalid JSON"), std::string::npos) << error;
}

TEST(JsonTest, ToStringRoundTripsAndRefusesWhatJsonCantHold) {
  json_tree tree;
  ASSERT_TRUE(utils::json::Parse(R"({"a":{"b":"c d"},"n":"日本"})", &tree));
  const std::string compact = utils::json::ToString(tree, false);
  EXPECT_EQ(compact.back(), '}');
  json_tree again;
  ASSERT_TRUE(utils::json::Parse(compact, &again));
  EXPECT_EQ(again, tree);

  json_tree mixed;
  mixed.put("a", "value");
  mixed.put("a.b", "child");  // a node with both a value and children
  EXPECT_EQ(utils::json::ToString(mixed, true), "");

  LoggerWrapper::Capture capture;
  utils::json::Log(tree, false);
  EXPECT_TRUE(capture.Contains(R"("b":"c d")"));
}

}  // namespace

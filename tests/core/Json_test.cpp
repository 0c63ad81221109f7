#include "core/Json.h"

#include <gtest/gtest.h>

#include "core/InputStream.h"
#include "core/JsonWriter.h"
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

TEST(JsonTest, ScalarsKeepWhatTheirTypeSays) {
  // Each value read through the tree as a service's answer would be.
  struct Case {
    const char* json;
    const char* expected;
  } cases[] = {
      {R"({"v":null})", ""},  // null is no value, never the text "null"
      {R"({"v":"null"})", "null"},
      {R"({"v":-12.5e+3})", "-12.5e+3"},
      {R"({"v":0})", "0"},
      {R"({"v":false})", "false"},
      {R"({"v":"a\"b\\c\/d\n\t"})", "a\"b\\c/d\n\t"},
      {R"({"v":"\u00e4\u65e5"})", "ä日"},
      {R"({"v":"\ud83d\ude00"})", "\xF0\x9F\x98\x80"},  // a surrogate pair is one code point
      {R"({"v":"\ud83dx"})", "\xEF\xBF\xBDx"},          // a lone surrogate is U+FFFD
  };
  for (const Case& c : cases) {
    json_tree tree;
    std::string error;
    ASSERT_TRUE(utils::json::Parse(c.json, &tree, &error)) << c.json << ": " << error;
    EXPECT_EQ(utils::json::Member(tree, "v")->data(), c.expected) << c.json;
  }
}

TEST(JsonTest, StrictGrammarIsRefusedWithAnOffset) {
  const char* cases[] = {
      R"({"a":1,})",
      R"([1,2,])",
      R"({'a':1})",
      R"({"a":01})",
      R"({"a":1.})",
      R"({"a":+1})",
      "{\"a\":\"tab\there\"}",
      R"({"a":"\x"})",
      R"({"a":"\u12"})",
      R"({"a":tru})",
      "{} {}",
      R"({"a" 1})",
      "/* c */ {}",
  };
  for (const char* text : cases) {
    json_tree tree;
    std::string error;
    EXPECT_FALSE(utils::json::Parse(text, &tree, &error)) << text;
    EXPECT_NE(error.find(" at offset "), std::string::npos) << error;
  }
}

TEST(JsonTest, KeysWithDotsAreReachedAsTheyStand) {
  json_tree tree;
  ASSERT_TRUE(utils::json::Parse(
      R"({"@odata.nextLink":"https://next","value":[],"a":{"b":"nested"}})", &tree));
  EXPECT_EQ(utils::json::Member(tree, "@odata.nextLink")->data(), "https://next");
  EXPECT_FALSE(utils::json::Child(tree, "@odata.nextLink"));  // the dotted path splits there
  EXPECT_FALSE(utils::json::Member(tree, "a.b"));
  EXPECT_EQ(utils::json::Child(tree, "a.b")->data(), "nested");
}

TEST(JsonTest, WriterTypesValuesAndAlwaysWritesValidJson) {
  utils::json::Writer body;
  body.BeginObject()
      .Key("name")
      .String("a\"b\\\n\x01\x7f")
      .Key("size")
      .Number(std::uint64_t{18446744073709551615u})
      .Key("offset")
      .Number(std::int64_t{-3})
      .Key("shared")
      .Bool(false)
      .Key("marker")
      .Null()
      .Key("parent")
      .BeginObject()
      .Key("id")
      .String("0")
      .EndObject()
      .Key("list")
      .BeginArray()
      .String("x")
      .BeginArray()
      .EndArray()
      .BeginObject()
      .EndObject()
      .EndArray()
      .Key("broken")
      .String("ok\xC3(\xE0\x80\x80\xED\xA0\x80\xF4\x90\x80\x80\xF0\x9F\x98\x80")
      .EndObject();
  EXPECT_EQ(body.Text(),
            R"({"name":"a\"b\\\n\u0001\u007f","size":18446744073709551615,"offset":-3,)"
            R"("shared":false,"marker":null,"parent":{"id":"0"},"list":["x",[],{}],)"
            R"("broken":"ok\ufffd(\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd)"
            "\xF0\x9F\x98\x80\"}");
  json_tree tree;
  std::string error;
  ASSERT_TRUE(utils::json::Parse(body.Text(), &tree, &error)) << error;
  EXPECT_EQ(tree.get<std::string>("name"), "a\"b\\\n\x01\x7f");
  EXPECT_EQ(tree.get<std::string>("marker"), "");
}

}  // namespace

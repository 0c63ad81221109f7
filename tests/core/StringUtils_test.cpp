#include "core/StringUtils.h"

#include <gtest/gtest.h>

#include "core/Json.h"

namespace {

TEST(StringUtilsTest, LowerCaseIsUnicodes) {
  struct Case {
    const char* text;
    const char* lower;
    bool valid;
  };
  const Case cases[] = {
      {"Hello World.TXT", "hello world.txt", true},
      {"ÄÖÜ straße", "äöü straße", true},
      {"ПРИВЕТ Мир", "привет мир", true},
      {"ΑΒΓ", "αβγ", true},
      {"ＡＢＣ", "ａｂｃ", true},  // full-width letters
      {"日本語", "日本語", true},
      {"A\xFFZ", "a\xFFz", false},        // a stray byte is kept, the rest still lowered
      {"\xC3", "\xC3", false},            // truncated sequence
      {"\xC0\xC1Q", "\xC0\xC1q", false},  // overlong forms are not UTF-8
      {"", "", true},
  };
  for (const Case& c : cases) {
    std::string lower = "stale";
    EXPECT_EQ(ToLower(c.text, &lower), c.valid) << c.text;
    EXPECT_EQ(lower, c.lower) << c.text;
    EXPECT_EQ(ToLower(c.text), c.lower);
  }
}

TEST(StringUtilsTest, LowercaseIfNeededWritesOnlyWhatChanged) {
  struct Case {
    const char* text;
    bool changed;
    const char* out;
  };
  const Case cases[] = {
      {"already lower", false, "untouched"},
      {"ä", false, "untouched"},
      {"Mixed", true, "mixed"},
      {"Ä", true, "ä"},
  };
  for (const Case& c : cases) {
    std::string out = "untouched";
    bool changed = !c.changed;
    EXPECT_TRUE(LowercaseIfNeeded(c.text, &out, &changed));
    EXPECT_EQ(changed, c.changed) << c.text;
    EXPECT_EQ(out, c.out) << c.text;
  }
}

TEST(StringUtilsTest, CaseInsensitiveEquality) {
  EXPECT_TRUE(IEqualsASCII("Content-Length", "content-length"));
  EXPECT_TRUE(IEqualsASCII("ÄRGER.txt", "ärger.TXT"));
  EXPECT_FALSE(IEqualsASCII("content-length", "content-lengths"));
  EXPECT_FALSE(IEqualsASCII("abc", "abd"));
  EXPECT_FALSE(IEqualsASCII("a[", "A{"));  // '[' and '{' are 0x20 apart but not letters
  EXPECT_TRUE(IEqualsASCII("", ""));
}

TEST(StringUtilsTest, JsonEncodedStringsParseBackToTheText) {
  std::string every_ascii;
  for (int c = 1; c < 128; ++c) {
    every_ascii.push_back(static_cast<char>(c));
  }
  for (const std::string& text : {every_ascii, std::string("ä \"quoted\" \\ 日本")}) {
    utils::json::json_tree tree;
    std::string error;
    ASSERT_TRUE(
        utils::json::Parse("{\"k\":" + utils::JSONEncodedString(text, true) + "}", &tree, &error))
        << error;
    EXPECT_EQ(tree.get<std::string>("k"), text);
  }
  EXPECT_EQ(utils::JSONEncodedString("a\"b\\\n\x01", false), "a\\\"b\\\\\\n\\u0001");
  EXPECT_EQ(utils::JSONEncodedString("x\xC3", true), "\"x\xEF\xBF\xBD\"");  // U+FFFD
}

TEST(StringUtilsTest, SafePrintBinaryEscapesAllButPrintableAscii) {
  EXPECT_EQ(utils::SafePrintBinary(std::string_view("ok \0\\\xFF\n", 7)),
            "ok \\x00\\x5c\\xff\\x0a");
}

TEST(StringUtilsTest, Base64AndQtStrings) {
  EXPECT_EQ(ConvertToBase64(""), "");
  EXPECT_EQ(ConvertToBase64("f"), "Zg==");
  EXPECT_EQ(ConvertToBase64("foobar"), "Zm9vYmFy");
  EXPECT_EQ(ConvertToBase64(std::string("\0\xFF", 2)), "AP8=");
  for (const std::string text : {"plain-ascii", "äöü 日本 😀", ""}) {
    QString q = StrToQStr(text);
    EXPECT_EQ(QStrToStr(q), text);
    EXPECT_EQ(QStrToStrFast(q), text);
  }
  EXPECT_EQ(StrToQStr("😀").size(), 2);  // one code point, two UTF-16 units
}

}  // namespace

#include "core/UnicodeLower.h"

#include <gtest/gtest.h>

namespace {

TEST(UnicodeLowerTest, LowersEachCodePointAndPassesBrokenBytesThrough) {
  const struct {
    std::string text;
    std::string lower;
  } kCases[] = {
      {"", ""},
      {"ABC xyz 09_-", "abc xyz 09_-"},
      {"ÄÖÜ", "äöü"},
      {"ПРИВЕТ Мир", "привет мир"},
      {"ΟΔΟΣ ς", "οδοσ ς"},
      {"\u212A", "k"},        // Kelvin sign: three bytes down to one
      {"\u0130", "i\u0307"},  // dotted capital I: two code points
      {"X\u0130Y", "xi\u0307y"},
      {"\xF0\x90\x90\x80", "\xF0\x90\x90\xA8"},  // Deseret, four bytes each side
      {"\xC3", "\xC3"},                          // cut short at the end
      {"\xC3(A", "\xC3(a"},                      // a lead byte without its continuation
      {"\xC0\x81", "\xC0\x81"},                  // overlong form
      {"\xE0\x80\x81", "\xE0\x80\x81"},          // overlong form, three bytes
      {"\xED\xA0\x80", "\xED\xA0\x80"},          // a surrogate
      {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80"},  // beyond U+10FFFF
      {"\x80\xBF", "\x80\xBF"},                  // lone continuation bytes
      {"A\xFF"
       "B",
       "a\xFF"
       "b"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(utils::UnicodeToLower(c.text), c.lower) << c.text;
    EXPECT_TRUE(utils::EqualsLowered(c.text, c.lower)) << c.text;
  }
}

TEST(UnicodeLowerTest, EqualsLoweredComparesWholeTexts) {
  const struct {
    const char* text;
    const char* lowered;
    bool equal;
  } kCases[] = {
      {"Readme", "readme", true},
      {"Readme", "readm", false},
      {"Readm", "readme", false},
      {"READMÉ", "readmé", true},
      {"READMÉ", "readme", false},
      {"\u212Aey", "key", true},
      {"Key", "\u212Aey", false},  // the lowered side is already lower case
      {"", "", true},
      {"a", "", false},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(utils::EqualsLowered(c.text, c.lowered), c.equal) << c.text << " " << c.lowered;
}

}  // namespace

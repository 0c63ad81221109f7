#include "core/SomeHash.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

TEST(HashImplTest, FromHexStringLogsAndYieldsZeroOnBadText) {
  const struct {
    std::string text;
    const char* line;  // the one level-3 line expected, or null
  } kCases[] = {
      {"d41d8cd98f00b204e9800998ecf8427", "Invalid hash string."},     // odd length
      {"d41d8cd98f00b204e9800998ecf8427e00", "Invalid hash string."},  // too long
      {"", "Invalid hash string."},
      {"d41d8cd98f00b204e9800998ecf8427g", "Invalid symbol in FromHexString method."},
      {"d41d8cd98f00b204e9800998ecf842 e", "Invalid symbol in FromHexString method."},
      {"x41d8cd98f00b204e9800998ecf8427e", "Invalid symbol in FromHexString method."},
      {"D41D8CD98F00B204E9800998ECF8427E", nullptr},
      {"d41d8cd98f00b204e9800998ecf8427e", nullptr},
  };
  for (const auto& c : kCases) {
    LoggerWrapper::Capture capture;
    HashBase<16> value = HashBase<16>::FromHexString(c.text);
    if (c.line == nullptr) {
      EXPECT_EQ(value.ToHexString(), "d41d8cd98f00b204e9800998ecf8427e");
      EXPECT_TRUE(capture.Lines().empty()) << c.text;
      continue;
    }
    EXPECT_TRUE(value.IsZero()) << c.text;
    std::vector<std::string> errors = capture.LinesAtLevel(LogType::kError);
    ASSERT_EQ(errors.size(), 1u) << c.text;
    EXPECT_EQ(capture.Lines().size(), 1u) << c.text;
    EXPECT_TRUE(capture.Contains(c.line)) << errors[0];
    EXPECT_EQ(errors[0].substr(errors[0].size() - std::string(c.line).size()), c.line);
  }
}

TEST(HashImplTest, YandexTakesItsOwnHexFormAndRefusesHalfAValue) {
  HashYandex value = HashYandex::FromHexString(
      "d41d8cd98f00b204e9800998ecf8427e"
      "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(HashYandex::FromHexString(value.ToHexString()), value);
  EXPECT_FALSE(value.IsZero());

  LoggerWrapper::Capture capture;
  HashYandex broken = HashYandex::FromHexString(
      "d41d8cd98f00b204e9800998ecf8427e"
      "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b85z");
  EXPECT_TRUE(broken.md5.IsZero());  // a valid MD5 beside a broken SHA-256 is not kept
  EXPECT_TRUE(broken.IsZero());
  EXPECT_TRUE(capture.Contains("Invalid symbol in FromHexString method."));
}

TEST(SomeHashTest, DefaultIsEmptyAndEmptyFileHashIsARealValue) {
  SomeHash none;
  EXPECT_TRUE(none.IsEmpty());
  EXPECT_TRUE(none.IsZero());
  EXPECT_EQ(none.GetType(), SomeHash::NONE);

  const struct {
    SomeHash::HashType type;
    const char* hex;
  } kEmpty[] = {
      {SomeHash::GOOGLE, "d41d8cd98f00b204e9800998ecf8427e"},
      {SomeHash::BOX, "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {SomeHash::DROPBOX, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {SomeHash::GENERIC, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {SomeHash::YANDEX,
       "d41d8cd98f00b204e9800998ecf8427e"
       "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      // QuickXorHash of nothing is all zero bits; the value still has its kind.
      {SomeHash::ONEDRIVE, "0000000000000000000000000000000000000000"},
  };
  for (const auto& c : kEmpty) {
    SomeHash empty_file = SomeHash::EmptyFileHash(c.type);
    EXPECT_FALSE(empty_file.IsEmpty()) << int(c.type);
    EXPECT_NE(empty_file, none) << int(c.type);
    EXPECT_EQ(empty_file.GetType(), c.type);
    EXPECT_EQ(empty_file.ToHexString(), c.hex) << int(c.type);
  }
  EXPECT_TRUE(SomeHash::EmptyFileHash(SomeHash::NONE).IsEmpty());
}

TEST(SomeHashTest, GettersOfAnotherKindGiveEmptyValuesAndStreamShowsDisplayForm) {
  HashDropbox dropbox = HashDropbox::FromHexString(
      "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  dropbox.rev = "015f";
  SomeHash hash(dropbox);
  EXPECT_TRUE(hash.GetHashGoogle().IsZero());
  EXPECT_TRUE(hash.GetHashGenericString().empty());
  EXPECT_EQ(hash.GetHashDropbox().rev, "015f");
  std::ostringstream out;
  out << hash;
  EXPECT_EQ(out.str(), dropbox.ToHexString() + " rev 015f");

  // The revision names a version, not content.
  HashDropbox other_rev = dropbox;
  other_rev.rev = "0160";
  EXPECT_EQ(SomeHash(other_rev), hash);
  EXPECT_NE(SomeHash(std::string(dropbox.ToHexString())), hash);
}

}  // namespace

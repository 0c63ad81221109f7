#include "core/SomeHash.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <thread>
#include <vector>

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

HashOneDrive OneDriveOf(const std::string& quick_xor_hex, const std::string& sha1_hex,
                        std::optional<std::uint32_t> crc32, const std::string& etag) {
  HashOneDrive value;
  if (!quick_xor_hex.empty())
    value.quick_xor = HashBase<20>::FromHexString(quick_xor_hex);
  if (!sha1_hex.empty())
    value.sha1 = HashBase<20>::FromHexString(sha1_hex);
  value.has_crc32 = crc32.has_value();
  value.crc32 = crc32.value_or(0);
  value.etag = etag;
  return value;
}

const std::string kMd5 = "0123456789abcdef0123456789abcdef";
const std::string kSha1 = "aaaaaaaaaabbbbbbbbbbccccccccccdddddddddd";
const std::string kSha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

struct KindCase {
  const char* name;
  SomeHash value;
  SomeHash::HashType type;
  bool zero;
  std::string display;  // ToDisplayString, which shows every field a value keeps
};

std::vector<KindCase> KindCases() {
  const std::size_t inline_text = SomeHash::kInlineText;
  HashDropbox dropbox = HashDropbox::FromHexString(kSha256);
  dropbox.rev = "015f";
  return {
      {"text empty", SomeHash(std::string()), SomeHash::GENERIC, true, ""},
      {"text 1", SomeHash(std::string("x")), SomeHash::GENERIC, false, "x"},
      {"text under", SomeHash(std::string(inline_text - 1, 'a')), SomeHash::GENERIC, false,
       std::string(inline_text - 1, 'a')},
      {"text at", SomeHash(std::string(inline_text, 'b')), SomeHash::GENERIC, false,
       std::string(inline_text, 'b')},
      {"text over", SomeHash(std::string(inline_text + 1, 'c')), SomeHash::GENERIC, false,
       std::string(inline_text + 1, 'c')},
      {"text with NUL", SomeHash(std::string("\"0\0-1\"", 6)), SomeHash::GENERIC, false,
       std::string("\"0\0-1\"", 6)},
      {"sha256 text", SomeHash(kSha256), SomeHash::GENERIC, false, kSha256},
      {"md5", SomeHash(HashGoogle::FromHexString(kMd5)), SomeHash::GOOGLE, false, kMd5},
      {"md5 zero", SomeHash(HashGoogle()), SomeHash::GOOGLE, true,
       "00000000000000000000000000000000"},
      {"dropbox", SomeHash(dropbox), SomeHash::DROPBOX, false, kSha256 + " rev 015f"},
      {"dropbox zero", SomeHash(HashDropbox()), SomeHash::DROPBOX, true, std::string(64, '0')},
      {"yandex", SomeHash(HashYandex::FromHexString(kMd5 + kSha256)), SomeHash::YANDEX, false,
       kMd5 + " " + kSha256},
      {"onedrive", SomeHash(OneDriveOf(kSha1, "", std::nullopt, "e1")), SomeHash::ONEDRIVE, false,
       kSha1 + " etag e1"},
      {"onedrive crc", SomeHash(OneDriveOf("", "", 0xbeef, "")), SomeHash::ONEDRIVE, false,
       "0000beef"},
      {"box", SomeHash(HashBox{kSha1, "7"}), SomeHash::BOX, false, kSha1 + " etag 7"},
      {"box zero", SomeHash(HashBox{"", "7"}), SomeHash::BOX, true, " etag 7"},
  };
}

TEST(SomeHashTest, EveryKindKeepsItsValueThroughCopiesMovesAndAssignments) {
  const SomeHash inline_value(std::string("\"0-1\""));
  const SomeHash block_value(HashBox{kSha1, "9"});
  for (const KindCase& c : KindCases()) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.value.GetType(), c.type);
    EXPECT_FALSE(c.value.IsEmpty());
    EXPECT_EQ(c.value.IsZero(), c.zero);
    EXPECT_EQ(c.value.ToDisplayString(), c.display);
    if (c.type == SomeHash::GENERIC) {
      EXPECT_EQ(c.value.GetHashGenericString(), c.display);
    }

    SomeHash copy(c.value);
    EXPECT_EQ(copy, c.value);
    EXPECT_EQ(copy.ToDisplayString(), c.display);

    SomeHash moved(std::move(copy));
    EXPECT_EQ(moved.ToDisplayString(), c.display);
    EXPECT_TRUE(copy.IsEmpty());
    EXPECT_EQ(copy, SomeHash());
    copy = c.value;  // a moved-from value takes a new one
    EXPECT_EQ(copy.ToDisplayString(), c.display);

    for (const SomeHash* previous : {&inline_value, &block_value}) {
      SomeHash assigned(*previous);
      assigned = c.value;
      EXPECT_EQ(assigned.ToDisplayString(), c.display);
      SomeHash move_assigned(*previous);
      move_assigned = SomeHash(c.value);
      EXPECT_EQ(move_assigned.ToDisplayString(), c.display);
      assigned = *previous;  // back over the other kind: the old value is let go
      EXPECT_EQ(assigned, *previous);
    }

    SomeHash self(c.value);
    const SomeHash& alias = self;
    self = alias;
    EXPECT_EQ(self.ToDisplayString(), c.display);
    SomeHash& same = self;
    self = std::move(same);
    EXPECT_EQ(self.ToDisplayString(), c.display);
  }
}

TEST(SomeHashTest, EqualityComparesKindAndContentOnly) {
  // Values of one group are equal to each other and to no value of another group.
  const std::vector<std::vector<SomeHash>> groups = {
      {SomeHash(), SomeHash()},
      {SomeHash(std::string()), SomeHash(std::string())},
      {SomeHash(std::string(SomeHash::kInlineText, 'a')),
       SomeHash(std::string(SomeHash::kInlineText, 'a'))},
      {SomeHash(std::string(SomeHash::kInlineText + 1, 'a'))},
      {SomeHash(kMd5)},
      {SomeHash(HashGoogle::FromHexString(kMd5)), SomeHash(HashGoogle::FromHexString(kMd5))},
      {SomeHash(HashGoogle())},
      {SomeHash(HashDropbox::FromHexString(kSha256)), SomeHash([] {
         HashDropbox other_rev = HashDropbox::FromHexString(kSha256);
         other_rev.rev = "0160";
         return other_rev;
       }())},
      {SomeHash(HashYandex::FromHexString(kMd5 + kSha256))},
      // OneDrive: the digests known on both sides decide; the eTag never does.
      {SomeHash(OneDriveOf(kSha1, "", std::nullopt, "e1")),
       SomeHash(OneDriveOf(kSha1, kSha1, std::nullopt, "e2"))},
      {SomeHash(OneDriveOf("", "", std::nullopt, "e1")),
       SomeHash(OneDriveOf("", "", std::nullopt, ""))},
      {SomeHash(HashBox{kSha1, "1"}), SomeHash(HashBox{kSha1, "2"})},
  };
  for (std::size_t a = 0; a < groups.size(); ++a) {
    for (std::size_t b = 0; b < groups.size(); ++b) {
      for (const SomeHash& left : groups[a]) {
        for (const SomeHash& right : groups[b]) {
          EXPECT_EQ(left == right, a == b) << left << " / " << right;
          EXPECT_EQ(left != right, a != b) << left << " / " << right;
        }
      }
    }
  }
  // Two OneDrive values with no digest in common say nothing of each other.
  EXPECT_NE(SomeHash(OneDriveOf(kSha1, "", std::nullopt, "")),
            SomeHash(OneDriveOf("", kSha1, std::nullopt, "")));
}

TEST(SomeHashTest, CopiesOfOneValueComeAndGoOnSeveralThreads) {
  const SomeHash shared(std::string(100, 'z'));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&shared] {
      std::vector<SomeHash> copies(1000, shared);
      for (SomeHash& copy : copies)
        copy = SomeHash(copy);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(shared.GetHashGenericString(), std::string(100, 'z'));
}

}  // namespace

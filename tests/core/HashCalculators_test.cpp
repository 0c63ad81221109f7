#include "core/HashCalculators.h"

#include <gtest/gtest.h>

#include "support/HashReferences.h"
#include "support/HashVectors.h"

#include <QByteArray>
#include <QTemporaryDir>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kMiB4 = 4 * 1024 * 1024;

// Feeds `data` in blocks whose sizes cycle through odd values, so that block edges fall at
// every distance from the 4 MiB and 160-byte boundaries of the algorithms.
void FeedInOddBlocks(HashCalculator* calculator, const Bytes& data) {
  static constexpr std::uint32_t kSizes[] = {1, 7919, 65537, 3, 1048573, 159, 161, 4194305};
  std::size_t offset = 0;
  for (std::size_t i = 0; offset < data.size(); ++i) {
    std::uint32_t size = kSizes[i % std::size(kSizes)];
    size = static_cast<std::uint32_t>(std::min<std::size_t>(size, data.size() - offset));
    calculator->Feed(data.data() + offset, size);
    offset += size;
  }
}

SomeHash HashOf(HashCalculator* calculator, const Bytes& data) {
  calculator->Begin();
  FeedInOddBlocks(calculator, data);
  return calculator->Finish();
}

Bytes RandomBytes(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  Bytes data(size);
  for (auto& byte : data)
    byte = static_cast<std::uint8_t>(random());
  return data;
}

std::string Base64(const std::uint8_t* data, std::size_t size) {
  return QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size))
      .toBase64()
      .toStdString();
}

Bytes FromBase64(const std::string& text) {
  QByteArray bytes = QByteArray::fromBase64(QByteArray::fromStdString(text));
  return Bytes(bytes.begin(), bytes.end());
}

// The digests of the content as the tools outside the library compute them from a file.
class ToolDigests {
 public:
  explicit ToolDigests(const Bytes& data) {
    path_ = dir_.filePath("content").toStdString();
    std::ofstream(path_, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
  }
  std::string Of(const std::string& algorithm) const {
    return test::OpensslDigestOf(path_, algorithm);
  }
  std::string Dropbox() const {
    return test::DropboxHashByOpenssl(path_, dir_.filePath("piece.").toStdString());
  }

 private:
  QTemporaryDir dir_;
  std::string path_;
};

TEST(HashCalculatorsTest, DropboxPublishedVectors) {
  HashCalculatorDropbox calculator;
  for (const auto& [size, expected] : test::kDropboxVectors) {
    SomeHash hash = HashOf(&calculator, Bytes(size, 'A'));
    EXPECT_EQ(hash.GetType(), SomeHash::DROPBOX);
    EXPECT_EQ(hash.GetHashDropbox().ToHexString(), expected) << size << " bytes";
  }
}

TEST(HashCalculatorsTest, QuickXorPublishedVectors) {
  HashCalculatorOneDrive calculator;
  for (const auto& [input, expected] : test::kQuickXorVectors) {
    HashBase<20> digest = HashOf(&calculator, FromBase64(input)).GetHashOneDrive().quick_xor;
    EXPECT_EQ(Base64(digest.data(), digest.kSize), expected) << input;
  }
}

struct Case {
  const char* name;
  std::function<std::unique_ptr<HashCalculator>()> make;
  // The expected text of the calculator's result, from the tools or the reference.
  std::function<std::string(const ToolDigests&, const Bytes&)> expected;
  std::function<std::string(const SomeHash&)> actual;
};

TEST(HashCalculatorsTest, EachMatchesAnIndependentImplementationOnRandomContent) {
  const Case kCases[] = {
      {"box", [] { return std::make_unique<HashCalculatorBox>(); },
       [](const ToolDigests& tool, const Bytes&) { return tool.Of("sha1"); },
       [](const SomeHash& hash) { return hash.GetHashBox().sha1; }},
      {"dropbox", [] { return std::make_unique<HashCalculatorDropbox>(); },
       [](const ToolDigests& tool, const Bytes&) { return tool.Dropbox(); },
       [](const SomeHash& hash) { return hash.GetHashDropbox().ToHexString(); }},
      {"google", [] { return std::make_unique<HashCalculatorGoogle>(); },
       [](const ToolDigests& tool, const Bytes&) { return tool.Of("md5"); },
       [](const SomeHash& hash) { return hash.GetHashGoogle().ToHexString(); }},
      {"internal", [] { return std::make_unique<HashCalculatorInternal>(); },
       [](const ToolDigests& tool, const Bytes&) { return tool.Of("sha256"); },
       [](const SomeHash& hash) { return hash.GetHashGenericString(); }},
      {"onedrive", [] { return std::make_unique<HashCalculatorOneDrive>(); },
       [](const ToolDigests&, const Bytes& data) {
         return test::QuickXorReference(data.data(), data.size());
       },
       [](const SomeHash& hash) { return hash.GetHashOneDrive().quick_xor.ToHexString(); }},
      {"yandex", [] { return std::make_unique<HashCalculatorYandex>(); },
       [](const ToolDigests& tool, const Bytes&) { return tool.Of("md5") + tool.Of("sha256"); },
       [](const SomeHash& hash) { return hash.GetHashYandex().ToHexString(); }},
  };
  const std::size_t kSizes[] = {0, 1, kMiB4 - 1, kMiB4, kMiB4 + 1, 5 * kMiB4};
  for (std::size_t size : kSizes) {
    Bytes data = RandomBytes(size, static_cast<unsigned>(size));
    ToolDigests tool(data);
    for (const Case& c : kCases) {
      std::unique_ptr<HashCalculator> calculator = c.make();
      std::string expected = c.expected(tool, data);
      ASSERT_FALSE(expected.empty()) << c.name;
      EXPECT_EQ(c.actual(HashOf(calculator.get(), data)), expected) << c.name << ", " << size;
      // Begin starts over: a second run on the same object gives the same value.
      EXPECT_EQ(c.actual(HashOf(calculator.get(), data)), expected) << c.name << ", " << size;
    }
  }
}

// A copy taken in the middle of a stream continues on its own to the value of the whole
// content, also after the original has gone on with other bytes or been destroyed.
template <typename Calculator>
void ExpectCopyContinues(std::size_t split) {
  Bytes data = RandomBytes(2 * kMiB4 + 777, 7);
  Calculator whole;
  SomeHash expected = HashOf(&whole, data);

  auto original = std::make_unique<Calculator>();
  original->Begin();
  original->Feed(data.data(), static_cast<std::uint32_t>(split));
  Calculator copy(*original);
  Calculator assigned;
  assigned = *original;
  original->Feed(data.data(), 1000);  // diverges
  original.reset();

  const std::uint32_t rest = static_cast<std::uint32_t>(data.size() - split);
  copy.Feed(data.data() + split, rest);
  assigned.Feed(data.data() + split, rest);
  EXPECT_EQ(copy.Finish(), expected) << split;
  EXPECT_EQ(assigned.Finish(), expected) << split;
}

TEST(HashCalculatorsTest, DropboxAndOneDriveCopiesContinueMidStream) {
  for (std::size_t split :
       {std::size_t{0}, std::size_t{159}, std::size_t{kMiB4}, std::size_t{kMiB4 + 161}}) {
    ExpectCopyContinues<HashCalculatorDropbox>(split);
    ExpectCopyContinues<HashCalculatorOneDrive>(split);
  }
}

// Whole blocks hashed apart, in any order, and handed in at their place give the value of the
// stream; a digest offered inside a block is refused and changes nothing.
TEST(HashCalculatorsTest, DropboxBlockDigestsTakenApartGiveTheStreamsValue) {
  for (std::size_t size : {std::size_t{0}, std::size_t{kMiB4}, std::size_t{3 * kMiB4 + 5}}) {
    Bytes data = RandomBytes(size, 11);
    HashCalculatorDropbox whole;
    const SomeHash expected = HashOf(&whole, data);

    const std::size_t blocks = size / kMiB4;
    std::vector<HashBase<32>> digests(blocks);
    for (std::size_t i = blocks; i-- > 0;) {
      digests[i] = HashCalculatorDropbox::BlockDigest(data.data() + i * kMiB4, kMiB4);
    }
    HashCalculatorDropbox apart;
    apart.Begin();
    for (const HashBase<32>& digest : digests) {
      EXPECT_TRUE(apart.FeedBlockDigest(digest));
    }
    apart.Feed(data.data() + blocks * kMiB4, static_cast<std::uint32_t>(size % kMiB4));
    EXPECT_EQ(apart.Finish(), expected) << size;
  }

  Bytes one = {0x42};
  HashCalculatorDropbox mid;
  const SomeHash expected = HashOf(&mid, one);
  mid.Begin();
  mid.Feed(one.data(), 1);
  EXPECT_FALSE(mid.FeedBlockDigest(HashCalculatorDropbox::BlockDigest(one.data(), 1)));
  EXPECT_EQ(mid.Finish(), expected);
}

TEST(HashCalculatorsTest, MakeHashCalculatorGivesTheKindOfEachType) {
  for (SomeHash::HashType type : {SomeHash::YANDEX, SomeHash::DROPBOX, SomeHash::GOOGLE,
                                  SomeHash::GENERIC, SomeHash::ONEDRIVE, SomeHash::BOX}) {
    std::unique_ptr<HashCalculator> calculator = MakeHashCalculator(type);
    ASSERT_NE(calculator, nullptr) << int(type);
    const std::uint8_t byte = 'x';
    calculator->Feed(&byte, 1);  // started already
    EXPECT_EQ(calculator->Finish().GetType(), type);
  }
  EXPECT_EQ(MakeHashCalculator(SomeHash::NONE), nullptr);
}

}  // namespace

#include "core/HashCalculators.h"

#include <gtest/gtest.h>

#include "support/HashVectors.h"

#include <QByteArray>
#include <QTemporaryDir>
#include <cstdio>
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

// Runs a shell command and answers the first word of its output.
std::string FirstWordOf(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  EXPECT_NE(pipe, nullptr) << command;
  if (pipe == nullptr)
    return std::string();
  char buffer[256] = {};
  std::string out = fgets(buffer, sizeof(buffer), pipe) ? buffer : "";
  EXPECT_EQ(pclose(pipe), 0) << command;
  return out.substr(0, out.find_first_of(" \n"));
}

// The digests as the openssl command-line tool computes them from a file.
class ToolDigests {
 public:
  explicit ToolDigests(const Bytes& data) {
    path_ = dir_.filePath("content").toStdString();
    std::ofstream(path_, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
  }
  std::string Of(const std::string& algorithm) const {
    return FirstWordOf("openssl dgst -" + algorithm + " -r '" + path_ + "'");
  }
  // Dropbox's composition: the file split in 4 MiB pieces, SHA-256 of the concatenated
  // binary SHA-256 of each piece.
  std::string Dropbox() const {
    std::string pieces = dir_.filePath("piece.").toStdString();
    return FirstWordOf("split -b 4194304 -a 4 '" + path_ + "' '" + pieces + "' && for f in '" +
                       pieces + "'*; do [ -e \"$f\" ] || continue; " +
                       "openssl dgst -sha256 -binary \"$f\"; done | openssl dgst -sha256 -r");
  }

 private:
  QTemporaryDir dir_;
  std::string path_;
};

// QuickXorHash bit by bit, as Microsoft describes it: bit j of byte i flips bit (11 * i + j)
// mod 160 of the ring; the length goes little-endian into the last 8 bytes.
std::string QuickXorReference(const Bytes& data) {
  std::uint8_t ring[20] = {};
  for (std::size_t i = 0; i < data.size(); ++i) {
    for (std::size_t j = 0; j < 8; ++j) {
      if (data[i] >> j & 1) {
        std::size_t bit = (11 * i + j) % 160;
        ring[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
      }
    }
  }
  std::uint64_t length = data.size();
  for (int i = 0; i < 8; ++i)
    ring[12 + i] ^= static_cast<std::uint8_t>(length >> (8 * i));
  return HashBase<20>([&ring] {
           std::array<std::uint8_t, 20> bytes;
           std::copy(std::begin(ring), std::end(ring), bytes.begin());
           return bytes;
         }())
      .ToHexString();
}

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
       [](const ToolDigests&, const Bytes& data) { return QuickXorReference(data); },
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

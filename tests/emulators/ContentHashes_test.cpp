// The emulators' digests against the published test vectors and against independent tools.
#include "emulators/ContentHashes.h"

#include <QByteArray>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/HashReferences.h"
#include "support/HashVectors.h"
#include "support/Processes.h"

namespace {

using emulators::ContentDigests;
using emulators::ContentHasher;

// Fed in uneven pieces, so that a block or ring boundary inside a piece shows.
ContentDigests InPieces(const std::string& bytes) {
  ContentHasher hasher;
  std::size_t sizes[] = {1, 7, 4096, 65536 + 3, 1 << 20};
  std::size_t done = 0;
  for (int i = 0; done < bytes.size(); ++i) {
    std::size_t n = std::min(sizes[i % 5], bytes.size() - done);
    hasher.Update(bytes.data() + done, n);
    done += n;
  }
  return hasher.Finish();
}

TEST(ContentHashesTest, DropboxVectorsOfLettersA) {
  for (const auto& [size, expected] : test::kDropboxVectors) {
    std::string bytes(size, 'A');
    EXPECT_EQ(ContentHasher::Of(bytes).dropbox, expected) << size;
    EXPECT_EQ(InPieces(bytes).dropbox, expected) << size;
  }
}

TEST(ContentHashesTest, QuickXorVectors) {
  for (const auto& [input, expected] : test::kQuickXorVectors) {
    QByteArray bytes = QByteArray::fromBase64(QByteArray::fromStdString(input));
    EXPECT_EQ(ContentHasher::Of(bytes.toStdString()).quickxor, expected) << input;
  }
}

TEST(ContentHashesTest, AgreeWithIndependentTools) {
  test::TempDir temp;
  const std::size_t kMiB = 1 << 20;
  const std::vector<std::size_t> sizes = {0, 1, 4 * kMiB - 1, 4 * kMiB, 4 * kMiB + 1, 9 * kMiB};
  for (std::size_t size : sizes) {
    std::string bytes = test::RandomBytes(size, static_cast<unsigned>(size));
    std::string file = (temp.path() / "content").string();
    test::WriteAll(file, bytes);
    auto tool = [&](std::vector<std::string> argv) {
      argv.push_back(file);
      test::Outcome run = test::RunProcess(argv, temp.path());
      EXPECT_EQ(run.status, 0) << argv[0] << ": " << run.err;
      return run.out.substr(0, run.out.find_first_of(" \n"));
    };
    ContentDigests ours = InPieces(bytes);
    EXPECT_EQ(ours.md5, tool({"md5sum"})) << size;
    EXPECT_EQ(ours.sha1, tool({"sha1sum"})) << size;
    EXPECT_EQ(ours.sha256, tool({"sha256sum"})) << size;
    EXPECT_EQ(ours.dropbox, test::DropboxHashByOpenssl(file, file + ".piece.")) << size;
    // Ours is the base64 that OneDrive sends.
    QByteArray quickxor = QByteArray::fromBase64(QByteArray::fromStdString(ours.quickxor));
    EXPECT_EQ(
        quickxor.toHex().toStdString(),
        test::QuickXorReference(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()))
        << size;
  }
}

TEST(ContentHashesTest, OnlyTheAskedDigestsAreMade) {
  ContentDigests digests = ContentHasher::Of("abc", ContentHasher::kSha1);
  EXPECT_EQ(digests.sha1, "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_TRUE(digests.md5.empty());
  EXPECT_TRUE(digests.dropbox.empty());
  EXPECT_TRUE(digests.quickxor.empty());
}

}  // namespace

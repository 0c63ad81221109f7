// The emulators' digests against the published test vectors and against independent tools.
#include "emulators/ContentHashes.h"

#include <QByteArray>

#include <string>
#include <vector>

#include <gtest/gtest.h>

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
  const std::vector<std::pair<std::size_t, std::string>> vectors = {
      {0, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {1, "1cd6ef71e6e0ff46ad2609d403dc3fee244417089aa4461245a4e4fe23a55e42"},
      {4096, "8620913d33852befe09f16fff8fd75f77a83160d29f76f07e0276e9690903035"},
      {4194303, "647c8627d70f7a7d13ce96b1e7710a771a55d41a62c3da490d92e56044d311fa"},
      {4194304, "d4d63bac5b866c71620185392a8a6218ac1092454a2d16f820363b69852befa3"},
      {4194305, "8f553da8d00d0bf509d8470e242888be33019c20c0544811f5b2b89e98360b92"},
      {8388608, "e08b3ba1f538804075c5f939accdeaa9efc7b5c01865c94a41e78ca6550a88e7"},
  };
  for (const auto& [size, expected] : vectors) {
    std::string bytes(size, 'A');
    EXPECT_EQ(ContentHasher::Of(bytes).dropbox, expected) << size;
    EXPECT_EQ(InPieces(bytes).dropbox, expected) << size;
  }
}

TEST(ContentHashesTest, QuickXorVectors) {
  const std::vector<std::pair<std::string, std::string>> vectors = {
      {"", "AAAAAAAAAAAAAAAAAAAAAAAAAAA="},
      {"Sg==", "SgAAAAAAAAAAAAAAAQAAAAAAAAA="},
      {"tbQ=", "taAFAAAAAAAAAAAAAgAAAAAAAAA="},
      {"0pZP", "0rDEEwAAAAAAAAAAAwAAAAAAAAA="},
      {"jRRDVA==", "jaDAEKgAAAAAAAAABAAAAAAAAAA="},
      {"2fuxhBJXtpWFe8dOfdGeHw==", "O9tHLAghgSvYohKFyMMxnNCHaHg="},
  };
  for (const auto& [input, expected] : vectors) {
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
    EXPECT_EQ(ours.dropbox, tool({"rclone", "hashsum", "dropbox"})) << size;
    // rclone prints QuickXor in hex; ours is the base64 that OneDrive sends.
    QByteArray quickxor = QByteArray::fromBase64(QByteArray::fromStdString(ours.quickxor));
    EXPECT_EQ(quickxor.toHex().toStdString(), tool({"rclone", "hashsum", "quickxor"})) << size;
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

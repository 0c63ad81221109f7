// The pieces the emulator benchmarks stand on: the payload that curl and the adapters read, the
// checks that withhold a figure, curl's requests on one connection, and an account served from a
// child process. Nothing here is timed.
#include <gtest/gtest.h>

#include "emulators/HttpServer.h"
#include "support/EmulatedAccount.h"
#include "support/TransferBench.h"
#include "support/TreeBench.h"

namespace {

TEST(BenchPayload, ReadsTheGeneratedBytesAcrossPieces) {
  struct Case {
    std::uint64_t size;
    std::uint64_t piece;
    std::size_t read;
  };
  const Case cases[] = {{1000, 1000, 7}, {1001, 100, 33}, {4096, 1024, 1024}, {5, 2, 5}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.size) + "/" + std::to_string(c.piece));
    bench::Payload payload(c.size, c.piece);
    EXPECT_EQ(payload.pieces().size(), (c.size + c.piece - 1) / c.piece);
    bench::ContentSource source = payload.Source();
    std::string read;
    for (std::uint64_t at = 0; at < c.size; at += c.read) {
      std::string block(std::min<std::uint64_t>(c.read, c.size - at), '\0');
      ASSERT_TRUE(source(at, reinterpret_cast<std::uint8_t*>(block.data()), block.size()));
      read += block;
    }
    EXPECT_EQ(read, emulators::PatternString(0, c.size));
    std::uint8_t past = 0;
    EXPECT_FALSE(source(c.size, &past, 1));
  }
}

TEST(BenchCurl, RequestsOfOneProcessShareAConnectionAndAFailureHasNoFigure) {
  emulators::HttpServer server;
  server.Handle("GET", "/ok", [](const emulators::HttpRequest&) {
    return emulators::HttpResponse::Status(200, "fine");
  });
  server.Handle("GET", "/gone",
                [](const emulators::HttpRequest&) { return emulators::HttpResponse::Status(404); });
  const std::string ok = server.BaseUrl() + "/ok";
  bench::Timing both = bench::RunCurl({{ok}, bench::CountDownloaded({ok})});
  ASSERT_TRUE(both.ok) << both.error;
  EXPECT_EQ(both.out, "fine4");
  EXPECT_EQ(server.ConnectionCount(), 1);

  bench::Timing counted = bench::RunCurl({bench::CountDownloaded({ok})});
  EXPECT_TRUE(bench::CheckDownloaded(counted, 4).ok);
  EXPECT_FALSE(bench::CheckDownloaded(counted, 5).ok);

  bench::Timing failed = bench::RunCurl({{server.BaseUrl() + "/gone"}});
  EXPECT_FALSE(failed.ok);
  EXPECT_NE(failed.error.find("404"), std::string::npos) << failed.error;
}

TEST(BenchTransfer, AnUploadLandsWholeAndADifferentFileWithholdsTheFigure) {
  bench::EmulatedAccount dropbox(emulators::MakeDialect("dropbox"), CloudServiceId::DROPBOX);
  const std::uint64_t size = (3 << 20) + 7;
  emulators::Item same, other;
  dropbox.account().CreateGeneratedFile(dropbox.account().RootId(), "same.bin", size, &same);
  dropbox.account().CreateGeneratedFile(dropbox.account().RootId(), "other.bin", size - 1, &other);
  std::unique_ptr<RemoteFileSystem> fs = dropbox.Open();
  ASSERT_NE(fs, nullptr);

  bench::Timing up = bench::UploadThrough(*fs, "up.bin", bench::GeneratedContent(), size, 99991);
  ASSERT_TRUE(up.ok) << up.error;
  EXPECT_TRUE(bench::CheckStored(up, dropbox.account(), "up.bin", same).ok);
  bench::Timing wrong = bench::CheckStored(up, dropbox.account(), "up.bin", other);
  EXPECT_FALSE(wrong.ok);
  EXPECT_NE(wrong.error.find(other.digests.sha256), std::string::npos) << wrong.error;
  EXPECT_FALSE(bench::CheckStored(up, dropbox.account(), "missing.bin", same).ok);

  bench::Timing down = bench::DownloadThrough(*fs, "same.bin", size, 99991);
  EXPECT_TRUE(down.ok) << down.error;
  EXPECT_FALSE(bench::DownloadThrough(*fs, "same.bin", size + 1, 99991).ok);
}

TEST(BenchTree, AnAccountSeededInAChildProcessComesDownWhole) {
  bench::TreeShape shape;
  shape.top_folders = 2;
  shape.sub_folders = 3;
  shape.files_per_folder = 4;
  bench::EmulatedAccount box(
      emulators::MakeDialect("box"), CloudServiceId::BOX,
      [&shape](emulators::CloudAccount& account) { bench::SeedAccount(&account, shape); });
  std::unique_ptr<RemoteFileSystem> fs = box.Open();
  ASSERT_NE(fs, nullptr);
  FolderNode root;
  std::uint64_t free = 0, total = 0;
  ASSERT_EQ(fs->GetFullTree(&root, &free, &total, nullptr), FileSystem::SUCCEEDED);
  EXPECT_EQ(bench::CountItems(root), shape.Items());
  EXPECT_EQ(shape.Items(), 2u * (1 + 3 * (1 + 4)));
  auto [folder, name] = root.TraversePath("Top 1/Sub 2/IMG_3.jpg", true);
  ASSERT_NE(folder, nullptr);
  EXPECT_NE(folder->GetFile(name), nullptr);
}

}  // namespace

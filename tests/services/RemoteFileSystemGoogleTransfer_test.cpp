// The Google adapter's file content against the Drive emulator: the session request and the one
// PUT of an upload, the checks that keep a wrong upload from passing, the time patch, the resume
// of an interrupted session by another instance of the account, and ranged reads.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "services/GoogleUpload.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileSystemGoogleSharedData.h"
#include "services/RemoteGoogleUtils.h"
#include "support/GoogleDriveFixture.h"
#include "support/Transfers.h"

namespace {

using emulators::HttpRequest;
using Result = FileSystem::Result;

constexpr std::uint32_t kBlock = 64 * 1024;
constexpr std::uint64_t kTime = 1700000000;  // 2023-11-14T22:13:20Z

std::string Bytes(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<char>((i * 131 + seed * 7 + (i >> 9)) & 0xff);
  return bytes;
}

SomeHash Md5(const std::string& content) {
  return SomeHash(google::HashOfBytes(content));
}

class GoogleTransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(drive.opened);
    drive.account().CreateFile(drive.account().RootId(), "seen.txt", Bytes(100, 1), 0, nullptr);
    ASSERT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
  }
  void TearDown() override {
    // A failed case shows what the adapter said.
    if (HasFailure()) {
      for (const std::string& line : log.Lines())
        std::cout << line << "\n";
    }
  }

  // Open, blocks, close; the first failure of the three.
  Result Upload(RemoteFileSystem& fs, const std::string& path, const std::string& content,
                const SomeHash& announced, FileSystem::FileProperties* props,
                std::uint64_t* resumed_at = nullptr) {
    std::uint64_t resume = 0;
    Result opened = fs.OpenForCreate(FileSystem::OverwriteControl(), path, announced,
                                     content.size(), kTime, &resume, false);
    if (resumed_at)
      *resumed_at = resume;
    if (opened != FileSystem::SUCCEEDED)
      return opened;
    Result written = test::WriteFrom(fs, content, resume, kBlock);
    if (written != FileSystem::SUCCEEDED)
      return written;
    FileSystem::FileProperties ignored(SomeHash(), 0, content.size(), kTime, false);
    return fs.CloseFile(props ? props : &ignored);
  }

  Result Read(const std::string& path, std::uint64_t offset, std::uint64_t limit,
              std::uint64_t size, std::string* bytes) {
    Result opened = drive.fs->OpenForRead(path, offset, limit, size, SomeHash());
    if (opened != FileSystem::SUCCEEDED)
      return opened;
    std::vector<std::uint8_t> block(kBlock);
    for (;;) {
      std::uint32_t done = 0;
      Result read = drive.fs->ReadFile(block.data(), kBlock, &done);
      if (read != FileSystem::SUCCEEDED) {
        drive.fs->CloseFile(nullptr);
        return read;
      }
      if (done == 0)
        break;
      bytes->append(reinterpret_cast<char*>(block.data()), done);
    }
    return drive.fs->CloseFile(nullptr);
  }

  std::vector<HttpRequest> RequestsSince(std::size_t count) {
    std::vector<HttpRequest> all = drive.emulator->server().Requests();
    return std::vector<HttpRequest>(all.begin() + static_cast<std::ptrdiff_t>(count), all.end());
  }
  std::size_t RequestCount() { return drive.emulator->server().Requests().size(); }
  std::shared_ptr<RemoteFileSystemGoogleSharedData> Shared() {
    return std::static_pointer_cast<RemoteFileSystemGoogleSharedData>(
        drive.factory->GetSharedData());
  }
  std::unique_ptr<RemoteFileSystem> SecondInstance() {
    std::unique_ptr<RemoteFileSystem> fs(drive.factory->Create());
    EXPECT_TRUE(fs->Open(std::make_shared<CurlURLProcessorFactory>(
        std::make_shared<core::cookie::CookieOAuth>("t"))));
    return fs;
  }
  std::string Content(const std::string& path) {
    std::optional<emulators::Item> item = drive.account().FindByPath(path);
    return item && item->content ? *item->content : std::string("<none>");
  }
  int FilesNamed(const std::string& name) {
    int count = 0;
    for (const emulators::Item& item : drive.account().AllItems())
      count += item.name == name && !item.trashed;
    return count;
  }

  test::GoogleDrive drive;
  FolderNode root;
  LoggerWrapper::Capture log;
  RadarsLogger::Capture metrics;
};

TEST(GoogleFormatTime, IsRfc3339InUtcWithMilliseconds) {
  EXPECT_EQ(RemoteFileSystemGoogle::FormatTime(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(RemoteFileSystemGoogle::FormatTime(kTime), "2023-11-14T22:13:20.000Z");
}

TEST(GoogleRangeHeader, GivesTheNextOffsetOrStartsOver) {
  const struct {
    std::string header;
    std::uint64_t offset;
  } cases[] = {{"bytes=0-524287", 524288},
               {std::string("bytes=0-41\0\0\0\0\x31\x35", 16), 0},
               {"", 0},
               {"bytes=0-", 0},
               {"bytes=5-9", 0},
               {"bytes=0-1x", 0},
               {"bytes=0-18446744073709551615", 0},
               {"bytes=0-99999999999999999999", 0}};
  for (const auto& c : cases)
    EXPECT_EQ(google::OffsetFromRangeHeader(c.header), c.offset) << c.header;
}

TEST_F(GoogleTransferTest, UploadsAskASessionAndSendOnePut) {
  const std::string root_id = drive.account().RootId();
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{(5 << 20) + 1}}) {
    SCOPED_TRACE(size);
    const std::string name = "up" + std::to_string(size);
    const std::string content = Bytes(size, 2);
    std::size_t before = RequestCount();
    FileSystem::FileProperties props;
    props.time = kTime;
    ASSERT_EQ(Upload(*drive.fs, name, content, Md5(content), &props), FileSystem::SUCCEEDED);
    // The session request, then the body in one PUT; the time went with the session.
    std::vector<HttpRequest> sent = RequestsSince(before);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].verb, "POST");
    EXPECT_EQ(sent[0].path, "/upload/drive/v3/files");
    EXPECT_EQ(emulators::QueryParam(sent[0].query, "uploadType"), "resumable");
    EXPECT_EQ(emulators::QueryParam(sent[0].query, "fields"), "id, md5Checksum, size, version");
    QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(sent[0].body)).object();
    EXPECT_EQ(body.value("name").toString().toStdString(), name);
    EXPECT_EQ(body.value("parents").toArray().at(0).toString().toStdString(), root_id);
    EXPECT_EQ(body.value("modifiedTime").toString().toStdString(), "2023-11-14T22:13:20.000Z");
    EXPECT_EQ(sent[1].verb, "PUT");
    EXPECT_EQ(sent[1].body_size, size);
    // The file, its hash, its id in the tree.
    EXPECT_EQ(Content(name), content);
    EXPECT_EQ(props.hash, size == 0 ? SomeHash(HashGoogle()) : Md5(content));
    std::optional<emulators::Item> item = drive.account().FindByPath(name);
    ASSERT_TRUE(item);
    EXPECT_EQ(Shared()->ids->GetFileIdByPath(name), item->id);
  }
}

TEST_F(GoogleTransferTest, AWrongUploadNeverPasses) {
  const std::string content = Bytes(3 * kBlock + 10, 3);
  // 1. An announced hash that the bytes don't have: the last block stays here.
  std::size_t before = RequestCount();
  EXPECT_EQ(Upload(*drive.fs, "wrong", content, Md5("other"), nullptr), FileSystem::FAILED);
  EXPECT_EQ(metrics.Count("google_invalid_upload_hash"), 1u);
  EXPECT_EQ(FilesNamed("wrong"), 0);
  std::vector<HttpRequest> sent = RequestsSince(before);
  for (const HttpRequest& request : sent)
    EXPECT_LT(request.body_size, content.size()) << request.verb << " " << request.path;
  EXPECT_EQ(Shared()->sessions->Count(), 0u);
  // 2. Past the announced size: refused before anything goes out.
  std::uint64_t resume = 0;
  ASSERT_EQ(drive.fs->OpenForCreate(FileSystem::OverwriteControl(), "over", Md5("ab"), 2, kTime,
                                    &resume, false),
            FileSystem::SUCCEEDED);
  before = RequestCount();
  EXPECT_EQ(drive.fs->WriteFile(reinterpret_cast<const std::uint8_t*>("abc"), 3),
            FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("Write overflow; size=2, actual_offset=0."));
  EXPECT_EQ(RequestCount(), before);
  drive.fs->InterruptFile();
  // 3. An answer without its id or its MD5.
  for (const char* field : {"id", "md5Checksum"}) {
    SCOPED_TRACE(field);
    drive.emulator->faults().Add(
        emulators::FaultRule::On("PUT", "/upload/drive/v3/files").DropField(field));
    log.Clear();
    EXPECT_EQ(Upload(*drive.fs, std::string("no-") + field, "x", Md5("x"), nullptr),
              FileSystem::FAILED);
    EXPECT_TRUE(log.Contains("Invalid server response.")) << field;
  }
  // 4. A Doc is never rewritten; a rewrite of a missing file asks nothing.
  before = RequestCount();
  EXPECT_EQ(drive.fs->OpenForRewrite(FileSystem::OverwriteControl(), "missing", Md5("x"), 1, kTime,
                                     &resume),
            FileSystem::ITEM_MISSED);
  EXPECT_EQ(RequestCount(), before);
}

TEST_F(GoogleTransferTest, AnotherTimeIsPatchedAndItsFailureNeverFailsTheUpload) {
  // 1. A time other than the one sent with the session.
  FileSystem::FileProperties props;
  props.time = kTime + 60;
  std::size_t before = RequestCount();
  ASSERT_EQ(Upload(*drive.fs, "late", "abc", Md5("abc"), &props), FileSystem::SUCCEEDED);
  std::vector<HttpRequest> sent = RequestsSince(before);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[2].verb, "PATCH");
  EXPECT_EQ(sent[2].body, R"({"modifiedTime":"2023-11-14T22:14:20.000Z"})");
  EXPECT_EQ(drive.account().FindByPath("late")->modified_ms, (kTime + 60) * 1000);
  // 2. The same time: no PATCH.
  props.time = kTime;
  before = RequestCount();
  ASSERT_EQ(Upload(*drive.fs, "same", "abc", Md5("abc"), &props), FileSystem::SUCCEEDED);
  EXPECT_EQ(RequestsSince(before).size(), 2u);
  // 3. Three failures, 2 s apart on the clock; the upload still stands.
  drive.emulator->faults().Add(
      emulators::FaultRule::On("PATCH", "/drive/v3/files/").Times(3).Status(500));
  props.time = kTime + 120;
  std::size_t waits = drive.clock.Waits().size();
  ASSERT_EQ(Upload(*drive.fs, "unpatched", "abc", Md5("abc"), &props), FileSystem::SUCCEEDED);
  std::vector<std::int64_t> all = drive.clock.Waits();
  EXPECT_EQ(std::vector<std::int64_t>(all.begin() + static_cast<std::ptrdiff_t>(waits), all.end()),
            (std::vector<std::int64_t>{2000, 2000}));
  EXPECT_TRUE(log.Contains("Tries exceeded."));
  EXPECT_EQ(metrics.Count("google_failed_patch_mtime"), 1u);
  EXPECT_EQ(Content("unpatched"), "abc");
}

// Instance A is cut after 700 KiB of which the server kept 512 KiB; instance B of the same account
// goes on from there. Each variant ends with exactly one correct file and no session left.
TEST_F(GoogleTransferTest, AnInterruptedUploadResumesInAnotherInstance) {
  const std::string content = Bytes(1 << 20, 4);
  struct Case {
    const char* name;
    std::uint64_t kept_of_first;  // what the server keeps of A's bytes: 256 KiB steps
    bool expire;                  // the session is gone when B asks
    std::string b_content;
    std::uint64_t resumed_at;
    std::size_t resumed_metric;
  };
  const Case cases[] = {
      {"resumed", 700 * 1024, false, content, 524288, 1},
      {"nothing kept: 308 without Range", 100 * 1024, false, content, 0, 1},
      {"expired", 700 * 1024, true, content, 0, 0},
      {"other content, same size", 700 * 1024, false, Bytes(1 << 20, 9), 0, 0},
      {"other size", 700 * 1024, false, content.substr(1), 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = std::string("big-") + std::to_string(&c - cases);
    metrics.Clear();
    // 1. A: the server keeps a part and the connection breaks.
    drive.emulator->faults().Add(emulators::FaultRule::On("PUT", "/upload/drive/v3/files")
                                     .PersistLimit(c.kept_of_first)
                                     .Reset());
    EXPECT_NE(Upload(*drive.fs, path, content, Md5(content), nullptr), FileSystem::SUCCEEDED);
    EXPECT_EQ(Shared()->sessions->Count(), 1u);
    // 2. B.
    if (c.expire) {
      drive.emulator->faults().Add(emulators::FaultRule::On("PUT").ExpireSessions());
    }
    std::unique_ptr<RemoteFileSystem> b = SecondInstance();
    std::uint64_t resumed_at = 1;
    FileSystem::FileProperties props;
    ASSERT_EQ(Upload(*b, path, c.b_content, Md5(c.b_content), &props, &resumed_at),
              FileSystem::SUCCEEDED);
    EXPECT_EQ(resumed_at, c.resumed_at);
    EXPECT_EQ(metrics.Count("google_upload_resumed"), c.resumed_metric);
    EXPECT_EQ(metrics.Count("google_upload_session_expired"), c.expire ? 1u : 0u);
    EXPECT_EQ(props.hash, Md5(c.b_content));
    EXPECT_EQ(Content(path), c.b_content);
    EXPECT_EQ(FilesNamed(path), 1);
    EXPECT_EQ(Shared()->sessions->Count(), 0u);
  }
}

// The account keeps 100 interrupted uploads: the 101st gives up the one that got least far.
TEST_F(GoogleTransferTest, TheHundredAndFirstSessionEvictsTheLeastAdvanced) {
  for (std::uint64_t i = 0; i < 100; ++i) {
    RemoteFileSystemGoogle::CurrentUpload filler;
    filler.session_url = "http://127.0.0.1:1/none";
    filler.expected_hash = Md5("f").GetHashGoogle();
    filler.size = 1000;
    filler.offset = 500 + i;
    Shared()->sessions->Store("filler" + std::to_string(i), filler);
  }
  const std::string content = Bytes(1 << 20, 4);
  drive.emulator->faults().Add(
      emulators::FaultRule::On("PUT", "/upload/drive/v3/files").PersistLimit(700 * 1024).Reset());
  EXPECT_NE(Upload(*drive.fs, "big", content, Md5(content), nullptr), FileSystem::SUCCEEDED);
  EXPECT_EQ(metrics.Count("too_many_sessions"), 1u);
  EXPECT_EQ(Shared()->sessions->Count(), 100u);
  RemoteFileSystemGoogle::CurrentUpload taken;
  EXPECT_FALSE(Shared()->sessions->TakeForResume("filler0", Md5("f"), 1000, &taken));
  std::uint64_t resumed_at = 0;
  ASSERT_EQ(Upload(*SecondInstance(), "big", content, Md5(content), nullptr, &resumed_at),
            FileSystem::SUCCEEDED);
  EXPECT_EQ(resumed_at, 524288u);
  EXPECT_EQ(Content("big"), content);
}

TEST_F(GoogleTransferTest, ASessionTheServerFinishedIsTakenWithoutResending) {
  const std::string content = Bytes(300000, 5);
  // The whole body arrives; only the answer is lost.
  drive.emulator->faults().Add(emulators::FaultRule::On("PUT", "/upload/drive/v3/files").Reset());
  EXPECT_NE(Upload(*drive.fs, "done", content, Md5(content), nullptr), FileSystem::SUCCEEDED);
  std::size_t before = RequestCount();
  std::uint64_t resumed_at = 0;
  FileSystem::FileProperties props;
  ASSERT_EQ(Upload(*drive.fs, "done", content, Md5(content), &props, &resumed_at),
            FileSystem::SUCCEEDED);
  EXPECT_EQ(resumed_at, content.size());
  std::vector<HttpRequest> sent = RequestsSince(before);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].Header("Content-Range"), "bytes */300000");
  EXPECT_EQ(props.hash, Md5(content));
  EXPECT_EQ(FilesNamed("done"), 1);
  EXPECT_EQ(Shared()->ids->GetFileIdByPath("done"), drive.account().FindByPath("done")->id);
}

TEST_F(GoogleTransferTest, ReadsAskARangeOnlyForAPart) {
  const std::string content = Bytes(1000, 6);
  drive.account().CreateFile(drive.account().RootId(), "r.bin", content, 0, nullptr);
  FolderNode fresh;
  ASSERT_EQ(drive.GetFullTree(&fresh), FileSystem::SUCCEEDED);
  const struct {
    std::uint64_t offset, limit;
    const char* range;
  } cases[] = {{0, 1000, ""}, {10, 30, "bytes=10-29"}, {999, 1000, "bytes=999-999"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.range);
    std::size_t before = RequestCount();
    std::string bytes;
    ASSERT_EQ(Read("r.bin", c.offset, c.limit, content.size(), &bytes), FileSystem::SUCCEEDED);
    EXPECT_EQ(bytes, content.substr(c.offset, c.limit - c.offset));
    std::vector<HttpRequest> sent = RequestsSince(before);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(emulators::QueryParam(sent[0].query, "alt"), "media");
    EXPECT_EQ(sent[0].Header("Range"), c.range);
  }
  // A document is its shortcut text, whole or in part, with no request.
  const std::string link = "https://docs.google.com/document/d/D/edit";
  emulators::Item doc;
  drive.account().CreateFile(drive.account().RootId(), "Plan", std::string(), 0, &doc);
  drive.account().SetProperty(doc.id, "google.mimeType", "application/vnd.google-apps.document",
                              nullptr);
  FolderNode again;
  ASSERT_EQ(drive.GetFullTree(&again), FileSystem::SUCCEEDED);
  Shared()->docs->Add(doc.id, link);
  const std::string shortcut = std::string("[InternetShortcut]\nURL=") + link;
  std::size_t before = RequestCount();
  for (auto [offset, limit] : {std::pair<std::uint64_t, std::uint64_t>{0, 0}, {5, 12}}) {
    std::string text;
    ASSERT_EQ(Read("Plan.url", offset, limit, shortcut.size(), &text), FileSystem::SUCCEEDED);
    EXPECT_EQ(text, limit ? shortcut.substr(offset, limit - offset) : shortcut);
  }
  EXPECT_EQ(RequestCount(), before);
  // A body shorter than its size in the tree fails.
  drive.emulator->faults().Add(emulators::FaultRule::On("GET", "/drive/v3/files/").CutAfter(500));
  std::string bytes;
  EXPECT_NE(Read("r.bin", 0, 1000, content.size(), &bytes), FileSystem::SUCCEEDED);
  // Drive's 403 on a download is its rate limit.
  drive.emulator->faults().Add(emulators::FaultRule::On("GET", "/drive/v3/files/")
                                   .Status(403)
                                   .Error("userRateLimitExceeded"));
  bytes.clear();
  EXPECT_NE(Read("r.bin", 0, 1000, content.size(), &bytes), FileSystem::SUCCEEDED);
  EXPECT_EQ(metrics.Count("ggl_read_rate_limit"), 1u);
  EXPECT_EQ(drive.fs->GetFailReason(), FileSystem::FAIL_REASON_RATE_LIMIT);
  EXPECT_TRUE(log.Contains("Got 403 when reading, assuming RATE_LIMIT."));
  // A size in the tree other than the server's.
  bytes.clear();
  metrics.Clear();
  EXPECT_EQ(Read("r.bin", 0, 0, 999, &bytes), FileSystem::FAILED);
  EXPECT_EQ(metrics.Count("ggl_read_remote_unexpected_size"), 1u);
}

// A download the server trickles: a Stop from another thread ends it with STOPPED, and the adapter
// reads again once started.
TEST_F(GoogleTransferTest, StopEndsATrickledDownload) {
  const std::string content = Bytes(100000, 7);
  drive.account().CreateFile(drive.account().RootId(), "slow.bin", content, 0, nullptr);
  FolderNode fresh;
  ASSERT_EQ(drive.GetFullTree(&fresh), FileSystem::SUCCEEDED);
  drive.emulator->faults().Add(
      emulators::FaultRule::On("GET", "/drive/v3/files/").Trickle(100, 20));
  ASSERT_EQ(drive.fs->OpenForRead("slow.bin", 0, content.size(), content.size(), SomeHash()),
            FileSystem::SUCCEEDED);
  std::vector<std::uint8_t> block(kBlock);
  std::uint32_t done = 0;
  ASSERT_EQ(drive.fs->ReadFile(block.data(), kBlock, &done), FileSystem::SUCCEEDED);
  std::thread([&] { drive.fs->Stop(); }).join();
  Result read = FileSystem::SUCCEEDED;
  for (int i = 0; i < 100 && read == FileSystem::SUCCEEDED; ++i)
    read = drive.fs->ReadFile(block.data(), kBlock, &done);
  EXPECT_EQ(read, FileSystem::STOPPED);
  drive.fs->CloseFile(nullptr);
  drive.fs->Start();
  std::string bytes;
  ASSERT_EQ(Read("seen.txt", 0, 100, 100, &bytes), FileSystem::SUCCEEDED);
  EXPECT_EQ(bytes, Bytes(100, 1));
}

}  // namespace

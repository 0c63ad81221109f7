// Dropbox transfers against the emulator: reads with their hash check, one-shot uploads and
// sessions on the wire, conditions of a rewrite, integrity both ways, and sessions resumed by
// another adapter of the same factory.
#include <gtest/gtest.h>

#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "emulators/Faults.h"
#include "services/ChunkSizeController.h"
#include "services/RemoteFileSystemFactoryDropbox.h"
#include "support/DropboxTesting.h"
#include "support/HashOf.h"

namespace {

using emulators::HttpRequest;

constexpr std::uint64_t kTime = 1700000000;

std::vector<HttpRequest> ContentRequests(emulators::Emulator& emulator) {
  std::vector<HttpRequest> found;
  for (const HttpRequest& request : emulator.server().Requests()) {
    if (request.path.rfind("/content/2/files/upload", 0) == 0)
      found.push_back(request);
  }
  return found;
}

std::vector<std::string> Paths(const std::vector<HttpRequest>& requests) {
  std::vector<std::string> paths;
  for (const HttpRequest& request : requests)
    paths.push_back(request.path.substr(std::string("/content/2/files/").size()));
  return paths;
}

constexpr auto HashOf = test::HashOf<HashCalculatorDropbox>;

std::string Bytes(std::size_t size, char seed = 'a') {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<char>(seed + i * 7 % 26);
  return bytes;
}

// Opens (create, or rewrite over `control`), writes in blocks of `block`, closes.
FileSystem::Result Upload(RemoteFileSystemDropbox& adapter, const std::string& path,
                          const std::string& bytes, const SomeHash& hash, std::uint64_t time,
                          FileSystem::FileProperties* props,
                          const FileSystem::OverwriteControl* control = nullptr,
                          std::size_t block = 300) {
  std::uint64_t resume = 0;
  FileSystem::Result result =
      control ? adapter.OpenForRewrite(*control, path, hash, bytes.size(), time, &resume)
              : adapter.OpenForCreate(FileSystem::OverwriteControl(), path, hash, bytes.size(),
                                      time, &resume, false);
  for (std::size_t at = resume; result == FileSystem::SUCCEEDED && at < bytes.size(); at += block) {
    const std::size_t n = std::min(block, bytes.size() - at);
    result = adapter.WriteFile(reinterpret_cast<const std::uint8_t*>(bytes.data() + at),
                               static_cast<std::uint32_t>(n));
  }
  return result == FileSystem::SUCCEEDED ? adapter.CloseFile(props) : result;
}

std::string Download(RemoteFileSystemDropbox& adapter, const std::string& path,
                     std::uint64_t offset, std::uint64_t limit, std::uint64_t size,
                     const SomeHash& hash, FileSystem::Result* result) {
  std::string out;
  *result = adapter.OpenForRead(path, offset, limit, size, hash);
  std::uint8_t buffer[1000];
  while (*result == FileSystem::SUCCEEDED) {
    std::uint32_t done = 0;
    *result = adapter.ReadFile(buffer, sizeof(buffer), &done);
    out.append(reinterpret_cast<const char*>(buffer), done);
    if (done == 0)
      break;
  }
  if (*result == FileSystem::SUCCEEDED)
    *result = adapter.CloseFile(nullptr);
  return out;
}

std::string AccountBytes(DropboxFixture& fixture, const std::string& path) {
  std::optional<emulators::Item> item = fixture.account().FindByPath(path);
  return item && item->content ? *item->content : std::string("<missing>");
}

TEST(ChunkSizeControllerTest, ReportsGrowAndShrinkTheChunkWithinItsBounds) {
  struct Case {
    std::uint64_t initial;
    std::vector<bool> reports;
    std::uint64_t chunk;
  };
  const std::uint64_t kMax = 134217728;
  const Case cases[] = {
      {kMax, {}, kMax},
      {kMax, {false}, kMax},                    // one failure is forgiven
      {kMax, {false, false}, kMax / 2},         // two halve it
      {kMax, {false, true, false}, kMax},       // a success between breaks the row
      {kMax, {true, true}, kMax},               // never above the maximum
      {1 << 20, {true, true}, 2 << 20},         // two successes double it
      {1 << 20, {true, false, true}, 1 << 20},  // a failure between breaks the row
      {200000, {false, false}, 131072},         // never below granularity << 10
      {300000, {false, false}, 149888},         // half, down to the granularity
      {kMax, {false, false, false, false}, kMax / 4},
  };
  for (const Case& c : cases) {
    ChunkSizeController chunking(128, kMax, c.initial);
    for (bool report : c.reports)
      chunking.Report(report);
    EXPECT_EQ(chunking.chunk, c.chunk) << c.initial << " after " << c.reports.size();
  }
}

TEST(DropboxUploadTest, ShapesOnTheWireArgumentsAndTheServersHash) {
  struct Case {
    std::size_t size;
    std::uint64_t time;
    std::vector<std::string> calls;
    std::string first_arg;
  };
  const std::string commit =
      R"("path":"/Docs/f\u00e4ll #1.txt", "mode":"add", "autorename":false, )"
      R"("client_modified":"2023-11-14T22:13:20Z", "strict_conflict":true})";
  const Case cases[] = {
      {0, kTime, {"upload"}, "{ " + commit},
      {1, kTime, {"upload"}, "{ " + commit},
      {1000, kTime, {"upload"}, "{ " + commit},
      // An unknown time keeps the session open; CloseFile finishes it with no bytes.
      {1000, 0, {"upload_session/start", "upload_session/finish"}, "{ \"close\":false }"},
  };
  for (const Case& c : cases) {
    DropboxFixture fixture;
    const std::string bytes = Bytes(c.size);
    FileSystem::FileProperties props(SomeHash(), 0, c.size, kTime, false);
    ASSERT_EQ(
        Upload(fixture.adapter(), "Docs/f\xC3\xA4ll #1.txt", bytes, HashOf(bytes), c.time, &props),
        FileSystem::SUCCEEDED)
        << c.size;
    const auto requests = ContentRequests(fixture.emulator());
    EXPECT_EQ(Paths(requests), c.calls) << c.size;
    EXPECT_EQ(requests[0].Header("Dropbox-API-Arg"), c.first_arg);
    EXPECT_EQ(requests[0].Header("Content-Type"), "application/octet-stream");
    if (c.time == 0) {
      EXPECT_EQ(requests[1].Header("Dropbox-API-Arg"),
                R"({ "cursor":{ "session_id":"session-)" +
                    requests[1].Header("Dropbox-API-Arg").substr(35, 16) +
                    R"(", "offset":1000}, "commit":{ )" + commit + "}");
      EXPECT_EQ(requests[1].body_size, 0u);
    }
    EXPECT_EQ(AccountBytes(fixture, "Docs/f\xC3\xA4ll #1.txt"), bytes);
    std::optional<emulators::Item> item = fixture.account().FindByPath("Docs/f\xC3\xA4ll #1.txt");
    EXPECT_EQ(props.hash.GetHashDropbox().ToHexString(), item->digests.dropbox);
    EXPECT_EQ(props.hash.GetHashDropbox().ToHexString(), HashOf(bytes).ToHexString());
    EXPECT_FALSE(props.hash.GetHashDropbox().rev.empty());
  }
}

TEST(DropboxUploadTest, RewriteConditions) {
  struct Case {
    const char* name;
    bool create;
    bool with_hash;
    bool stale;
    bool same_bytes;
    FileSystem::Result result;
    const char* mode;
  };
  const Case cases[] = {
      {"the tree's rev", false, true, false, false, FileSystem::SUCCEEDED, "update"},
      {"a stale rev", false, true, true, false, FileSystem::CONFLICT, "update"},
      {"no hash", false, false, false, false, FileSystem::SUCCEEDED, "overwrite"},
      {"add over the same", true, false, false, true, FileSystem::CONFLICT, "add"},
  };
  for (const Case& c : cases) {
    DropboxFixture fixture;
    emulators::Item file;
    const std::string old = Bytes(500, 'k');
    ASSERT_EQ(
        fixture.account().CreateFile(fixture.account().RootId(), "a.bin", old, kTime * 1000, &file),
        emulators::AccountError::kNone);
    ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
    HashDropbox seen = HashDropbox::FromHexString(file.digests.dropbox);
    seen.rev = fixture.RevOf("a.bin");
    if (c.stale)
      fixture.account().ReplaceContent(file.id, "moved on", kTime * 1000, nullptr);
    const FileSystem::OverwriteControl control(c.with_hash ? SomeHash(seen) : SomeHash());
    const std::string bytes = c.same_bytes ? old : Bytes(700, 'q');
    FileSystem::FileProperties props;
    EXPECT_EQ(Upload(fixture.adapter(), "a.bin", bytes, HashOf(bytes), kTime, &props,
                     c.create ? nullptr : &control),
              c.result)
        << c.name;
    EXPECT_NE(ContentRequests(fixture.emulator())[0].Header("Dropbox-API-Arg").find(c.mode),
              std::string::npos)
        << c.name;
    const std::string kept = c.stale ? "moved on" : old;
    EXPECT_TRUE(AccountBytes(fixture, "a.bin") ==
                (c.result == FileSystem::SUCCEEDED ? bytes : kept))
        << c.name;
  }
}

TEST(DropboxUploadTest, BadInputFailsCleanly) {
  DropboxFixture fixture;
  LoggerWrapper::Capture log;
  RadarsLogger::Capture metrics;
  // A wrong announced hash fails at the last block: the file never appears.
  const std::string bytes = Bytes(900);
  FileSystem::FileProperties props;
  EXPECT_EQ(Upload(fixture.adapter(), "wrong.bin", bytes, HashOf("other"), kTime, &props),
            FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("\"wrong.bin\" has different hashes"));
  EXPECT_EQ(metrics.Count("dropbox_invalid_upload_hash"), 1u);
  EXPECT_FALSE(fixture.account().FindByPath("wrong.bin"));
  // More than announced.
  std::uint64_t resume = 0;
  ASSERT_EQ(fixture.adapter().OpenForCreate(FileSystem::OverwriteControl(), "over.bin", SomeHash(),
                                            10, kTime, &resume, false),
            FileSystem::SUCCEEDED);
  EXPECT_EQ(fixture.adapter().WriteFile(reinterpret_cast<const std::uint8_t*>(bytes.data()), 11),
            FileSystem::FATAL);
  EXPECT_TRUE(log.Contains("Write overflow; size=10, actual_offset=0."));
  EXPECT_FALSE(fixture.account().FindByPath("over.bin"));
  // Nothing open.
  EXPECT_EQ(fixture.adapter().CloseFile(nullptr), FileSystem::FAILED);
  std::uint32_t done = 0;
  std::uint8_t buffer[8];
  EXPECT_EQ(fixture.adapter().ReadFile(buffer, sizeof(buffer), &done), FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("Connection is closed, can't read anymore."));
  // A path that isn't canonical.
  EXPECT_EQ(fixture.adapter().OpenForCreate(FileSystem::OverwriteControl(), "/abs", SomeHash(), 1,
                                            kTime, &resume, false),
            FileSystem::FATAL);
}

// The commit's answer is the server's word on the file: a size or hash other than what was sent
// fails the upload, a missing rev only costs the rev.
TEST(DropboxUploadTest, TheFinishedFileIsCheckedAgainstTheServersAnswer) {
  struct Case {
    const char* call;
    std::uint64_t time;  // 0: a session finished at CloseFile
    const char* dropped;
    FileSystem::Result result;
    const char* log;
    std::size_t end_errors;
  };
  const Case cases[] = {
      {"upload", kTime, "size", FileSystem::FAILED,
       "Problem with server side file, different size: expected 900;  got 0.", 1},
      {"upload_session/finish", 0, "size", FileSystem::FAILED,
       "Problem with server side file, different size: expected 900;  got 0.", 1},
      {"upload", kTime, "content_hash", FileSystem::FAILED,
       "Problem with server side file, different hash: expected ", 1},
      {"upload", kTime, "rev", FileSystem::SUCCEEDED, "No revsision in response.", 0},
      {"upload_session/finish", 0, "rev", FileSystem::SUCCEEDED, "No revsision in response.", 0},
  };
  const std::string bytes = Bytes(900);
  for (const Case& c : cases) {
    DropboxFixture fixture;
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    fixture.emulator().faults().Add(
        emulators::FaultRule::On("", std::string("/content/2/files/") + c.call)
            .DropField(c.dropped));
    FileSystem::FileProperties props;
    EXPECT_EQ(Upload(fixture.adapter(), "f.bin", bytes, HashOf(bytes), c.time, &props), c.result)
        << c.call << " " << c.dropped;
    EXPECT_EQ(fixture.emulator().faults().Fired(), 1);
    EXPECT_TRUE(log.Contains(c.log)) << c.call << " " << c.dropped;
    EXPECT_EQ(metrics.Count("dropbox_resumed_upload_end_err"), c.end_errors);
    EXPECT_EQ(AccountBytes(fixture, "f.bin"), bytes);
  }
}

TEST(DropboxReadTest, WholeAndRangedReadsAreByteExactAndCheckTheHash) {
  DropboxFixture fixture;
  const std::string bytes = Bytes(5000, 'c');
  emulators::Item file;
  emulators::Item folder;
  fixture.account().CreateFolder(fixture.account().RootId(), "\xD0\x9F\xD0\xB0", &folder);
  fixture.account().CreateFile(folder.id, "\xE6\x97\xA5 #%.bin", bytes, kTime * 1000, &file);
  const std::string path = "\xD0\x9F\xD0\xB0/\xE6\x97\xA5 #%.bin";
  const SomeHash hash(HashDropbox::FromHexString(file.digests.dropbox));
  struct Case {
    std::uint64_t offset;
    std::uint64_t limit;
    std::string range;
  };
  const Case cases[] = {
      {0, 0, ""}, {0, 5000, ""}, {100, 2100, "bytes=100-2099"}, {4999, 5000, "bytes=4999-4999"}};
  for (const Case& c : cases) {
    fixture.emulator().server().ClearRequests();
    FileSystem::Result result = FileSystem::FAILED;
    const std::string got =
        Download(fixture.adapter(), path, c.offset, c.limit, 5000, hash, &result);
    EXPECT_EQ(result, FileSystem::SUCCEEDED) << c.offset;
    const std::uint64_t end = c.limit == 0 ? 5000 : c.limit;
    EXPECT_TRUE(got == bytes.substr(c.offset, end - c.offset)) << c.offset << " " << got.size();
    const auto requests = fixture.emulator().server().Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].verb, "POST");
    EXPECT_EQ(requests[0].body_size, 0u);
    EXPECT_EQ(requests[0].Header("Range"), c.range);
  }
  // Content that isn't what the tree holds is a conflict.
  LoggerWrapper::Capture log;
  RadarsLogger::Capture metrics;
  FileSystem::Result result = FileSystem::FAILED;
  Download(fixture.adapter(), path, 0, 0, 5000, HashOf("else"), &result);
  EXPECT_EQ(result, FileSystem::CONFLICT);
  EXPECT_EQ(metrics.Count("dropbox_remote_unexpected_hash"), 1u);
  EXPECT_TRUE(log.Contains("Unexpected content received: expected_hash="));
  // A missing file: the tree is behind.
  Download(fixture.adapter(), "gone.bin", 0, 0, 5, SomeHash(), &result);
  EXPECT_EQ(result, FileSystem::CONFLICT);
}

// A download whose connection is cut after some bytes: what came is delivered, the read fails and
// says why, a read after it is refused with its line, and the adapter reads again afterwards.
TEST(DropboxReadTest, AReadAfterTheConnectionWasCutFailsWithItsLine) {
  struct Case {
    const char* name;
    bool reset;
    const char* log;
  };
  const Case cases[] = {
      {"closed early", false, "failed: Transferred a partial file"},
      {"reset", true, "Connection reset by peer"},
  };
  const std::string bytes = Bytes(50000, 'r');
  for (const Case& c : cases) {
    DropboxFixture fixture;
    emulators::Item file;
    fixture.account().CreateFile(fixture.account().RootId(), "cut.bin", bytes, kTime * 1000, &file);
    const SomeHash hash(HashDropbox::FromHexString(file.digests.dropbox));
    fixture.emulator().faults().Add(
        emulators::FaultRule::On("", "/content/2/files/download").CutAfter(20000).Reset(c.reset));
    LoggerWrapper::Capture log;
    FileSystem::Result result = FileSystem::SUCCEEDED;
    const std::string got =
        Download(fixture.adapter(), "cut.bin", 0, 0, bytes.size(), hash, &result);
    EXPECT_EQ(result, FileSystem::FAILED) << c.name;
    EXPECT_EQ(got, bytes.substr(0, got.size())) << c.name;
    EXPECT_LE(got.size(), 20000u) << c.name;
    EXPECT_TRUE(log.Contains(c.log)) << c.name;
    EXPECT_TRUE(log.Contains("Failed to parse JSON from error response: ")) << c.name;
    std::uint8_t buffer[100];
    std::uint32_t done = 0;
    EXPECT_EQ(fixture.adapter().ReadFile(buffer, sizeof(buffer), &done), FileSystem::FAILED);
    EXPECT_TRUE(log.Contains("Connection is closed, can't read anymore.")) << c.name;
    EXPECT_EQ(Download(fixture.adapter(), "cut.bin", 0, 0, bytes.size(), hash, &result), bytes);
    EXPECT_EQ(result, FileSystem::SUCCEEDED) << c.name;
  }
}

emulators::FaultRule SessionCall(const std::string& call) {
  return emulators::FaultRule::On("", "/content/2/files/upload_session/" + call);
}

// A session upload of `bytes` whose finish fails as `rule` says; the session stays in the store.
void FailFinish(DropboxFixture& fixture, const std::string& bytes, emulators::FaultRule rule,
                FileSystem::Result expected, std::size_t block = 300) {
  // Every matching request: the transport tries a request again once when a reused connection
  // was reset before any answer.
  fixture.emulator().faults().Add(rule.Times(0));
  FileSystem::FileProperties props(SomeHash(), 0, bytes.size(), kTime, false);
  EXPECT_EQ(Upload(fixture.adapter(), "big.bin", bytes, HashOf(bytes), 0, &props, nullptr, block),
            expected);
  fixture.emulator().faults().Clear();
}

TEST(DropboxResumeTest, AnotherAdapterOfTheFactoryGoesOnFromWhatTheServerHolds) {
  const std::uint64_t kChunk = RemoteFileSystemDropbox::kMaxChunk;
  struct Case {
    const char* name;
    std::uint64_t size;
    const char* fail_path;
    bool reset;
    std::uint64_t persist_limit;
    std::uint64_t resume_from;
    const char* metric;
    const char* offset_line;
  };
  const Case cases[] = {
      // The finish's answer is lost: the session goes on from the finish's offset.
      {"reset of the finish", 4000, "finish", true, UINT64_MAX, 4000, "dropbox_upload_resumed",
       nullptr},
      // The connection of the append after the first chunk is reset: the session goes on from that
      // chunk's start.
      {"reset of an append", kChunk + 5000, "append_v2", true, UINT64_MAX, kChunk,
       "dropbox_upload_resumed", nullptr},
      // The start kept less than it was sent: the finish (or the append) is told where the server
      // stands, each in its own shape of the answer.
      {"offset told to the finish", 4000, "start", false, 1500, 1500, "dropbox_offset_error",
       "offset for resumable upload, was 4000, now 1500 corrected from response."},
      {"offset told to an append", kChunk + 5000, "start", false, 1000, 1000,
       "dropbox_offset_error",
       "offset for resumable upload, was 134217728, now 1000 corrected from response."},
  };
  for (const Case& c : cases) {
    DropboxFixture fixture;
    RadarsLogger::Capture metrics;
    LoggerWrapper::Capture log;
    const std::string bytes = Bytes(c.size, 'e');
    FailFinish(fixture, bytes,
               SessionCall(c.fail_path)
                   .Reset(c.reset)
                   .Status(c.reset ? 500 : 0)
                   .PersistLimit(c.persist_limit),
               FileSystem::FAILED, 1000003);
    EXPECT_FALSE(fixture.account().FindByPath("big.bin")) << c.name;
    EXPECT_EQ(metrics.Count(c.metric), c.reset ? 0u : 1u) << c.name;
    if (c.offset_line) {
      EXPECT_TRUE(log.Contains(c.offset_line)) << c.name;
    }
    if (c.size > kChunk) {
      const std::string append = ContentRequests(fixture.emulator())[1].Header("Dropbox-API-Arg");
      EXPECT_EQ(append, R"({ "close":false, "cursor": {"offset":134217728, "session_id":")" +
                            append.substr(append.find("session-"), 24) + R"("} })")
          << c.name;
    }
    // Adapter B of the same factory.
    auto other = fixture.MakeAdapter();
    std::uint64_t resume = 99;
    ASSERT_EQ(other->OpenForCreate(FileSystem::OverwriteControl(), "big.bin", HashOf(bytes),
                                   bytes.size(), kTime, &resume, false),
              FileSystem::SUCCEEDED)
        << c.name;
    EXPECT_EQ(resume, c.resume_from) << c.name;
    EXPECT_EQ(metrics.Count("dropbox_upload_resumed"), 1u) << c.name;
    if (resume < bytes.size()) {
      ASSERT_EQ(other->WriteFile(reinterpret_cast<const std::uint8_t*>(bytes.data() + resume),
                                 static_cast<std::uint32_t>(bytes.size() - resume)),
                FileSystem::SUCCEEDED);
    }
    FileSystem::FileProperties props(SomeHash(), 0, bytes.size(), kTime, false);
    ASSERT_EQ(other->CloseFile(&props), FileSystem::SUCCEEDED) << c.name;
    EXPECT_EQ(AccountBytes(fixture, "big.bin"), bytes) << c.name;
    EXPECT_EQ(props.hash.GetHashDropbox(), HashOf(bytes).GetHashDropbox()) << c.name;
    EXPECT_TRUE(log.Contains("Resume upload for file \"big.bin\" from ")) << c.name;
  }
}

// Each resume counts as a failure of the chunk in flight: the second one halves the chunk, and the
// next append on the wire carries half of the largest chunk.
TEST(DropboxResumeTest, TwoResumesHalveTheChunkEndToEnd) {
  const std::uint64_t kChunk = RemoteFileSystemDropbox::kMaxChunk;
  const std::uint64_t kRest = 70ull << 20;
  DropboxFixture fixture;
  RadarsLogger::Capture metrics;
  const std::string bytes = Bytes(kChunk + kRest, 'm');
  const SomeHash hash = HashOf(bytes);
  // 1. Adapter A: the append after the first chunk is reset; so is B's resumed finish.
  FailFinish(fixture, bytes, SessionCall("append_v2").Reset().Status(500), FileSystem::FAILED,
             1000003);
  fixture.emulator().faults().Add(SessionCall("finish").Reset().Status(500).Times(0));
  auto b = fixture.MakeAdapter();
  std::uint64_t resume = 0;
  ASSERT_EQ(b->OpenForCreate({}, "big.bin", hash, bytes.size(), kTime, &resume, false),
            FileSystem::SUCCEEDED);
  EXPECT_EQ(resume, kChunk);
  const FileSystem::Result written =
      b->WriteFile(reinterpret_cast<const std::uint8_t*>(bytes.data() + kChunk),
                   static_cast<std::uint32_t>(kRest));
  FileSystem::FileProperties props(SomeHash(), 0, bytes.size(), kTime, false);
  EXPECT_NE(written == FileSystem::SUCCEEDED ? b->CloseFile(&props) : written,
            FileSystem::SUCCEEDED);
  // 2. Adapter C: the chunk is half now.
  fixture.emulator().faults().Clear();
  fixture.emulator().server().ClearRequests();
  auto c = fixture.MakeAdapter();
  ASSERT_EQ(c->OpenForCreate({}, "big.bin", hash, bytes.size(), kTime, &resume, false),
            FileSystem::SUCCEEDED);
  EXPECT_EQ(resume, kChunk);
  ASSERT_EQ(c->WriteFile(reinterpret_cast<const std::uint8_t*>(bytes.data() + kChunk),
                         static_cast<std::uint32_t>(kRest)),
            FileSystem::SUCCEEDED);
  ASSERT_EQ(c->CloseFile(&props), FileSystem::SUCCEEDED);
  std::vector<std::uint64_t> sizes;
  for (const HttpRequest& request : ContentRequests(fixture.emulator()))
    sizes.push_back(request.body_size);
  EXPECT_EQ(Paths(ContentRequests(fixture.emulator())),
            (std::vector<std::string>{"upload_session/append_v2", "upload_session/finish"}));
  EXPECT_EQ(sizes, (std::vector<std::uint64_t>{kChunk / 2, kRest - kChunk / 2}));
  EXPECT_EQ(metrics.Count("dropbox_upload_resumed"), 2u);
  EXPECT_EQ(props.hash.GetHashDropbox(), hash.GetHashDropbox());
  EXPECT_EQ(fixture.account().FindByPath("big.bin")->digests.dropbox,
            hash.GetHashDropbox().ToHexString());
}

TEST(DropboxResumeTest, AChangedFileStartsOverAndAnExpiredSessionFails) {
  DropboxFixture fixture;
  RadarsLogger::Capture metrics;
  const std::string bytes = Bytes(3000, 'g');
  const emulators::FaultRule rule = SessionCall("finish").Reset().Status(500);
  FailFinish(fixture, bytes, rule, FileSystem::FAILED);
  // The server forgot the session: the resumed finish fails, and the next try starts over.
  fixture.emulator().faults().Add(SessionCall("finish").ExpireSessions());
  FileSystem::FileProperties props(SomeHash(), 0, bytes.size(), kTime, false);
  EXPECT_EQ(Upload(fixture.adapter(), "big.bin", bytes, HashOf(bytes), kTime, &props),
            FileSystem::FAILED);
  EXPECT_EQ(metrics.Count("dropbox_upload_session_expired"), 1u);
  EXPECT_EQ(Upload(fixture.adapter(), "big.bin", bytes, HashOf(bytes), kTime, &props),
            FileSystem::SUCCEEDED);
  EXPECT_EQ(AccountBytes(fixture, "big.bin"), bytes);
  // Other content under a stored path is not resumed.
  FailFinish(fixture, bytes, rule, FileSystem::FAILED);
  LoggerWrapper::Capture log;
  const std::string changed = Bytes(3000, 'h');
  EXPECT_EQ(Upload(fixture.adapter(), "big.bin", changed, HashOf(changed), kTime, &props),
            FileSystem::CONFLICT);  // "add" over the first upload
  EXPECT_TRUE(log.Contains("Hash of \"big.bin\" changed between uploads"));
  // Nor a file announced with the stored hash but another size: it starts over, so its bytes are
  // hashed again and found not to be what it announced.
  FailFinish(fixture, bytes, rule, FileSystem::FAILED);
  const std::string longer = bytes + "x";
  EXPECT_EQ(Upload(fixture.adapter(), "big.bin", longer, HashOf(bytes), kTime, &props),
            FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("Size of \"big.bin\" changed between uploads, expected 3000, got 3001"));
  EXPECT_TRUE(log.Contains("\"big.bin\" has different hashes"));
}

TEST(DropboxUploadTest, TheEchoOfAnUploadIsDroppedOnceInAnyCase) {
  DropboxFixture fixture;
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  const std::string bytes = Bytes(100);
  FileSystem::FileProperties props;
  ASSERT_EQ(Upload(fixture.adapter(), "Echo.TXT", bytes, HashOf(bytes), kTime, &props),
            FileSystem::SUCCEEDED);
  FileSystem::Change change;
  change.type = FileSystem::Change::FILE_CREATE;
  change.path = "echo.txt";
  change.size = bytes.size();
  change.hash = HashOf(bytes);
  LoggerWrapper::Capture log;
  EXPECT_TRUE(fixture.adapter().ApplyRemoteChange(change, &fixture.tree(), &fixture.free_,
                                                  &fixture.total_));
  EXPECT_EQ(log.Count("Skipping self made change: "), 1u);
  EXPECT_FALSE(fixture.tree().GetFile("echo.txt", true));
  EXPECT_TRUE(fixture.adapter().ApplyRemoteChange(change, &fixture.tree(), &fixture.free_,
                                                  &fixture.total_));
  EXPECT_EQ(log.Count("Skipping self made change: "), 1u);
  EXPECT_TRUE(fixture.tree().GetFile("echo.txt", true));
}

}  // namespace

namespace {

// The largest one-shot upload and one byte more: blocks of an odd size cross the first chunk's end
// and are split at that exact offset.
TEST(DropboxUploadTest, TheLargestOneShotUploadAndTheSessionsJustPastIt) {
  const std::uint64_t kChunk = RemoteFileSystemDropbox::kMaxChunk;
  struct Case {
    std::uint64_t size;
    std::uint64_t time;
    std::vector<std::string> calls;
    std::vector<std::uint64_t> body_sizes;
  };
  const Case cases[] = {
      {kChunk, kTime, {"upload"}, {kChunk}},
      {kChunk + 1, kTime, {"upload_session/start", "upload_session/finish"}, {kChunk, 1}},
  };
  std::string all(kChunk + 1, '\0');
  for (std::uint64_t i = 0; i < all.size(); i += 4096)
    all[i] = static_cast<char>(i / 4096);
  for (const Case& c : cases) {
    DropboxFixture fixture;
    const std::string bytes = all.substr(0, c.size);
    const SomeHash hash = HashOf(bytes);
    FileSystem::FileProperties props(SomeHash(), 0, c.size, kTime, false);
    ASSERT_EQ(Upload(fixture.adapter(), "big.bin", bytes, hash, c.time, &props, nullptr, 1000003),
              FileSystem::SUCCEEDED)
        << c.size;
    const auto requests = ContentRequests(fixture.emulator());
    ASSERT_EQ(Paths(requests), c.calls) << c.size;
    for (std::size_t i = 0; i < requests.size(); ++i)
      EXPECT_EQ(requests[i].body_size, c.body_sizes[i]) << c.size << " " << c.calls[i];
    if (requests.size() > 1) {
      const std::string arg = requests.back().Header("Dropbox-API-Arg");
      const std::string id = arg.substr(arg.find("session-"), 24);
      EXPECT_EQ(arg.substr(0, arg.find(", \"commit\"")),
                R"({ "cursor":{ "session_id":")" + id + R"(", "offset":)" +
                    std::to_string(c.time ? kChunk : kChunk + 1) + "}");
      if (c.time == 0) {
        EXPECT_EQ(
            requests[1].Header("Dropbox-API-Arg"),
            R"({ "close":false, "cursor": {"offset":134217728, "session_id":")" + id + R"("} })");
      }
    }
    EXPECT_EQ(props.hash.GetHashDropbox(), hash.GetHashDropbox()) << c.size;
    EXPECT_EQ(fixture.account().FindByPath("big.bin")->digests.dropbox,
              hash.GetHashDropbox().ToHexString());
  }
}

}  // namespace

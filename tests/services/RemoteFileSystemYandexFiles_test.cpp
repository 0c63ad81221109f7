// The Yandex adapter's file work against the Yandex emulator and, where a test needs an answer the
// emulator doesn't give, a scripted server: uploads by link and over WebDAV with the known-content
// answer on the head, reads checked against both digests, item operations with asynchronous
// operations polled on their schedule, public links, sizes and the paged folder listing.
#include <gtest/gtest.h>

#include <algorithm>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/Emulator.h"
#include "emulators/HttpServer.h"
#include "emulators/YandexDialect.h"
#include "services/RemoteFileSystemYandex.h"
#include "support/HashOf.h"
#include "support/StartEmulator.h"
#include "support/YandexTesting.h"

namespace {

using emulators::AccountError;
using emulators::HttpRequest;
using emulators::HttpResponse;
using emulators::Item;
using Change = FileSystem::Change;
using Result = FileSystem::Result;

constexpr auto HashOf = test::HashOf<HashCalculatorYandex>;

int MetricCount(const RadarsLogger::Capture& metrics, const std::string& name) {
  const auto all = metrics.Metrics();
  return static_cast<int>(std::count_if(all.begin(), all.end(),
                                        [&](const auto& metric) { return metric.name == name; }));
}

HttpResponse Json(int status, const std::string& body) {
  HttpResponse response = HttpResponse::Status(status, body);
  response.headers = {{"Content-Type", "application/json"}};
  return response;
}

struct Upload {
  Result opened = Result::FAILED;
  std::uint64_t resumeOffset = 0;
  Result written = Result::SUCCEEDED;
  Result closed = Result::FAILED;
  SomeHash hash;
};

class YandexFilesTest : public testing::Test {
 protected:
  void SetUp() override { Start(emulators::YandexOptions()); }
  void TearDown() override { Endpoints::ResetOverrides(); }

  void Start(emulators::YandexOptions options) {
    emulator_ = test::StartEmulator(emulators::MakeYandexDialect(options));
    ASSERT_TRUE(emulator_);
    fs_ = test::OpenYandex("", &factory_);
    ASSERT_NE(fs_, nullptr);
  }
  emulators::CloudAccount& Account() { return emulator_->account(); }
  std::vector<HttpRequest> Requests(const std::string& verb, const std::string& prefix) const {
    std::vector<HttpRequest> found;
    for (const HttpRequest& request : emulator_->server().Requests()) {
      if (request.verb == verb && request.path.compare(0, prefix.size(), prefix) == 0) {
        found.push_back(request);
      }
    }
    return found;
  }
  // The whole upload of `content`, in blocks of 4 bytes; `rewrite` has the file's present hash.
  Upload Put(const std::string& path, const std::string& content, const SomeHash& announced,
             const SomeHash* rewrite = nullptr) {
    Upload upload;
    upload.opened = rewrite
                        ? fs_->OpenForRewrite(FileSystem::OverwriteControl(*rewrite), path,
                                              announced, content.size(), 0, &upload.resumeOffset)
                        : fs_->OpenForCreate(FileSystem::OverwriteControl(), path, announced,
                                             content.size(), 0, &upload.resumeOffset, false);
    if (upload.opened != Result::SUCCEEDED) {
      return upload;
    }
    for (std::uint64_t at = upload.resumeOffset; at < content.size(); at += 4) {
      const auto size = static_cast<std::uint32_t>(std::min<std::uint64_t>(4, content.size() - at));
      upload.written =
          fs_->WriteFile(reinterpret_cast<const std::uint8_t*>(content.data()) + at, size);
      if (upload.written != Result::SUCCEEDED) {
        return upload;
      }
    }
    FileSystem::FileProperties props;
    upload.closed = fs_->CloseFile(&props);
    upload.hash = props.hash;
    return upload;
  }
  Upload Put(const std::string& path, const std::string& content) {
    return Put(path, content, HashOf(content));
  }
  // The whole file read; the first failing result ends it.
  Result Get(const std::string& path, const std::string& content, std::string* got) {
    got->clear();
    Result result = fs_->OpenForRead(path, 0, content.size(), content.size(), HashOf(content));
    std::uint8_t buffer[3];
    while (result == Result::SUCCEEDED && got->size() < content.size()) {
      std::uint32_t done = 0;
      result = fs_->ReadFile(buffer, sizeof(buffer), &done);
      got->append(reinterpret_cast<char*>(buffer), done);
    }
    return result == Result::SUCCEEDED ? fs_->CloseFile(nullptr) : result;
  }
  std::optional<Item> Find(const std::string& path) { return Account().FindByPath(path); }

  std::unique_ptr<emulators::Emulator> emulator_;
  std::unique_ptr<RemoteFileSystemFactory> factory_;
  std::unique_ptr<RemoteFileSystemYandex> fs_;
  utils::ManualClock clock_;
  utils::ScopedClock scopedClock_{&clock_};
};

// --- uploads by link ---------------------------------------------------------------------------

TEST_F(YandexFilesTest, UploadByLinkSendsTheBodyOnceAndKnownContentNotAtAll) {
  // 1. New content: the link is asked with both digests and the size, then the bytes go.
  const std::string content = "content of a new file";
  const SomeHash hash = HashOf(content);
  const Upload first = Put("a.txt", content);
  ASSERT_EQ(first.opened, Result::SUCCEEDED);
  EXPECT_EQ(first.resumeOffset, 0u);
  EXPECT_EQ(first.closed, Result::SUCCEEDED);
  EXPECT_EQ(first.hash, hash);
  auto asked = Requests("PUT", "/v1/disk/resources/upload");
  ASSERT_EQ(asked.size(), 1u);
  const std::string digests = "md5=" + hash.GetHashYandex().md5.ToHexString() +
                              "&sha256=" + hash.GetHashYandex().sha256.ToHexString() +
                              "&size=" + std::to_string(content.size());
  EXPECT_NE(asked[0].query.find(digests), std::string::npos) << asked[0].query;
  EXPECT_EQ(asked[0].query.find("overwrite"), std::string::npos);
  ASSERT_EQ(Requests("PUT", "/yadisk-upload/").size(), 1u);
  EXPECT_EQ(Requests("PUT", "/yadisk-upload/")[0].body_size, content.size());
  ASSERT_TRUE(Find("a.txt"));
  EXPECT_EQ(Find("a.txt")->digests.md5, hash.GetHashYandex().md5.ToHexString());

  // 2. The same content elsewhere: taken on the link request, nothing is written.
  LoggerWrapper::Capture log;
  const Upload known = Put("b.txt", content);
  EXPECT_EQ(known.opened, Result::SUCCEEDED);
  EXPECT_EQ(known.resumeOffset, content.size());
  EXPECT_EQ(known.closed, Result::SUCCEEDED);
  EXPECT_EQ(Requests("PUT", "/yadisk-upload/").size(), 1u);
  EXPECT_TRUE(log.Contains("Content already exists: "));
  ASSERT_TRUE(Find("b.txt"));

  // 3. A rewrite says so, after a look at the content it replaces.
  const SomeHash stale = HashOf("not what is there");
  EXPECT_EQ(Put("a.txt", "new bytes", HashOf("new bytes"), &stale).opened, Result::CONFLICT);
  EXPECT_EQ(Requests("PUT", "/v1/disk/resources/upload").size(), 2u);
  const Upload rewritten = Put("a.txt", "new bytes", HashOf("new bytes"), &hash);
  EXPECT_EQ(rewritten.closed, Result::SUCCEEDED);
  asked = Requests("PUT", "/v1/disk/resources/upload");
  EXPECT_NE(asked.back().query.find("overwrite=true"), std::string::npos) << asked.back().query;
  EXPECT_EQ(Find("a.txt")->digests.md5, HashOf("new bytes").GetHashYandex().md5.ToHexString());

  // 4. Each upload's echo in the feed is dropped once; a second one is applied.
  FolderNode root;
  std::uint64_t free = 0;
  std::uint64_t total = 0;
  Change echo(Change::FILE_CREATE, "b.txt");
  echo.hash = hash;
  echo.size = content.size();
  LoggerWrapper::Capture feedLog;
  EXPECT_TRUE(fs_->ApplyRemoteChange(echo, &root, &free, &total));
  EXPECT_TRUE(feedLog.Contains("Skip self change."));
  EXPECT_EQ(root.GetFile("b.txt"), nullptr);
  EXPECT_TRUE(fs_->ApplyRemoteChange(echo, &root, &free, &total));
  EXPECT_NE(root.GetFile("b.txt"), nullptr);
}

TEST_F(YandexFilesTest, UploadByLinkAnswersAfterTheBody) {
  struct Case {
    const char* name;
    int status;  // of the PUT of the bytes; 0: none forced
    Result result;
    const char* word;
  };
  const Case cases[] = {
      {"too large", 413, Result::TOO_LARGE, "Too large."},
      {"no space", 507, Result::NO_SPACE, "No space."},
      {"server error", 500, Result::FAILED, "Uploading file failed, http_code 500."},
  };
  for (const Case& c : cases) {
    emulator_->faults().Add(emulators::FaultRule::On("PUT", "/yadisk-upload/").Status(c.status));
    LoggerWrapper::Capture log;
    const Upload upload = Put(std::string(c.name) + ".txt", "some bytes");
    EXPECT_EQ(upload.closed, c.result) << c.name;
    EXPECT_TRUE(log.Contains(c.word)) << c.name;
    EXPECT_FALSE(Find(std::string(c.name) + ".txt")) << c.name;
  }
}

TEST_F(YandexFilesTest, AnAcceptedUploadIsFollowedToItsEnd) {
  emulators::YandexOptions options;
  options.upload_accepted = true;
  options.operation_polls = 2;
  Start(options);
  LoggerWrapper::Capture log;
  const Upload upload = Put("late.txt", "accepted bytes");
  EXPECT_EQ(upload.closed, Result::SUCCEEDED);
  EXPECT_TRUE(log.Contains("File uploaded but not created."));
  EXPECT_EQ(clock_.Waits(), (std::vector<std::int64_t>{600, 900}));
  EXPECT_EQ(Requests("GET", "/v1/disk/operations").size(), 3u);
}

TEST_F(YandexFilesTest, UploadLinksThatCantBeUsed) {
  emulators::HttpServer server;
  test::PointYandexAt(server.BaseUrl());
  const std::string good = R"("href":"http://x/u","method":"PUT","templated":false)";
  const std::pair<const char*, std::string> answers[] = {
      {"templated", R"({"operation_link":"http://x/o","upload_link":{"href":"http://x/u",)"
                    R"("method":"PUT","templated":true}})"},
      {"post", R"({"operation_link":"http://x/o","upload_link":{"href":"http://x/u",)"
               R"("method":"POST","templated":false}})"},
      {"empty href", R"({"operation_link":"http://x/o","upload_link":{"href":"",)"
                     R"("method":"PUT","templated":false}})"},
      {"no operation", R"({"upload_link":{)" + good + "}}"},
      {"not json", "<html>upload here</html>"},
  };
  auto fs = test::OpenYandex("", &factory_);
  for (const auto& [name, body] : answers) {
    server.Handle("PUT", "/v1/disk/resources/upload",
                  [body = body](const HttpRequest&) { return Json(200, body); });
    LoggerWrapper::Capture log;
    std::uint64_t offset = 0;
    EXPECT_EQ(fs->OpenForCreate(FileSystem::OverwriteControl(), "a.txt", HashOf("x"), 1, 0, &offset,
                                false),
              Result::FAILED)
        << name;
    EXPECT_TRUE(log.Contains("No upload link in response.")) << name;
  }
  EXPECT_EQ(server.Requests().size(), 5u) << "no bytes went anywhere";
}

// --- uploads over WebDAV -----------------------------------------------------------------------

TEST_F(YandexFilesTest, WebDavUploadAsksFirstAndSendsOnlyUnknownContent) {
  fs_->SetMode(RemoteFileSystemYandex::kWebDavMode);
  // 1. New content: the ordered head, then the body once the server asked for it.
  const std::string content = "0123456789";
  const Upload first = Put("a.bin", content);
  ASSERT_EQ(first.opened, Result::SUCCEEDED);
  EXPECT_EQ(first.resumeOffset, 0u);
  EXPECT_EQ(first.closed, Result::SUCCEEDED);
  auto puts = Requests("PUT", "/webdav/");
  ASSERT_EQ(puts.size(), 1u);
  const SomeHash hash = HashOf(content);
  std::vector<std::string> names;
  for (const auto& [name, value] : puts[0].headers) {
    names.push_back(name);
  }
  const std::vector<std::string> ordered = {"Host", "Content-Type", "Content-Length",
                                            "Etag", "Sha256",       "If-None-Match"};
  auto at = names.begin();
  for (const std::string& name : ordered) {
    at = std::find(at, names.end(), name);
    ASSERT_NE(at, names.end()) << name << " missing or out of order";
  }
  EXPECT_EQ(puts[0].Header("Host"),
            "127.0.0.1:" + emulator_->BaseUrl().substr(emulator_->BaseUrl().rfind(':') + 1));
  EXPECT_EQ(puts[0].Header("Etag"), hash.GetHashYandex().md5.ToHexString());
  EXPECT_EQ(puts[0].Header("Sha256"), hash.GetHashYandex().sha256.ToHexString());
  EXPECT_EQ(puts[0].body_size, content.size());

  // 2. Known content, even of ten bytes: 201 on the head and no body.
  LoggerWrapper::Capture log;
  const Upload known = Put("b.bin", content);
  EXPECT_EQ(known.resumeOffset, content.size());
  EXPECT_EQ(known.closed, Result::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Content already exists: "));
  puts = Requests("PUT", "/webdav/");
  ASSERT_EQ(puts.size(), 2u);
  EXPECT_EQ(puts[1].body_size, 0u);
  ASSERT_TRUE(Find("b.bin"));

  // 3. An empty file: no condition but the name's, nothing to hash, no known content.
  LoggerWrapper::Capture emptyLog;
  const Upload empty = Put("empty", std::string());
  EXPECT_EQ(empty.closed, Result::SUCCEEDED);
  EXPECT_EQ(Requests("PUT", "/webdav/").back().Header("If-None-Match"), "*");
  EXPECT_FALSE(emptyLog.Contains("Content already exists: "));
  ASSERT_TRUE(Find("empty"));

  // 4. A rewrite names the content it replaces, and a stale one is refused before the body.
  const SomeHash stale = HashOf("something else");
  EXPECT_EQ(Put("a.bin", "new", HashOf("new"), &stale).opened, Result::CONFLICT);
  EXPECT_EQ(Put("a.bin", "new", HashOf("new"), &hash).closed, Result::SUCCEEDED);
  EXPECT_EQ(Requests("PUT", "/webdav/").back().Header("If-Match"),
            hash.GetHashYandex().md5.ToHexString());
}

TEST_F(YandexFilesTest, WebDavUploadHeadCodes) {
  struct Case {
    int status;
    Result result;
    const char* word;
  };
  const Case cases[] = {
      {507, Result::NO_SPACE, "No space on Yandex Disk."},
      {412, Result::CONFLICT, "Precondition failed with \"If-None-Match: *\""},
      {401, Result::AUTH_INVALID, "Invalid authorization"},
      {403, Result::ACCESS_DENIED, "Access forbidden."},
      {503, Result::ACCESS_DENIED, "Access forbidden by 503."},
      {400, Result::BADNAM, "Invalid request."},
      {409, Result::CONFLICT, "Conflict."},
      {500, Result::FAILED, "Unexpected response code: 500"},
  };
  emulators::HttpServer server;
  test::PointYandexAt(server.BaseUrl());
  auto fs = test::OpenYandex("", &factory_);
  fs->SetMode(RemoteFileSystemYandex::kWebDavMode);
  for (const Case& c : cases) {
    server.Handle(
        "PUT", "/a.bin", [](const HttpRequest&) { return HttpResponse::Status(201); },
        emulators::Match::kExact, emulators::BodyMode::kStore,
        [&c](const HttpRequest&) { return HttpResponse::Status(c.status, "refused"); });
    LoggerWrapper::Capture log;
    std::uint64_t offset = 0;
    EXPECT_EQ(fs->OpenForCreate(FileSystem::OverwriteControl(), "a.bin", HashOf("body"), 4, 0,
                                &offset, false),
              c.result)
        << c.status;
    EXPECT_TRUE(log.Contains(c.word)) << c.status;
    EXPECT_EQ(server.Requests().back().body_size, 0u) << c.status;
  }
}

// --- integrity ---------------------------------------------------------------------------------

TEST_F(YandexFilesTest, ContentThatIsntWhatItShouldBeIsRefusedBothWays) {
  // 1. A byte flipped on its way down.
  const std::string content = "bytes that arrive";
  Item made;
  ASSERT_EQ(Account().CreateFile(Account().RootId(), "f.txt", content, 1700000000000, &made),
            AccountError::kNone);
  std::string got;
  EXPECT_EQ(Get("f.txt", content, &got), Result::SUCCEEDED);
  EXPECT_EQ(got, content);
  const auto flip = emulators::FaultRule::On("GET", "/yadisk-download/").FlipByte(5);
  emulator_->faults().Add(flip);
  RadarsLogger::Capture metrics;
  LoggerWrapper::Capture log;
  EXPECT_EQ(Get("f.txt", content, &got), Result::FAILED);
  EXPECT_EQ(MetricCount(metrics, "yandex_remote_invalid_hash"), 1);
  EXPECT_TRUE(log.Contains("Invalid content received, expected "));
  EXPECT_EQ(fs_->GetFailReason(), FileSystem::FAIL_REASON_HTTP);

  // A tree that knows only the MD5 checks by it.
  HashYandex md5Only = HashOf(content).GetHashYandex();
  md5Only.sha256.Clear();
  emulator_->faults().Add(flip);
  ASSERT_EQ(fs_->OpenForRead("f.txt", 0, content.size(), content.size(), SomeHash(md5Only)),
            Result::SUCCEEDED);
  std::uint8_t all[64];
  std::uint32_t done = 0;
  EXPECT_EQ(fs_->ReadFile(all, sizeof(all), &done), Result::FAILED);
  EXPECT_EQ(MetricCount(metrics, "yandex_remote_invalid_hash"), 2);

  // 2. A read whose etag names other content is refused at its first block.
  EXPECT_EQ(Get("f.txt", "other content", &got), Result::FAILED);
  EXPECT_EQ(MetricCount(metrics, "yandex_remote_invalid_hash"), 3);

  // 3. Written bytes that aren't the announced ones: the last block never goes.
  fs_->SetMode(RemoteFileSystemYandex::kWebDavMode);
  const Upload wrong = Put("w.txt", "twelve bytes", HashOf("twelve bytez"));
  EXPECT_EQ(wrong.written, Result::FAILED);
  EXPECT_EQ(MetricCount(metrics, "yandex_conflict_invalid_write_hash"), 1);
  EXPECT_FALSE(Find("w.txt"));
  const auto puts = Requests("PUT", "/webdav/w.txt");
  for (const HttpRequest& put : puts) {
    EXPECT_LT(put.body_size, 12u);
  }
}

TEST_F(YandexFilesTest, ImagesAreReadByLinkOnTheWebDavRoad) {
  Item made;
  ASSERT_EQ(Account().CreateFile(Account().RootId(), "p.JPEG", "jpeg bytes", 1700000000000, &made),
            AccountError::kNone);
  ASSERT_EQ(Account().CreateFile(Account().RootId(), "t.txt", "text bytes", 1700000000000, &made),
            AccountError::kNone);
  fs_->SetMode(RemoteFileSystemYandex::kWebDavMode);
  std::string got;
  EXPECT_EQ(Get("p.JPEG", "jpeg bytes", &got), Result::SUCCEEDED);
  EXPECT_EQ(got, "jpeg bytes");
  EXPECT_EQ(Requests("GET", "/v1/disk/resources/download").size(), 1u);
  EXPECT_EQ(Get("t.txt", "text bytes", &got), Result::SUCCEEDED);
  EXPECT_EQ(got, "text bytes");
  EXPECT_EQ(Requests("GET", "/v1/disk/resources/download").size(), 1u);
  EXPECT_EQ(Requests("GET", "/webdav/t.txt").size(), 1u);
}

// --- item operations ---------------------------------------------------------------------------

TEST_F(YandexFilesTest, FoldersAndFilesAreMadeMovedAndDeleted) {
  const FileSystem::OverwriteControl none;
  FolderNode node;
  // 1. Folders and a file.
  EXPECT_EQ(fs_->CreateFolderImpl(none, "d"), Result::SUCCEEDED);
  EXPECT_EQ(fs_->CreateFolderImpl(none, "d/e"), Result::SUCCEEDED);
  EXPECT_EQ(fs_->CreateFolderImpl(none, "d"), Result::CONFLICT);
  ASSERT_EQ(Put("d/f.txt", "file").closed, Result::SUCCEEDED);
  ASSERT_EQ(Put("g.txt", "other").closed, Result::SUCCEEDED);

  // 2. Moves: a file over another only when the target's content is known.
  FileNode* file = node.CreateFileW("x", 0, SomeHash(), 0);
  EXPECT_EQ(fs_->MoveFileImpl(*file, none, "d/f.txt", none, "g.txt"), Result::CONFLICT);
  EXPECT_NE(Requests("POST", "/v1/disk/resources/move").back().query.find("overwrite=false"),
            std::string::npos);
  EXPECT_EQ(fs_->MoveFileImpl(*file, none, "d/f.txt", FileSystem::OverwriteControl(HashOf("other")),
                              "g.txt"),
            Result::SUCCEEDED);
  EXPECT_NE(Requests("POST", "/v1/disk/resources/move").back().query.find("overwrite=true"),
            std::string::npos);
  EXPECT_EQ(Find("g.txt")->digests.md5, HashOf("file").GetHashYandex().md5.ToHexString());
  EXPECT_EQ(fs_->MoveFolderImpl(node, none, "d/e", FileSystem::OverwriteControl(HashOf("x")), "e2"),
            Result::SUCCEEDED);
  EXPECT_NE(Requests("POST", "/v1/disk/resources/move").back().query.find("overwrite=false"),
            std::string::npos);
  EXPECT_TRUE(Find("e2"));

  // 3. Deletes: a file only as the tree knows it.
  EXPECT_EQ(fs_->DeleteFileImpl(FileSystem::OverwriteControl(HashOf("stale")), "g.txt", 4, 0),
            Result::CONFLICT);
  EXPECT_TRUE(Find("g.txt"));
  EXPECT_EQ(fs_->DeleteFileImpl(FileSystem::OverwriteControl(HashOf("file")), "g.txt", 4, 0),
            Result::SUCCEEDED);
  EXPECT_EQ(Requests("DELETE", "/v1/disk/resources").back().Header("If-Match"),
            HashOf("file").GetHashYandex().md5.ToHexString());
  EXPECT_FALSE(Find("g.txt"));
  EXPECT_EQ(fs_->DeleteFolderImpl(node, FileSystem::Revision(), "d"), Result::SUCCEEDED);
  EXPECT_FALSE(Find("d"));

  // 4. A path that isn't canonical never leaves.
  const std::size_t before = emulator_->server().Requests().size();
  LoggerWrapper::Capture log;
  EXPECT_EQ(fs_->CreateFolderImpl(none, "/abs"), Result::FATAL);
  EXPECT_EQ(fs_->DeleteFileImpl(none, "a/../b", 0, 0), Result::FATAL);
  EXPECT_EQ(fs_->MoveFileImpl(*file, none, "a", none, "b/"), Result::FATAL);
  EXPECT_EQ(emulator_->server().Requests().size(), before);
  EXPECT_TRUE(log.Contains("Invalid path \"/abs\""));
}

TEST_F(YandexFilesTest, OperationsThatGoOnArePolledOnTheirSchedule) {
  emulators::YandexOptions options;
  options.operation_polls = 5;
  Start(options);
  Item folder;
  Item file;
  ASSERT_EQ(Account().CreateFolder(Account().RootId(), "big", &folder), AccountError::kNone);
  ASSERT_EQ(Account().CreateFile(folder.id, "in", "x", 1700000000000, &file), AccountError::kNone);
  FolderNode node;
  LoggerWrapper::Capture log;
  EXPECT_EQ(fs_->DeleteFolderImpl(node, FileSystem::Revision(), "big"), Result::SUCCEEDED);
  EXPECT_EQ(clock_.Waits(), (std::vector<std::int64_t>{600, 900, 1350, 2000, 2000}));
  EXPECT_TRUE(log.Contains("Waiting for operation to complete..."));
}

TEST_F(YandexFilesTest, OperationAnswersThatEndThePolling) {
  emulators::HttpServer server;
  test::PointYandexAt(server.BaseUrl());
  auto fs = test::OpenYandex("", &factory_);
  const std::string link = server.BaseUrl() + "/op";
  server.Handle("DELETE", "/v1/disk/resources", [link](const HttpRequest&) {
    return Json(202, R"({"href":")" + link + R"(","method":"GET","templated":false})");
  });
  struct Case {
    const char* status;
    Result result;
    const char* word;
  };
  const Case cases[] = {
      {"failed", Result::FAILED, "Operation failed: "},
      {"sleeping", Result::FAILED, "Unexpected operation status: sleeping"},
  };
  FolderNode node;
  for (const Case& c : cases) {
    server.Handle("GET", "/op", [&c](const HttpRequest&) {
      return Json(200, std::string(R"({"status":")") + c.status + "\"}");
    });
    LoggerWrapper::Capture log;
    EXPECT_EQ(fs->DeleteFolderImpl(node, FileSystem::Revision(), "d"), c.result) << c.status;
    EXPECT_TRUE(log.Contains(c.word)) << c.status;
  }

  // An answer without a link.
  server.Handle("DELETE", "/v1/disk/resources",
                [](const HttpRequest&) { return Json(202, R"({"method":"GET"})"); });
  LoggerWrapper::Capture log;
  EXPECT_EQ(fs->DeleteFolderImpl(node, FileSystem::Revision(), "d"), Result::FAILED);
  EXPECT_TRUE(log.Contains("Unexpected async operation response."));

  // Stop during a wait.
  server.Handle("DELETE", "/v1/disk/resources", [link](const HttpRequest&) {
    return Json(202, R"({"href":")" + link + R"(","method":"GET"})");
  });
  server.Handle("GET", "/op",
                [](const HttpRequest&) { return Json(200, R"({"status":"in-progress"})"); });
  clock_.SetOnWait([&fs](std::int64_t) { fs->Stop(); });
  EXPECT_EQ(fs->DeleteFolderImpl(node, FileSystem::Revision(), "d"), Result::STOPPED);
  clock_.SetOnWait(nullptr);
}

TEST_F(YandexFilesTest, YandexCodesMapToResults) {
  struct Case {
    URLProcessor::Result transfer;
    int code;
    Result result;
    const char* word;  // "" for none
    std::vector<std::int64_t> waits;
  };
  using T = URLProcessor::Result;
  const Case cases[] = {
      {T::STOPPED, 0, Result::STOPPED, "", {}},
      {T::OK, 200, Result::SUCCEEDED, "", {}},
      {T::CREATED, 201, Result::SUCCEEDED, "", {}},
      {T::NO_CONTENT, 204, Result::SUCCEEDED, "", {}},
      {T::HTTP_FAILED, 401, Result::AUTH_INVALID, "Authorization failed (401).", {}},
      {T::NOT_FOUND, 404, Result::CONFLICT, "Not found (404).", {}},
      {T::FORBIDDEN, 403, Result::ACCESS_DENIED, "Forbidden (403).", {}},
      {T::HTTP_FAILED, 429, Result::FAILED, "Received rate limit.", {2000}},
      {T::HTTP_FAILED, 409, Result::CONFLICT, "Received 409=path_already_exists.", {}},
      {T::HTTP_FAILED, 423, Result::CONFLICT, "Resource blocked.", {}},
      {T::HTTP_FAILED, 507, Result::NO_SPACE, "No free space.", {}},
      {T::HTTP_FAILED, 500, Result::FAILED, "Failed with HTTP code 500", {}},
      {T::NETWORK_FAILED, 0, Result::FAILED, "", {}},
  };
  for (const Case& c : cases) {
    LoggerWrapper::Capture log;
    const std::size_t before = clock_.Waits().size();
    EXPECT_EQ(fs_->GetResultFromYandexHttpCode(c.transfer, c.code), c.result) << c.code;
    if (*c.word) {
      EXPECT_TRUE(log.Contains(c.word)) << c.code;
    }
    const auto waits = clock_.Waits();
    EXPECT_EQ(std::vector<std::int64_t>(waits.begin() + before, waits.end()), c.waits) << c.code;
  }
  // A rate limit's wait that is stopped.
  fs_->Stop();
  EXPECT_EQ(fs_->GetResultFromYandexHttpCode(T::HTTP_FAILED, 429), Result::STOPPED);
}

// --- links, sizes, listing ---------------------------------------------------------------------

TEST_F(YandexFilesTest, PublicLinksOverRestAndWebDav) {
  Item made;
  ASSERT_EQ(Account().CreateFile(Account().RootId(), "s.txt", "shared", 1700000000000, &made),
            AccountError::kNone);
  std::string link;
  ASSERT_EQ(fs_->GetPublicLink("s.txt", false, &link), Result::SUCCEEDED);
  EXPECT_EQ(link, Find("s.txt")->public_link);
  EXPECT_FALSE(link.empty());
  EXPECT_EQ(fs_->ClosePublicLink("s.txt"), Result::SUCCEEDED);
  EXPECT_TRUE(Find("s.txt")->public_link.empty());
  EXPECT_EQ(fs_->GetPublicLink("missing", false, &link), Result::CONFLICT);

  fs_->SetMode(RemoteFileSystemYandex::kWebDavMode);
  ASSERT_EQ(fs_->GetPublicLink("s.txt", false, &link), Result::SUCCEEDED);
  EXPECT_EQ(link, Find("s.txt")->public_link);
  EXPECT_EQ(Requests("PROPPATCH", "/webdav/s.txt").size(), 1u);
  LoggerWrapper::Capture log;
  EXPECT_EQ(fs_->ClosePublicLink("s.txt"), Result::FATAL);
  EXPECT_TRUE(log.Contains("Not implemented."));
}

TEST_F(YandexFilesTest, PublicLinkAnswersWithoutALink) {
  emulators::HttpServer server;
  test::PointYandexAt(server.BaseUrl());
  auto fs = test::OpenYandex("", &factory_);
  server.Handle("PUT", "/v1/disk/resources/publish",
                [](const HttpRequest&) { return Json(200, R"({"href":"x"})"); });
  server.Handle("GET", "/v1/disk/resources",
                [](const HttpRequest&) { return Json(200, R"({"public_url":""})"); });
  LoggerWrapper::Capture log;
  std::string link;
  EXPECT_EQ(fs->GetPublicLink("a", false, &link), Result::FAILED);
  EXPECT_TRUE(log.Contains("No public url in resource after publishing."));
  EXPECT_NE(server.Requests().back().query.find("limit=0"), std::string::npos);

  fs->SetMode(RemoteFileSystemYandex::kWebDavMode);
  const std::pair<std::string, const char*> answers[] = {
      {"<d:propstat><d:status>HTTP/1.1 403 Forbidden</d:status><d:prop><public_url "
       "xmlns=\"urn:yandex:disk:meta\">x</public_url></d:prop></d:propstat>",
       "Status not OK but: HTTP/1.1 403 Forbidden"},
      {"<d:propstat><d:status>HTTP/1.1 200 OK</d:status><d:prop/></d:propstat>",
       "No link in response."},
      {"", "No propstat."},
  };
  for (const auto& [propstat, word] : answers) {
    const std::string body =
        "<?xml version=\"1.0\"?><d:multistatus xmlns:d=\"DAV:\"><d:response>"
        "<d:href>/a</d:href>" +
        propstat + "</d:response></d:multistatus>";
    server.Handle("PROPPATCH", "/a",
                  [body](const HttpRequest&) { return HttpResponse::Status(207, body); });
    LoggerWrapper::Capture davLog;
    EXPECT_EQ(fs->GetPublicLink("a", false, &link), Result::FAILED) << word;
    EXPECT_TRUE(davLog.Contains(word)) << word;
  }
}

TEST_F(YandexFilesTest, DiskSizesBothWays) {
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  ASSERT_EQ(fs_->GetCloudSize(&total, &used), Result::SUCCEEDED);
  EXPECT_EQ(total, Account().TotalSpace());
  fs_->SetMode(RemoteFileSystemYandex::kWebDavMode);
  std::uint64_t davTotal = 0;
  std::uint64_t davUsed = 0;
  ASSERT_EQ(fs_->GetCloudSize(&davTotal, &davUsed), Result::SUCCEEDED);
  EXPECT_EQ(davTotal, total);
  EXPECT_EQ(davUsed, used);
  EXPECT_EQ(Requests("PROPFIND", "/webdav").back().Header("Depth"), "0");
  EXPECT_EQ(fs_->GetMaxFileSize(), emulators::YandexOptions().max_file_size);
}

TEST_F(YandexFilesTest, FolderListingFollowsTheServersPageSize) {
  emulators::YandexOptions options;
  options.listing_limit = 100;
  Start(options);
  Item folder;
  ASSERT_EQ(Account().CreateFolder(Account().RootId(), "many", &folder), AccountError::kNone);
  for (int i = 0; i < 250; ++i) {
    Item made;
    if (i % 50 == 0) {
      ASSERT_EQ(Account().CreateFolder(folder.id, "d" + std::to_string(i), &made),
                AccountError::kNone);
    } else {
      ASSERT_EQ(Account().CreateFile(folder.id, "f" + std::to_string(i), std::to_string(i),
                                     1700000000000, &made),
                AccountError::kNone);
    }
  }
  RemoteFileSystem::FolderListing listing;
  ASSERT_EQ(fs_->GetFolderListing("many", &listing), Result::SUCCEEDED);
  EXPECT_EQ(listing.folders.size(), 5u);
  ASSERT_EQ(listing.files.size(), 245u);
  std::vector<std::string> offsets;
  for (const HttpRequest& request : Requests("GET", "/v1/disk/resources")) {
    const std::size_t at = request.query.find("offset=");
    offsets.push_back(request.query.substr(at + 7, request.query.find('&', at) - at - 7));
    EXPECT_NE(request.query.find("limit=1024"), std::string::npos);
  }
  EXPECT_EQ(offsets, (std::vector<std::string>{"0", "100", "200"}));
  const auto& [name, props] = listing.files.front();
  EXPECT_EQ(props.hash, HashOf(name.substr(1)));

  // The folder grows while it is read.
  emulator_->faults().Add(emulators::FaultRule::On("GET", "/v1/disk/resources")
                              .ChangeAfter({"create", "many/late", "", "late"}));
  LoggerWrapper::Capture log;
  RemoteFileSystem::FolderListing again;
  EXPECT_EQ(fs_->GetFolderListing("many", &again), Result::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Total item count changed while iterating the directory."));
}

}  // namespace

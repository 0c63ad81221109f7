// The Yandex Disk adapter against a scripted server that answers as the service does: the
// factory and the fixed answers, the binary snapshot of a mounted folder with its fallback and
// retries, the paged JSON snapshot, the delta feed and the rule that asks for a new tree.
#include "services/RemoteFileSystemYandex.h"

#include <gtest/gtest.h>

#include <mutex>
#include <typeinfo>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PercentEncoding.h"
#include "core/RadarsLogger.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/HttpServer.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "services/RemoteFileSystemFactoryYandex.h"
#include "support/WebDavTesting.h"
#include "support/YandexTesting.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;
using Change = FileSystem::Change;
using Result = FileSystem::Result;

const std::string kMd5 = "0123456789abcdef0123456789abcdef";
const std::string kSha = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";

// Answers in turn from a list; the last answer repeats.
class Script {
 public:
  explicit Script(std::vector<HttpResponse> replies) : replies_(std::move(replies)) {}
  HttpResponse Next() {
    std::lock_guard<std::mutex> lock(mutex_);
    return replies_[std::min(served_++, replies_.size() - 1)];
  }

 private:
  std::mutex mutex_;
  std::vector<HttpResponse> replies_;
  std::size_t served_ = 0;
};

HttpResponse Json(const std::string& body, int status = 200) {
  HttpResponse response = HttpResponse::Status(status, body);
  response.headers = {{"Content-Type", "application/json; charset=utf-8"}};
  return response;
}

HttpResponse Reset() {
  HttpResponse response;
  response.reset = true;
  return response;
}

// A connection lost in the middle of the body.
HttpResponse Cut(const std::string& body) {
  HttpResponse response = Json(body);
  response.cut_after = body.size() / 2;
  return response;
}

std::string Disk(const std::string& revision, std::uint64_t maxFileSize = 53687091200) {
  std::string body = R"({"total_space":1000,"used_space":400,"max_file_size":)" +
                     std::to_string(maxFileSize) + R"(,"trash_size":3)";
  if (!revision.empty()) {
    body += R"(,"revision":)" + revision;
  }
  return body + "}";
}

HttpResponse Snapshot(const std::string& body, const std::string& itemCount) {
  HttpResponse response = HttpResponse::Status(200, body);
  response.headers = {{"Content-Type", "application/octet-stream"}};
  if (!itemCount.empty()) {
    response.headers.emplace_back("Item-Count", itemCount);
  }
  return response;
}

// The value of a parameter of the query, decoded.
std::string Param(const HttpRequest& request, const std::string& key) {
  std::size_t at = 0;
  while (at <= request.query.size()) {
    const std::size_t end = std::min(request.query.find('&', at), request.query.size());
    const std::string pair = request.query.substr(at, end - at);
    if (pair.compare(0, key.size() + 1, key + "=") == 0) {
      return utils::PercentDecoded(pair.substr(key.size() + 1));
    }
    at = end + 1;
  }
  return "<none>";
}

std::string FileItem(const std::string& path, std::uint64_t size, const std::string& extra = "") {
  return R"({"path":"disk:/)" + path + R"(","type":"file","size":)" + std::to_string(size) +
         R"(,"md5":")" + kMd5 + R"(","sha256":")" + kSha +
         R"(","modified":"2023-04-05T06:07:08+03:00")" + extra + "}";
}

std::string DirItem(const std::string& path) {
  return R"({"path":"disk:/)" + path + R"(","type":"dir","modified":"2023-04-05T06:07:08Z"})";
}

std::string Page(const std::string& revision, const std::string& key,
                 const std::vector<std::string>& items) {
  std::string body =
      R"({"revision":)" + revision + R"(,"iteration_key":")" + key + R"(","items":[)";
  for (std::size_t i = 0; i < items.size(); ++i) {
    body += (i ? "," : "") + items[i];
  }
  return body + "]}";
}

std::string Delta(const std::string& revision, const std::string& changeType,
                  const std::string& type, const std::string& path,
                  const std::string& extra = std::string()) {
  return R"({"revision":)" + revision + R"(,"change_type":")" + changeType + R"(","type":")" +
         type + R"(","path":"disk:/)" + path + "\"" + extra + "}";
}

std::string FileResource(std::uint64_t size, const std::string& md5 = kMd5) {
  return R"(,"resource":{"size":)" + std::to_string(size) + R"(,"md5":")" + md5 +
         R"(","sha256":")" + kSha + R"(","modified":"2023-04-05T03:07:08Z"})";
}

std::vector<HttpRequest> RequestsTo(const emulators::HttpServer& server, const std::string& path) {
  std::vector<HttpRequest> found;
  for (const HttpRequest& request : server.Requests()) {
    if (request.path == path) {
      found.push_back(request);
    }
  }
  return found;
}

class YandexTest : public testing::Test {
 protected:
  void SetUp() override {
    test::PointYandexAt(server_.BaseUrl());
    ServeDisk(Disk("100"));
  }
  void TearDown() override { Endpoints::ResetOverrides(); }

  void ServeDisk(const std::string& body) {
    server_.Handle("GET", "/v1/disk", [body](const HttpRequest&) { return Json(body); });
  }
  void Serve(const std::string& path, std::vector<HttpResponse> replies,
             emulators::Match match = emulators::Match::kExact) {
    auto script = std::make_shared<Script>(std::move(replies));
    server_.Handle(
        "GET", path, [script](const HttpRequest&) { return script->Next(); }, match);
  }
  std::unique_ptr<RemoteFileSystemYandex> Make(const std::string& root = std::string()) {
    auto fs = test::OpenYandex(root, &factory_);
    EXPECT_NE(fs, nullptr);
    return fs;
  }
  std::vector<std::int64_t> WaitsSince(std::size_t before) const {
    const std::vector<std::int64_t> waits = clock_.Waits();
    return std::vector<std::int64_t>(waits.begin() + before, waits.end());
  }
  Result Tree(RemoteFileSystem* fs, FolderNode* root) {
    std::uint64_t free = 0;
    std::uint64_t total = 0;
    serviceItems_.clear();
    return fs->GetFullTree(root, &free, &total, &serviceItems_);
  }
  // The whole disk in three pages, of which `second` answers the second.
  void ServeThreePages(std::vector<HttpResponse> second) {
    std::vector<HttpResponse> answers = {
        Json(Page("5", "k1", {DirItem(""), DirItem("Фото"), FileItem("Фото/a b.jpg", 3)}))};
    answers.insert(answers.end(), second.begin(), second.end());
    answers.push_back(Json(Page("6", "",
                                {FileItem("big", 1099511627776), FileItem("huge", 1099511627777),
                                 R"({"path":"disk:/nohash","type":"file","size":1})",
                                 FileItem("shared.txt", 2, R"(,"public_url":"https://x")")})));
    Serve("/v1/disk/resources/snapshot", std::move(answers));
  }
  std::vector<Change> Changes(RemoteFileSystem* fs, Result expected = Result::SUCCEEDED) {
    std::queue<Change> queue;
    EXPECT_EQ(fs->GetChanges(&queue), expected);
    std::vector<Change> changes;
    for (; !queue.empty(); queue.pop()) {
      changes.push_back(queue.front());
    }
    return changes;
  }

  emulators::HttpServer server_;
  utils::ManualClock clock_;
  utils::ScopedClock scopedClock_{&clock_};
  std::unique_ptr<RemoteFileSystemFactory> factory_;
  tsl::htrie_set<char> serviceItems_;
};

// --- the factory and the fixed answers ------------------------------------------------------

TEST_F(YandexTest, EntryGivesItsFactoryWithAPlainRecordAndTheServiceAnswers) {
  std::unique_ptr<RemoteFileSystemFactory> factory(H6BA54F7D00(CloudServiceId::YANDEX, "root"));
  ASSERT_NE(factory, nullptr);
  EXPECT_EQ(typeid(*factory), typeid(RemoteFileSystemFactoryYandex));
  EXPECT_EQ(typeid(*factory->GetSharedData()), typeid(RemoteFileSystemSharedData));
  std::unique_ptr<RemoteFileSystem> fs(factory->Create());
  ASSERT_NE(dynamic_cast<RemoteFileSystemYandex*>(fs.get()), nullptr);
  EXPECT_EQ(fs->GetServiceId(), CloudServiceId::YANDEX);
  EXPECT_EQ(fs->GetHashType(), SomeHash::YANDEX);
  EXPECT_FALSE(fs->IsCaseInsensitive());
  EXPECT_TRUE(fs->IsServiceTraitA());
  EXPECT_TRUE(fs->SupportsServiceTraitC());
  EXPECT_TRUE(fs->SupportsChangesListening());
  EXPECT_TRUE(fs->SupportsSelfChangeFiltering());
  EXPECT_FALSE(fs->SupportsResumingUpload());
  EXPECT_TRUE(fs->SupportsMoveToExistingFile());
  EXPECT_FALSE(fs->ShouldRenewTree());
  EXPECT_TRUE(fs->GetUnsupportedSymbolsMap().empty());
  EXPECT_EQ(fs->GetMaxFileSize(), UINT64_MAX);

  LoggerWrapper::Capture log;
  EXPECT_EQ(fs->CheckConnection(), Result::FATAL);
  EXPECT_TRUE(log.Contains("Http client not exists"));
}

TEST_F(YandexTest, DiskAnswerGivesSizesAndTheFileLimitWithOAuth) {
  const std::pair<std::uint64_t, std::uint64_t> limits[] = {
      {1048575, UINT64_MAX}, {1048576, 1048576}, {53687091200, 53687091200}};
  for (const auto& [served, answered] : limits) {
    ServeDisk(Disk("1", served));
    auto fs = Make();
    std::uint64_t total = 0;
    std::uint64_t used = 0;
    ASSERT_EQ(fs->GetCloudSize(&total, &used), Result::SUCCEEDED);
    EXPECT_EQ(total, 1000u);
    EXPECT_EQ(used, 400u);
    EXPECT_EQ(fs->GetMaxFileSize(), answered) << served;
  }
  server_.ClearRequests();
  auto fs = Make();
  EXPECT_EQ(fs->CheckConnection(), Result::SUCCEEDED);
  const auto requests = RequestsTo(server_, "/v1/disk");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].Header("Authorization"), "OAuth token");

  ServeDisk(R"({"used_space":"many"})");
  LoggerWrapper::Capture log;
  EXPECT_EQ(Make()->CheckConnection(), Result::FAILED);
  EXPECT_TRUE(log.Contains("Invalid disk info: "));
}

// --- the binary snapshot of a mounted folder ------------------------------------------------

const char kMount[] = "Docs Ж";
const char kMountEncoded[] = "/disk/Docs%20%D0%96";

std::string MountedSnapshot() {
  return test::SnapshotFolder("/Docs Ж") + test::SnapshotFolder("/Docs Ж/a") +
         test::SnapshotFile("/Docs Ж/a/b c.txt", 5) + test::SnapshotFile("/Docs Ж/пусто", 0);
}

std::vector<std::string> MountedTree() {
  return {"f пусто 0 " + test::SnapshotFileHashHex("/Docs Ж/пусто"), "d a",
          "f a/b c.txt 5 " + test::SnapshotFileHashHex("/Docs Ж/a/b c.txt")};
}

TEST_F(YandexTest, MountedFolderLoadsThroughOneBinaryGet) {
  Serve("/disk/", {Snapshot(MountedSnapshot(), "4")}, emulators::Match::kPrefix);
  auto fs = Make(kMount);
  RadarsLogger::Capture metrics;
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);
  EXPECT_EQ(test::TreeLines(root), MountedTree());

  const auto requests = RequestsTo(server_, kMountEncoded);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].verb, "GET");
  EXPECT_EQ(requests[0].query, "index&v=3");
  EXPECT_EQ(requests[0].Header("Authorization"), "OAuth token");
  EXPECT_EQ(metrics.Count("yandex_snapshot_count_files"), 1u);
  EXPECT_DOUBLE_EQ(fs->GetFirstSnapshotProgress(), 1.0);

  // The feed of a mounted folder starts from the revision the disk gave before its tree.
  Serve("/v1/disk/resources/deltas", {Json(Page("101", "", {}))});
  Changes(fs.get());
  const auto deltas = RequestsTo(server_, "/v1/disk/resources/deltas");
  ASSERT_EQ(deltas.size(), 1u);
  EXPECT_EQ(Param(deltas[0], "base_revision"), "100");
  EXPECT_EQ(Param(deltas[0], "allow_moved_deltas"), "1");
}

TEST_F(YandexTest, MountedFolderWithoutADiskRevisionPromisesNoFeed) {
  ServeDisk(Disk(""));
  Serve("/disk/", {Snapshot(MountedSnapshot(), "4")}, emulators::Match::kPrefix);
  auto fs = Make(kMount);
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);
  EXPECT_FALSE(fs->SupportsChangesListening());
  Changes(fs.get(), Result::FATAL);
  EXPECT_TRUE(RequestsTo(server_, "/v1/disk/resources/deltas").empty());
}

TEST_F(YandexTest, BadSnapshotsEndAsTheirTableSays) {
  // The fallback walk lists the mounted folder over PROPFIND.
  const std::string etag = kMd5 + "_" + kSha;
  server_.Handle("PROPFIND", "/Docs%20%D0%96/", [etag](const HttpRequest& request) {
    EXPECT_NE(request.body.find("urn:yandex:disk:meta"), std::string::npos);
    HttpResponse response = HttpResponse::Status(
        207, test::Multistatus(
                 {{"/Docs%20%D0%96/", true}, {"/Docs%20%D0%96/walked.txt", false, 9, etag}}));
    return response;
  });
  const std::vector<std::string> walked = {"f walked.txt 9 " + kMd5 + kSha};
  const std::string good = MountedSnapshot();
  struct Case {
    const char* name;
    HttpResponse answer;
    Result result;
    bool fallback;
    std::size_t lines;  // of the tree, when no fallback
  };
  const Case cases[] = {
      {"count as given", Snapshot(good, "4"), Result::SUCCEEDED, false, 3},
      {"count missing", Snapshot(good, ""), Result::SUCCEEDED, false, 3},
      {"count of zero", Snapshot(good, "0"), Result::SUCCEEDED, false, 3},
      {"count of -1", Snapshot(good, "-1"), Result::SUCCEEDED, false, 3},
      {"count one over", Snapshot(good, "5"), Result::SUCCEEDED, false, 3},
      {"count one short: the last entry is not read", Snapshot(good, "3"), Result::SUCCEEDED, false,
       2},
      {"trailing bytes", Snapshot(good + "\x09\x09", "4"), Result::SUCCEEDED, false, 3},
      {"truncated record", Snapshot(good.substr(0, good.size() - 3), ""), Result::SUCCEEDED, true,
       0},
      {"unknown type", Snapshot(good + "\x05", ""), Result::SUCCEEDED, true, 0},
      {"eleven-byte number", Snapshot("\x02" + std::string(10, '\x80') + "\x01", ""),
       Result::SUCCEEDED, true, 0},
      {"folder before its parent", Snapshot(test::SnapshotFolder("/Docs Ж/x/y"), ""),
       Result::SUCCEEDED, true, 0},
      {"path outside the mount", Snapshot(test::SnapshotFile("/Other/x", 1), ""), Result::SUCCEEDED,
       true, 0},
  };
  for (const Case& c : cases) {
    Serve("/disk/", {c.answer}, emulators::Match::kPrefix);
    auto fs = Make(kMount);
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    FolderNode root;
    EXPECT_EQ(Tree(fs.get(), &root), c.result) << c.name;
    EXPECT_EQ(log.Contains("Falling back to recursive WebDAV tree download."), c.fallback)
        << c.name;
    EXPECT_EQ(metrics.Count("yandex_disk_fallback_snapshot"), c.fallback ? 1u : 0u) << c.name;
    EXPECT_EQ(metrics.Count("yandex_failed_parse_tree_snapshot"), c.fallback ? 1u : 0u) << c.name;
    if (c.fallback) {
      EXPECT_EQ(test::TreeLines(root), walked) << c.name;
    } else {
      EXPECT_EQ(test::TreeLines(root).size(), c.lines) << c.name;
    }
  }
}

HttpResponse CutSnapshot() {
  HttpResponse response = Snapshot(MountedSnapshot(), "4");
  response.cut_after = 20;
  return response;
}

TEST_F(YandexTest, RetryLadderOfTheBinarySnapshot) {
  struct Case {
    const char* name;
    std::vector<HttpResponse> answers;
    Result result;
    std::size_t requests;
    std::vector<std::int64_t> waits;
    const char* word;
  };
  const std::vector<std::int64_t> none;
  const Case cases[] = {
      {"503 five times",
       {HttpResponse::Status(503)},
       Result::FAILED,
       5,
       {1000, 1000, 1000, 1000},
       "Failed to get yandex snapshot after all retries."},
      {"503 twice, then the tree",
       {HttpResponse::Status(503), HttpResponse::Status(503), Snapshot(MountedSnapshot(), "4")},
       Result::SUCCEEDED,
       3,
       {1000, 1000},
       "Trying to get snapshot another time ..."},
      {"a lost connection is the caller's to retry",
       {CutSnapshot()},
       Result::FAILED,
       1,
       none,
       "Failed snapshot request, "},
      {"404 of the mounted folder",
       {HttpResponse::Status(404)},
       Result::CONFLICT,
       1,
       none,
       "Snapshoot remote root not found: /Docs"},
  };
  for (const Case& c : cases) {
    Serve("/disk/", c.answers, emulators::Match::kPrefix);
    auto fs = Make(kMount);
    server_.ClearRequests();
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    const std::size_t before = clock_.Waits().size();
    FolderNode root;
    EXPECT_EQ(Tree(fs.get(), &root), c.result) << c.name;
    EXPECT_EQ(RequestsTo(server_, kMountEncoded).size(), c.requests) << c.name;
    EXPECT_EQ(WaitsSince(before), c.waits) << c.name;
    EXPECT_TRUE(log.Contains(c.word)) << c.name;
    EXPECT_EQ(metrics.Count("yandex_disk_fallback_snapshot"), 0u) << c.name;
  }
}

// --- the JSON snapshot of the whole disk ----------------------------------------------------

TEST_F(YandexTest, JsonSnapshotOverThreePages) {
  ServeThreePages({Json(Page("7", "k2", {DirItem("Фото/пусто")}))});
  auto fs = Make();
  LoggerWrapper::Capture log;
  RadarsLogger::Capture metrics;
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);

  // 1. The tree, with the broken files left out and logged.
  const std::string hash = kMd5 + kSha;
  const std::vector<std::string> expected = {"f big 1099511627776 " + hash,
                                             "f shared.txt 2 " + hash, "d Фото",
                                             "f Фото/a b.jpg 3 " + hash, "d Фото/пусто"};
  EXPECT_EQ(test::TreeLines(root), expected);
  EXPECT_EQ(root.GetFolder("Фото")->GetFile("a b.jpg")->GetTime(), 1680664028u);
  EXPECT_TRUE(log.Contains("Invalid file size."));
  EXPECT_TRUE(log.Contains("Invalid file hash."));
  EXPECT_EQ(serviceItems_.count("shared.txt"), 1u);

  // 2. The pages on the wire.
  const auto pages = RequestsTo(server_, "/v1/disk/resources/snapshot");
  ASSERT_EQ(pages.size(), 3u);
  EXPECT_EQ(Param(pages[0], "iteration_key"), "<none>");
  EXPECT_EQ(Param(pages[0], "fields"),
            "iteration_key,revision,items.path,items.type,items.size,items.md5,items.sha256,"
            "items.modified,items.public_url");
  EXPECT_EQ(Param(pages[1], "iteration_key"), "k1");
  EXPECT_EQ(Param(pages[2], "iteration_key"), "k2");
  EXPECT_EQ(pages[0].Header("Authorization"), "OAuth token");

  // 3. The counts, and the feed starting from the highest revision seen.
  EXPECT_EQ(metrics.Count("yandex_snapshot_count_files"), 1u);
  Serve("/v1/disk/resources/deltas", {Json(Page("8", "", {}))});
  Changes(fs.get());
  EXPECT_EQ(Param(RequestsTo(server_, "/v1/disk/resources/deltas")[0], "base_revision"), "7");
}

TEST_F(YandexTest, JsonSnapshotRepeatsAPageLostOnTheWay) {
  ServeThreePages({Cut(Page("7", "k2", {})), Json(Page("7", "k2", {}))});
  auto fs = Make();
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);
  const auto pages = RequestsTo(server_, "/v1/disk/resources/snapshot");
  ASSERT_EQ(pages.size(), 4u);
  EXPECT_EQ(Param(pages[1], "iteration_key"), "k1");
  EXPECT_EQ(Param(pages[2], "iteration_key"), "k1");
  EXPECT_EQ(clock_.Waits(), std::vector<std::int64_t>{2000});
  EXPECT_NE(root.GetFolder("Фото"), nullptr);
}

TEST_F(YandexTest, JsonSnapshotRefusals) {
  struct Case {
    int status;
    Result result;
    const char* word;
    std::size_t requests;  // the loop of GetFullTree tries five times
  };
  const Case cases[] = {
      {401, Result::AUTH_INVALID, "Unauthorized.", 5},
      {500, Result::FAILED, "Failed snapshot request, ", 5},
  };
  for (const Case& c : cases) {
    Serve("/v1/disk/resources/snapshot", {Json(R"({"error":"UnauthorizedError"})", c.status)});
    auto fs = Make();
    server_.ClearRequests();
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    FolderNode root;
    EXPECT_EQ(Tree(fs.get(), &root), c.result) << c.status;
    EXPECT_TRUE(log.Contains(c.word)) << c.status;
    EXPECT_EQ(RequestsTo(server_, "/v1/disk/resources/snapshot").size(), c.requests);
    EXPECT_EQ(metrics.Count("yandex_failed_get_snapshot_v2"), c.status == 500 ? 5u : 0u);
    Changes(fs.get(), Result::FATAL);
  }
  Serve("/v1/disk/resources/snapshot", {Json(R"({"revision":1})")});
  LoggerWrapper::Capture log;
  FolderNode root;
  EXPECT_EQ(Tree(Make().get(), &root), Result::FAILED);
  EXPECT_TRUE(log.Contains("No items in response."));
}

// --- the delta feed -------------------------------------------------------------------------

class YandexFeedTest : public YandexTest {
 protected:
  void SetUp() override {
    YandexTest::SetUp();
    Serve("/v1/disk/resources/snapshot",
          {Json(Page("10", "",
                     {DirItem("e"), DirItem("f"), FileItem("f/in.txt", 4), FileItem("b.txt", 1),
                      FileItem("c.txt", 2)}))});
    fs_ = Make();
    ASSERT_EQ(Tree(fs_.get(), &root_), Result::SUCCEEDED);
    server_.ClearRequests();
  }
  void Apply(const std::vector<Change>& changes) {
    for (const Change& change : changes) {
      EXPECT_TRUE(fs_->ApplyRemoteChange(change, &root_, &free_, &total_)) << change.ToString();
    }
  }

  std::unique_ptr<RemoteFileSystemYandex> fs_;
  FolderNode root_;
  std::uint64_t free_ = 0;
  std::uint64_t total_ = 0;
};

TEST_F(YandexFeedTest, DeltasBecomeChangesAndTheTreeFollows) {
  const std::string other = "ffffffffffffffffffffffffffffffff";
  Serve("/v1/disk/resources/deltas",
        {Json(Page("11", "next",
                   {Delta("11", "new", "file", "a.txt", FileResource(6)),
                    Delta("11", "changed", "file", "b.txt", FileResource(8, other)),
                    Delta("11", "deleted", "file", "c.txt"), Delta("11", "new", "dir", "d/new")})),
         Json(Page("12", "",
                   {Delta("12", "deleted", "dir", "e"), Delta("12", "changed", "dir", "f"),
                    Delta("12", "moved", "dir", "f", R"(,"new_path":"disk:/g")")}))});
  LoggerWrapper::Capture log;
  const std::vector<Change> changes = Changes(fs_.get());

  // 1. The changes, and the sizes the disk gave with them.
  std::vector<std::string> kinds;
  for (const Change& change : changes) {
    kinds.push_back(std::string(Change::TypeName(change.type)) + " " + change.path + " " +
                    change.old_path + " " + std::to_string(change.size));
  }
  const std::vector<std::string> expected = {"FILE_CREATE a.txt  6",  "FILE_MODIFY b.txt  8",
                                             "FILE_DELETE c.txt  0",  "FOLDER_CREATE d/new  0",
                                             "FOLDER_DELETE e  0",    "FOLDER_CREATE g f 0",
                                             "TOTAL_SIZE_SET   1000", "FREE_SIZE_SET   600"};
  EXPECT_EQ(kinds, expected);
  EXPECT_EQ(changes[0].hash, SomeHash(HashYandex::FromHexString(kMd5 + kSha)));
  EXPECT_EQ(changes[0].time, 1680664028u);
  EXPECT_TRUE(log.Contains("Skipped changed directory event for \"f\""));

  // 2. The pages on the wire.
  const auto pages = RequestsTo(server_, "/v1/disk/resources/deltas");
  ASSERT_EQ(pages.size(), 2u);
  EXPECT_EQ(Param(pages[0], "base_revision"), "10");
  EXPECT_EQ(Param(pages[0], "iteration_key"), "<none>");
  EXPECT_EQ(Param(pages[1], "iteration_key"), "next");
  EXPECT_EQ(Param(pages[1], "base_revision"), "10");
  EXPECT_EQ(pages[0].Header("Authorization"), "OAuth token");

  // 3. The tree afterwards: the moved folder took its file along.
  Apply(changes);
  const std::string hash = kMd5 + kSha;
  const std::vector<std::string> tree = {
      "f a.txt 6 " + hash,   "f b.txt 8 " + other + kSha, "d d", "d d/new", "d g",
      "f g/in.txt 4 " + hash};
  EXPECT_EQ(test::TreeLines(root_), tree);
  EXPECT_EQ(total_, 1000u);
  EXPECT_EQ(free_, 600u);
  EXPECT_TRUE(root_.GetFile("b.txt")->IsChanged());
}

TEST_F(YandexFeedTest, AMissingHashIsAskedAgainAfterTheItemBeforeThenTheTreeIsRenewed) {
  Serve("/v1/disk/resources/deltas",
        {Json(Page(
            "13", "",
            {Delta("11", "new", "file", "early.txt", FileResource(1)),
             Delta("12", "new", "file", "late.txt", FileResource(1, std::string(32, '0')))}))});
  RadarsLogger::Capture metrics;
  LoggerWrapper::Capture log;
  Changes(fs_.get(), Result::FAILED);
  const auto pages = RequestsTo(server_, "/v1/disk/resources/deltas");
  ASSERT_EQ(pages.size(), 11u);
  EXPECT_EQ(Param(pages[0], "base_revision"), "10");
  for (std::size_t i = 1; i < pages.size(); ++i) {
    EXPECT_EQ(Param(pages[i], "base_revision"), "11") << i;
  }
  EXPECT_EQ(metrics.Count("yandex_no_hash"), 10u);
  EXPECT_EQ(metrics.Count("yandex_no_hash_get_tree"), 1u);
  EXPECT_EQ(clock_.Waits(), std::vector<std::int64_t>(10, 1000));
  EXPECT_TRUE(log.Contains("Invalid file hash."));
  EXPECT_TRUE(fs_->ShouldRenewTree());

  // A good tree clears the request.
  FolderNode root;
  ASSERT_EQ(Tree(fs_.get(), &root), Result::SUCCEEDED);
  EXPECT_FALSE(fs_->ShouldRenewTree());
}

TEST_F(YandexFeedTest, AHashThatArrivesLateKeepsTheChangesBefore) {
  Serve(
      "/v1/disk/resources/deltas",
      {Json(Page("13", "",
                 {Delta("11", "new", "file", "early.txt", FileResource(1)),
                  Delta("12", "new", "file", "late.txt", FileResource(1, std::string(32, '0')))})),
       Json(Page("13", "", {Delta("12", "new", "file", "late.txt", FileResource(2))}))});
  const std::vector<Change> changes = Changes(fs_.get());
  ASSERT_EQ(changes.size(), 4u);
  EXPECT_EQ(changes[0].path, "early.txt");
  EXPECT_EQ(changes[1].path, "late.txt");
  EXPECT_EQ(changes[1].size, 2u);
}

TEST_F(YandexFeedTest, RefusalsAndFaultsOfTheFeed) {
  struct Case {
    const char* name;
    HttpResponse answer;
    Result result;
    bool renew;
    const char* word;
  };
  const Case cases[] = {
      {"a reset keeps the feed", Reset(), Result::FAILED, false, nullptr},
      {"a refused revision loses it", Json(R"({"error":"BadRevision"})", 400), Result::FAILED, true,
       "Requesting snapshot as delta request failed."},
      {"an unknown change kind", Json(Page("11", "", {Delta("11", "copied", "file", "x")})),
       Result::FATAL, false, "Unknown change type: copied"},
      {"a size past a tebibyte",
       Json(Page("11", "", {Delta("11", "new", "file", "x", FileResource(1099511627777))})),
       Result::FATAL, false, "Invalid file size."},
      {"not JSON", HttpResponse::Status(200, "<html>"), Result::FAILED, true, nullptr},
  };
  for (const Case& c : cases) {
    Serve("/v1/disk/resources/deltas", {c.answer});
    FolderNode root;
    ASSERT_EQ(Tree(fs_.get(), &root), Result::SUCCEEDED);
    server_.ClearRequests();
    LoggerWrapper::Capture log;
    Changes(fs_.get(), c.result);
    EXPECT_EQ(fs_->ShouldRenewTree(), c.renew) << c.name;
    if (c.word) {
      EXPECT_TRUE(log.Contains(c.word)) << c.name;
    }
    // A lost feed has no revision left to ask from; a kept one asks again from the same.
    Serve("/v1/disk/resources/deltas", {Json(Page("11", "", {}))});
    Changes(fs_.get(), c.renew ? Result::FATAL : Result::SUCCEEDED);
    const auto pages = RequestsTo(server_, "/v1/disk/resources/deltas");
    EXPECT_EQ(pages.size(), c.renew ? 1u : 2u) << c.name;
    EXPECT_EQ(Param(pages.back(), "base_revision"), "10") << c.name;
  }
}

TEST_F(YandexFeedTest, TheDiskSizeComesWithChangesAndEveryTenthCall) {
  Serve("/v1/disk/resources/deltas", {Json(Page("10", "", {}))});
  for (int call = 1; call <= 20; ++call) {
    const std::vector<Change> changes = Changes(fs_.get());
    EXPECT_EQ(changes.size(), call % 10 == 0 ? 2u : 0u) << call;
  }
  EXPECT_EQ(RequestsTo(server_, "/v1/disk").size(), 2u);
}

TEST_F(YandexFeedTest, ItemsOutsideTheMountAreNoChanges) {
  Serve("/disk/", {Snapshot(test::SnapshotFolder("/Docs"), "1")}, emulators::Match::kPrefix);
  auto fs = Make("Docs");
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);
  Serve("/v1/disk/resources/deltas",
        {Json(Page("101", "",
                   {Delta("101", "new", "file", "Other/a", FileResource(1)),
                    Delta("101", "new", "file", "Docs2/a", FileResource(1)),
                    Delta("101", "new", "file", "Docs/in", FileResource(1)),
                    Delta("101", "moved", "dir", "Docs/x", R"(,"new_path":"disk:/Out")"),
                    Delta("101", "moved", "dir", "Out/y", R"(,"new_path":"disk:/Docs/y")"),
                    Delta("101", "deleted", "dir", "Docs")}))});
  std::vector<std::string> kinds;
  for (const Change& change : Changes(fs.get())) {
    kinds.push_back(std::string(Change::TypeName(change.type)) + " " + change.path + " " +
                    change.old_path);
  }
  const std::vector<std::string> expected = {"FILE_CREATE in ", "FOLDER_DELETE x ",
                                             "FOLDER_CREATE y ", "TOTAL_SIZE_SET  ",
                                             "FREE_SIZE_SET  "};
  EXPECT_EQ(kinds, expected);
}

// --- tree edits, the self-upload filter and the conflict rule -------------------------------

TEST_F(YandexFeedTest, OwnUploadsComeBackOnceAndAreSkipped) {
  const HashYandex hash = HashYandex::FromHexString(kMd5 + kSha);
  fs_->AddSelfUploadedFile("up.txt", {hash, 5});
  fs_->AddSelfUploadedFile("up.txt", {hash, 5});
  Change echo(Change::FILE_CREATE, "up.txt");
  echo.size = 5;
  echo.hash = SomeHash(hash);
  Change other = echo;
  other.size = 6;
  LoggerWrapper::Capture log;
  Apply({other});
  EXPECT_EQ(root_.GetFile("up.txt")->size, 6u);
  Apply({echo, echo});
  EXPECT_EQ(log.Count("Skip self change."), 2u);
  EXPECT_EQ(root_.GetFile("up.txt")->size, 6u);
  Apply({echo});
  EXPECT_EQ(root_.GetFile("up.txt")->size, 5u);
}

TEST_F(YandexFeedTest, TreeEditsKeepTheFreeSpace) {
  free_ = 100;
  Change create(Change::FILE_CREATE, "new/deep/x");
  create.size = 30;
  create.hash = SomeHash(HashYandex::FromHexString(kMd5 + kSha));
  Change again = create;
  Change grow = create;
  grow.type = Change::FILE_MODIFY;
  grow.size = 50;
  Apply({create, again});
  EXPECT_EQ(free_, 70u);
  Apply({grow});
  EXPECT_EQ(free_, 50u);
  Apply({Change(Change::FILE_OR_FOLDER_DELETE, "new"), Change(Change::FILE_DELETE, "no/such")});
  EXPECT_EQ(free_, 100u);
  EXPECT_EQ(root_.GetFolder("new"), nullptr);

  LoggerWrapper::Capture log;
  EXPECT_FALSE(
      fs_->ApplyRemoteChange(Change(Change::FILE_RENAME, "b.txt"), &root_, &free_, &total_));
  EXPECT_TRUE(log.Contains("Unexpected change type FILE_RENAME."));
  // A file where a folder is to be: logged, and a new tree is asked for.
  EXPECT_TRUE(
      fs_->ApplyRemoteChange(Change(Change::FOLDER_CREATE, "b.txt/sub"), &root_, &free_, &total_));
  EXPECT_TRUE(log.Contains("Failed to create folders."));
  EXPECT_TRUE(fs_->ShouldRenewTree());
}

TEST_F(YandexFeedTest, ConflictsThatLastAMinuteRenewTheTree) {
  RadarsLogger::Capture metrics;
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(fs_->NoteOperationResult(Result::CONFLICT), Result::CONFLICT);
    clock_.Advance(10'000);
  }
  EXPECT_FALSE(fs_->ShouldRenewTree());
  clock_.Advance(21'000);
  fs_->NoteOperationResult(Result::CONFLICT);
  EXPECT_TRUE(fs_->ShouldRenewTree());
  EXPECT_EQ(metrics.Count("yandex_inconsistent_remote_tree"), 1u);

  // A success in between starts the count again.
  FolderNode root;
  ASSERT_EQ(Tree(fs_.get(), &root), Result::SUCCEEDED);
  EXPECT_FALSE(fs_->ShouldRenewTree());
  for (int i = 0; i < 4; ++i) {
    fs_->NoteOperationResult(Result::CONFLICT);
  }
  EXPECT_EQ(fs_->NoteOperationResult(Result::SUCCEEDED), Result::SUCCEEDED);
  clock_.Advance(61'000);
  fs_->NoteOperationResult(Result::CONFLICT);
  fs_->NoteOperationResult(Result::CONFLICT);
  EXPECT_FALSE(fs_->ShouldRenewTree());
}

TEST_F(YandexTest, NoFeedBeforeASnapshot) {
  auto fs = Make();
  LoggerWrapper::Capture log;
  Changes(fs.get(), Result::FATAL);
  EXPECT_TRUE(server_.Requests().empty());
}

}  // namespace

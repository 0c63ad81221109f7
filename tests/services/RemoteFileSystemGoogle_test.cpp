// The Google adapter against the Drive emulator: the factory and its shared data, the adaptive
// rate limiter under the manual clock, the classification of Drive's answers, and the full tree
// of the whole drive or below a mounted root, awkward items included.
#include "services/RemoteFileSystemGoogle.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "core/CloudServiceId.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "services/GoogleDocs.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileSystemFactoryGoogle.h"
#include "services/RemoteFileSystemGoogleSharedData.h"
#include "services/RemoteGoogleUtils.h"
#include "support/GoogleDriveFixture.h"

namespace {

using emulators::FaultRule;
using emulators::Item;
using test::GoogleDrive;

RemoteFileSystemGoogleSharedData* Record(RemoteFileSystemFactory& factory) {
  return dynamic_cast<RemoteFileSystemGoogleSharedData*>(factory.GetSharedData().get());
}

std::string Md5Hex(const std::string& bytes) {
  return google::HashOfBytes(bytes).ToHexString();
}

TEST(GoogleFactoryTest, EntryMakesGoogleFactoryWhoseAdaptersShareOneRecord) {
  std::unique_ptr<RemoteFileSystemFactory> first(H6BA54F7D00(CloudServiceId::GOOGLE, ""));
  std::unique_ptr<RemoteFileSystemFactory> second(H6BA54F7D00(CloudServiceId::GOOGLE, ""));
  ASSERT_NE(dynamic_cast<RemoteFileSystemFactoryGoogle*>(first.get()), nullptr);
  std::unique_ptr<RemoteFileSystem> a(first->Create());
  std::unique_ptr<RemoteFileSystem> b(first->Create());
  EXPECT_EQ(a->GetServiceId(), CloudServiceId::GOOGLE);
  EXPECT_EQ(a->GetHashType(), SomeHash::GOOGLE);
  EXPECT_FALSE(a->IsCaseInsensitive());
  EXPECT_TRUE(a->SupportsChangesListening());
  // One record per factory, each store made once and never shared across factories.
  RemoteFileSystemGoogleSharedData* mine = Record(*first);
  RemoteFileSystemGoogleSharedData* theirs = Record(*second);
  ASSERT_NE(mine, nullptr);
  ASSERT_NE(theirs, nullptr);
  EXPECT_EQ(first->GetSharedData().use_count(), 4);  // the factory, two adapters, this call
  EXPECT_NE(mine->ids, theirs->ids);
  EXPECT_NE(mine->docs, theirs->docs);
  EXPECT_NE(mine->sessions, theirs->sessions);
  EXPECT_NE(mine->strings, theirs->strings);
  // Deleting the factory leaves the record to the adapters.
  std::weak_ptr<RemoteFileSystemSharedData> record = first->GetSharedData();
  first.reset();
  EXPECT_FALSE(record.expired());
  a.reset();
  b.reset();
  EXPECT_TRUE(record.expired());
}

TEST(GoogleFactoryTest, TwoAdaptersSeeTheTreeOneOfThemLoaded) {
  GoogleDrive drive;
  Item folder;
  drive.account().CreateFolder(drive.account().RootId(), "shared-tree", &folder);
  FolderNode root;
  ASSERT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
  std::unique_ptr<RemoteFileSystem> other(drive.factory->Create());
  EXPECT_EQ(Record(*drive.factory)->ids->GetFolderIdByPath("shared-tree"), folder.id);
}

// --- the rate limiter --------------------------------------------------------------------------

TEST(GoogleRateLimitTest, EveryGoodRequestAfterTheFifthHalvesThePauseDownToZero) {
  GoogleDrive drive;
  RadarsLogger::Capture metrics;
  const unsigned expected[] = {5, 5, 5, 5, 5, 2, 1, 0, 0};
  for (unsigned value : expected) {
    ASSERT_EQ(drive.fs->CheckConnection(), FileSystem::SUCCEEDED);
    EXPECT_EQ(drive.fs->RateLimiter().ValueSec(), value);
  }
  EXPECT_EQ(metrics.Count("rate_limit_down"), 4u);
  EXPECT_TRUE(drive.clock.Waits().empty());
}

TEST(GoogleRateLimitTest, RateLimitedRequestWaitsOnceThenDoublesOrHoldsAtTheCap) {
  struct Case {
    const char* name;
    unsigned min_sec;       // SetMinRateLimitValueSec before
    int good_requests;      // before the limited one
    std::int64_t wait_min;  // the one pause, in ms
    unsigned value_after;
    const char* metric;
  };
  const Case cases[] = {
      {"first limit", 5, 0, 6000, 10, "rate_limit_up"},
      {"after a quiet while", 5, 8, 1000, 0, "rate_limit_up"},
      {"at the cap", 1800, 0, 1801000, 1800, "rate_limit_max"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    GoogleDrive drive;
    drive.fs->SetMinRateLimitValueSec(c.min_sec);
    for (int i = 0; i < c.good_requests; ++i) {
      ASSERT_EQ(drive.fs->CheckConnection(), FileSystem::SUCCEEDED);
    }
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    drive.emulator->faults().Add(
        FaultRule::On("GET", "/drive/v3/files/root").Status(403).Error("userRateLimitExceeded"));
    EXPECT_EQ(drive.fs->CheckConnection(), FileSystem::FAILED);
    ASSERT_EQ(drive.clock.Waits().size(), 1u);
    EXPECT_GE(drive.clock.Waits()[0], c.wait_min);
    EXPECT_LE(drive.clock.Waits()[0], c.wait_min + 6000);
    EXPECT_EQ(drive.fs->RateLimiter().ValueSec(), c.value_after);
    EXPECT_EQ(metrics.Count("ggl_rate_limit"), 1u);
    EXPECT_EQ(metrics.Count(c.metric), 1u);
    EXPECT_EQ(log.Count("Got rate limit from Google, waiting..."), 1u);
    EXPECT_EQ(drive.fs->GetFailReason(), FileSystem::FAIL_REASON_RATE_LIMIT);
  }
}

TEST(GoogleRateLimitTest, SettingTheSameMinimumLeavesTheValue) {
  GoogleDrive drive;
  for (int i = 0; i < 6; ++i) {
    drive.fs->CheckConnection();
  }
  ASSERT_EQ(drive.fs->RateLimiter().ValueSec(), 2u);
  drive.fs->SetMinRateLimitValueSec(5);
  EXPECT_EQ(drive.fs->RateLimiter().ValueSec(), 2u);
  drive.fs->SetMinRateLimitValueSec(30);
  EXPECT_EQ(drive.fs->RateLimiter().ValueSec(), 30u);
  EXPECT_EQ(drive.fs->RateLimiter().MinValueSec(), 30u);
}

// --- answers -----------------------------------------------------------------------------------

std::string DriveError(int code, const std::string& reason, const std::string& message) {
  QJsonObject detail{
      {"domain", "global"}, {"reason", reason.c_str()}, {"message", message.c_str()}};
  QJsonObject error{{"errors", QJsonArray{detail}}, {"code", code}, {"message", message.c_str()}};
  return QJsonDocument(QJsonObject{{"error", error}}).toJson(QJsonDocument::Compact).toStdString();
}

TEST(GoogleRequestTest, EachAnswerGetsItsResultAndLogLine) {
  struct Case {
    const char* name;
    int status;
    std::string body;
    FileSystem::Result result;
    bool rate_limited;
    const char* log;
  };
  const Case cases[] = {
      {"good", 200, R"({"id":"r"})", FileSystem::SUCCEEDED, false, nullptr},
      {"token refused", 401, DriveError(401, "authError", "Invalid Credentials"),
       FileSystem::FORBIDDEN, false, "Invalid authorization (token not accepted)."},
      {"401 of another kind", 401, R"({"error":"expired"})", FileSystem::FORBIDDEN, false,
       "Recieved 401 http code."},
      {"bad request", 400, DriveError(400, "invalid", "Invalid Value"), FileSystem::FAILED, false,
       "Recieved 400 http code (invalid request)."},
      {"403 rate limit", 403, DriveError(403, "userRateLimitExceeded", "User Rate Limit Exceeded"),
       FileSystem::FAILED, true, "Got rate limit from Google, waiting..."},
      {"403 without a limit", 403, DriveError(403, "insufficientFilePermissions", "No."),
       FileSystem::FAILED, false, "Failed request: FORBIDDEN"},
      {"429", 429, DriveError(429, "rateLimitExceeded", "Rate Limit Exceeded"), FileSystem::FAILED,
       true, "Got rate limit from Google, waiting..."},
      {"not found", 404, DriveError(404, "notFound", "File not found: x."), FileSystem::FAILED,
       false, "Failed request: NOT_FOUND"},
      {"server error", 500, DriveError(500, "backendError", "Backend Error"), FileSystem::FAILED,
       false, "Failed request: HTTP_FAILED"},
      {"HTML gateway page", 502, "<html><body>502 Bad Gateway</body></html>", FileSystem::FAILED,
       false, "Failed request: HTTP_FAILED"},
      {"empty body", 200, "", FileSystem::FAILED, false, "Failed to read response."},
      {"truncated JSON", 200, R"({"id":"ab)", FileSystem::FAILED, false,
       "Failed to read response."},
  };
  emulators::HttpServer server;
  Endpoints::Override(Endpoints::kGoogleDrive, server.BaseUrl());
  auto http = CurlURLProcessorFactory(std::make_shared<core::cookie::CookieOAuth>("t")).Create();
  ASSERT_TRUE(http->Open(nullptr));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    server.Handle("GET", "/drive/v3/files/root", [&c](const emulators::HttpRequest&) {
      return emulators::HttpResponse::Status(c.status, c.body);
    });
    LoggerWrapper::Capture log;
    utils::json::json_tree json;
    URLProcessorResult url_result;
    bool rate_limited = false;
    EXPECT_EQ(GoogleRequest("/files/root", "id", http.get(), &json, &url_result, &rate_limited),
              c.result);
    EXPECT_EQ(rate_limited, c.rate_limited);
    if (c.log) {
      EXPECT_TRUE(log.Contains(c.log)) << c.log;
    }
  }
  EXPECT_EQ(server.Requests().back().query, "fields=id");
  Endpoints::ResetOverrides();
}

TEST(GoogleRequestTest, FailuresOfOtherRequestsMapToTheirResults) {
  struct Case {
    int status;
    FileSystem::Result result;
    const char* log;
  };
  const Case cases[] = {
      {204, FileSystem::SUCCEEDED, nullptr},
      {401, FileSystem::FORBIDDEN, "Authorization failed."},
      {404, FileSystem::CONFLICT, "Not found."},
      {403, FileSystem::ACCESS_DENIED,
       "Last command seems to be failed because of permissions violation."},
      {500, FileSystem::FAILED, "Failed: HTTP_FAILED, code 500."},
  };
  emulators::HttpServer server;
  auto http = CurlURLProcessorFactory(std::make_shared<core::cookie::CookieOAuth>("t")).Create();
  ASSERT_TRUE(http->Open(nullptr));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    server.Handle("DELETE", "/x", [&c](const emulators::HttpRequest&) {
      return emulators::HttpResponse::Status(c.status);
    });
    URLProcessor::Request request;
    request.verb = "DELETE";
    request.url = DispatcherUrl::FromString(server.BaseUrl() + "/x");
    http->Send(request);
    URLProcessorResult url_result = http->Finish();
    LoggerWrapper::Capture log;
    EXPECT_EQ(MapGoogleFailure(http.get(), url_result), c.result);
    if (c.log) {
      EXPECT_TRUE(log.Contains(c.log)) << c.log;
    }
  }
}

// A listing whose "files" is not an array: an object is an empty page, a text no page at all.
TEST(GoogleRequestTest, MalformedListingsEndTheTreeCleanly) {
  struct Case {
    const char* files;
    FileSystem::Result result;
  };
  const Case cases[] = {{"{}", FileSystem::SUCCEEDED}, {"\"x\"", FileSystem::FAILED}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.files);
    GoogleDrive drive;
    drive.emulator->server().Handle("GET", "/drive/v3/files", [&c](const emulators::HttpRequest&) {
      return emulators::HttpResponse::Status(200, std::string(R"({"files":)") + c.files + "}");
    });
    LoggerWrapper::Capture log;
    FolderNode root;
    EXPECT_EQ(drive.GetFullTree(&root), c.result);
    EXPECT_EQ(log.Contains("No files in response."), c.result == FileSystem::FAILED);
    EXPECT_TRUE(root.IsEmpty());
  }
}

// --- the tree ----------------------------------------------------------------------------------

TEST(GoogleTreeTest, LargeDriveOverForcedPagesEqualsTheAccount) {
  GoogleDrive drive;
  emulators::CloudAccount& account = drive.account();
  std::vector<std::string> folders{account.RootId()};
  for (int i = 0; i < 200; ++i) {
    Item folder;
    account.CreateFolder(folders[i / 3], "folder " + std::to_string(i), &folder);
    folders.push_back(folder.id);
  }
  for (int i = 0; i < 1800; ++i) {
    account.CreateFile(folders[i % folders.size()], "file-" + std::to_string(i) + ".txt",
                       "content " + std::to_string(i), 1700000000000, nullptr);
  }
  drive.dialect->SetMaxPageSize(700);
  drive.dialect->SetEmptyPages(true);
  LoggerWrapper::Capture log;
  RadarsLogger::Capture metrics;
  FolderNode root;
  ASSERT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
  EXPECT_EQ(test::TreeLines(root), test::AccountLines(account));
  // The id tree names every item by the same path.
  auto ids = Record(*drive.factory)->ids;
  for (const Item& item : account.AllItems()) {
    if (item.id != account.RootId()) {
      EXPECT_EQ(ids->GetPathById(item.id).value_or("?"), account.PathOf(item.id));
    }
  }
  EXPECT_EQ(drive.CountRequests("/drive/v3/files"), 6);  // 3 pages, each after an empty one
  EXPECT_TRUE(log.Contains(
      "Full tree download completed, there are 200 folders and 1800 files + 0 trashed items."));
  EXPECT_TRUE(log.Contains("Google drive snapshot requests count: 6"));
  ASSERT_EQ(metrics.Count("google_drive_size"), 1u);
  for (const auto& metric : metrics.Metrics()) {
    if (metric.name == "google_drive_size") {
      EXPECT_EQ(metric.value, "2000");
    }
  }
  // The request as Drive documents it, with the listing's fields.
  const auto requests = drive.emulator->server().Requests();
  for (const auto& request : requests) {
    if (request.path == "/drive/v3/files") {
      EXPECT_EQ(emulators::QueryParam(request.query, "pageSize"), "999");
      EXPECT_EQ(emulators::QueryParam(request.query, "orderBy"), "folder");
      EXPECT_FALSE(emulators::HasQueryParam(request.query, "q"));
    }
  }
  EXPECT_NE(requests.front().Header("User-Agent").find(" (gzip)"), std::string::npos);
}

class GoogleDemoTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    emulators::GoogleDialect::SeedDemoDrive(drive_.account());
    drive_.dialect->SetMaxPageSize(3);
  }
  std::string IdOf(const std::string& path) { return drive_.account().FindByPath(path)->id; }

  GoogleDrive drive_;
};

TEST_F(GoogleDemoTreeTest, AwkwardItemsLandAsTheClientShowsThem) {
  LoggerWrapper::Capture log;
  RadarsLogger::Capture metrics;
  FolderNode root;
  ASSERT_EQ(drive_.GetFullTree(&root), FileSystem::SUCCEEDED);
  std::map<std::string, std::string> lines = test::TreeLines(root);
  auto ids = Record(*drive_.factory)->ids;
  const std::string shared = RemoteFileSystemGoogle::kExternalItemsFolderName;
  // Two parents: under the first only, with one line.
  EXPECT_EQ(lines.count("Photos/both.jpg"), 1u);
  EXPECT_EQ(lines.count("Docs/both.jpg"), 0u);
  EXPECT_EQ(log.Count("Detected item with more then one parent."), 1u);
  // A folder listed pages before its parent is adopted with its content.
  EXPECT_EQ(lines.count("late/early/inside-early.txt"), 1u);
  // Same names and a file beside a folder of its name get free names, mapped in the id tree.
  EXPECT_EQ(lines.count("Docs/twin.txt"), 1u);
  ASSERT_EQ(lines.count("Docs/twin (1).txt"), 1u);
  std::string second_twin = ids->GetFileIdByPath("Docs/twin (1).txt");
  EXPECT_EQ(ids->MappedGetOriginalName(second_twin), "twin.txt");
  EXPECT_EQ(lines.count("Docs/clash/"), 1u);
  EXPECT_EQ(lines.count("Docs/clash (1)"), 1u);
  // Without an MD5: the zero hash, a metric and a line.
  EXPECT_EQ(lines["Docs/no-md5.dat"], "15 " + std::string(32, '0'));
  EXPECT_EQ(metrics.Count("google_no_md5_hash_in_file"), 1u);
  EXPECT_TRUE(log.Contains("No md5 hash in file."));
  // The owned file without parent is dropped, the orphan vanishes without an error.
  EXPECT_EQ(lines.count("parentless.txt"), 0u);
  EXPECT_TRUE(log.Contains("Parentless item detected with id=" + IdOf("parentless.txt")));
  EXPECT_FALSE(ids->GetPathById(drive_.account().FindByPath("someone else's/orphan.txt")->id));
  EXPECT_TRUE(log.Contains("There are some items still without parent."));
  // Shared with the account: under the emulated folder, which takes no changes.
  EXPECT_EQ(lines.count(shared + "/gift.txt"), 1u);
  EXPECT_EQ(root.GetFolder(shared)->GetReadonly(), FolderNode::kReadonlyLocked);
  EXPECT_TRUE(root.GetFolder(shared)->GetFile("gift.txt")->IsReadonly());
  // A Google document: a read-only shortcut holding its link.
  std::string link =
      "https://docs.google.com/document/d/" + IdOf("Docs/Report") + "/edit?usp=drivesdk";
  FileNode* report = root.GetFolder("Docs")->GetFile("Report.url");
  ASSERT_NE(report, nullptr);
  EXPECT_EQ(report->size, 23 + link.size());
  EXPECT_EQ(report->hash.ToHexString(), Md5Hex(link));
  EXPECT_TRUE(report->IsReadonly());
  EXPECT_EQ(Record(*drive_.factory)->docs->ShortcutContent(IdOf("Docs/Report")),
            "[InternetShortcut]\nURL=" + link);
  // The resource key is kept for the requests that name the item.
  std::string keyed = IdOf("Docs/keyed.pdf");
  EXPECT_EQ(drive_.fs->ResourceKeys().BuildHeader({"unknown", keyed}),
            "X-Goog-Drive-Resource-Keys: " + keyed + "/0-keyOfKeyed");
  EXPECT_EQ(log.LinesAtLevel(LogType::kFatal).size(), 0u);
}

TEST_F(GoogleDemoTreeTest, WithoutSharedDataOnlyOwnItemsAreAskedForAndShown) {
  FolderNode root;
  ASSERT_EQ(drive_.GetFullTree(&root, false), FileSystem::SUCCEEDED);
  EXPECT_EQ(root.GetFolder(RemoteFileSystemGoogle::kExternalItemsFolderName), nullptr);
  for (const auto& request : drive_.emulator->server().Requests()) {
    if (request.path == "/drive/v3/files") {
      EXPECT_EQ(emulators::QueryParam(request.query, "q"), "'me' in owners");
    }
  }
}

TEST(GoogleTreeTest, RootedTreeAsksSixteenParentsAtMostPerListing) {
  const std::string mounted = "Jane's Åpfel/Ünder";
  GoogleDrive drive(mounted);
  emulators::CloudAccount& account = drive.account();
  Item quoted, under, outside;
  account.CreateFolder(account.RootId(), "Jane's Åpfel", &quoted);
  account.CreateFolder(quoted.id, "Ünder", &under);
  account.CreateFile(account.RootId(), "outside.txt", "not below the root", 0, &outside);
  for (int i = 0; i < 40; ++i) {
    Item folder;
    account.CreateFolder(under.id, "sub " + std::to_string(i), &folder);
    account.CreateFile(folder.id, "f.txt", "in " + std::to_string(i), 0, nullptr);
  }
  FolderNode root;
  ASSERT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
  EXPECT_EQ(test::TreeLines(root), test::AccountLines(account, mounted));
  EXPECT_EQ(Record(*drive.factory)->ids->GetRootId(), under.id);
  EXPECT_EQ(drive.fs->RootAncestors().count(quoted.id), 1u);
  // Two lookups by name, then the root's batch and 40 subfolders in batches of 16, 16 and 8.
  int lookups = 0;
  int listings = 0;
  for (const auto& request : drive.emulator->server().Requests()) {
    if (request.path != "/drive/v3/files") {
      continue;
    }
    std::string q = emulators::QueryParam(request.query, "q");
    if (q.find("name=") != std::string::npos) {
      ++lookups;
      continue;
    }
    ++listings;
    std::size_t parents = 0;
    for (std::size_t at = q.find("in parents"); at != std::string::npos;
         at = q.find("in parents", at + 1)) {
      ++parents;
    }
    EXPECT_LE(parents, 16u);
  }
  EXPECT_EQ(lookups, 2);
  EXPECT_EQ(listings, 4);
}

TEST(GoogleTreeTest, MissingRootComponentFailsAndKeepsThePreviousTree) {
  GoogleDrive drive("Docs/nope");
  Item docs;
  drive.account().CreateFolder(drive.account().RootId(), "Docs", &docs);
  auto ids = Record(*drive.factory)->ids;
  ids->Init("previous-root");
  LoggerWrapper::Capture log;
  FolderNode root;
  EXPECT_EQ(drive.GetFullTree(&root), FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("Failed to get path component id, not found."));
  EXPECT_EQ(ids->GetRootId(), "previous-root");
  EXPECT_EQ(drive.CountRequests("/drive/v3/files"), 2);
}

TEST(GoogleTreeTest, OpenRefusesARootInsideTheSharedItemsFolder) {
  GoogleDrive drive(RemoteFileSystemGoogle::kExternalItemsFolderName + "/x");
  EXPECT_FALSE(drive.opened);
  EXPECT_TRUE(drive.emulator->server().Requests().empty());
}

// The prefix of the listing also takes "/files/root", the first request of a tree: the faults
// below count it.
TEST(GoogleTreeTest, BrokenPageIsAskedAgainEveryTwoSecondsUntilItComes) {
  struct Case {
    const char* name;
    bool reset;
  };
  for (const Case& c : {Case{"cut body", false}, Case{"reset", true}}) {
    SCOPED_TRACE(c.name);
    GoogleDrive drive;
    for (int i = 0; i < 30; ++i) {
      drive.account().CreateFile(drive.account().RootId(), std::to_string(i), "x", 0, nullptr);
    }
    drive.dialect->SetMaxPageSize(10);
    // Page 2, three times.
    drive.emulator->faults().Add(FaultRule::On("GET", "/drive/v3/files")
                                     .Nth(3)
                                     .Times(3)
                                     .CutAfter(c.reset ? 0 : 40)
                                     .Reset(c.reset));
    FolderNode root;
    ASSERT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
    EXPECT_EQ(test::TreeLines(root), test::AccountLines(drive.account()));
    std::vector<std::int64_t> waits = drive.clock.Waits();
    // curl tries a reset reused connection once more by itself, which may take one of the three.
    EXPECT_GE(waits.size(), c.reset ? 2u : 3u);
    EXPECT_EQ(std::count(waits.begin(), waits.end(), 2000), static_cast<long>(waits.size()));
  }
}

TEST(GoogleTreeTest, RateLimitedPageIsAskedAgainAfterThePause) {
  GoogleDrive drive;
  drive.account().CreateFile(drive.account().RootId(), "a", "x", 0, nullptr);
  drive.emulator->faults().Add(FaultRule::On("GET", "/drive/v3/files")
                                   .Nth(2)
                                   .Status(429)
                                   .Error("rateLimitExceeded")
                                   .RetryAfter(3));
  FolderNode root;
  ASSERT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
  EXPECT_NE(root.GetFile("a"), nullptr);
  EXPECT_EQ(drive.clock.Waits().size(), 1u);
}

TEST(GoogleTreeTest, StopDuringThePageRetriesAnswersStopped) {
  GoogleDrive drive;
  drive.emulator->faults().Add(FaultRule::On("GET", "/drive/v3/files").Nth(2).Times(0).Reset());
  int waits = 0;
  drive.clock.SetOnWait([&](std::int64_t) {
    if (++waits == 3) {
      drive.fs->Stop();
    }
  });
  FolderNode root;
  EXPECT_EQ(drive.GetFullTree(&root), FileSystem::STOPPED);
  EXPECT_EQ(waits, 3);
}

TEST(GoogleTreeTest, StartTokenFailureKeepsThePreviousIdsAndDocs) {
  GoogleDrive drive;
  emulators::GoogleDialect::SeedDemoDrive(drive.account());
  FolderNode first;
  ASSERT_EQ(drive.GetFullTree(&first), FileSystem::SUCCEEDED);
  auto record = Record(*drive.factory);
  std::size_t docs_before = record->docs->Count();
  Item later;
  drive.account().CreateFile(drive.account().RootId(), "later.txt", "new", 0, &later);
  drive.emulator->faults().Add(
      FaultRule::On("GET", "/drive/v3/changes/startPageToken").Status(500));
  LoggerWrapper::Capture log;
  FolderNode second;
  EXPECT_EQ(drive.GetFullTree(&second), FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("Failed to get changes token."));
  EXPECT_FALSE(record->ids->GetPathById(later.id));
  EXPECT_EQ(record->ids->GetFileIdByPath("Docs/readme.txt"),
            drive.account().FindByPath("Docs/readme.txt")->id);
  EXPECT_EQ(record->docs->Count(), docs_before);
  EXPECT_TRUE(second.IsEmpty());
}

TEST(GoogleTreeTest, HostileNamesStayOnTheServer) {
  GoogleDrive drive;
  emulators::CloudAccount& account = drive.account();
  for (const std::string& name :
       {std::string(".."), std::string("a/b"), std::string("x\0y", 3), std::string(10000, 'n')}) {
    account.CreateFile(account.RootId(), name, "hostile", 0, nullptr);
  }
  LoggerWrapper::Capture log;
  FolderNode root;
  ASSERT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
  EXPECT_TRUE(test::TreeLines(root).empty());
  EXPECT_EQ(log.Count("Skipping item with a name the disk can't hold"), 4u);
}

}  // namespace

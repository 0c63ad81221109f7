// The Dropbox adapter against the Dropbox dialect of the emulator (and, for answers the emulator
// would never give, a plain test server): the error table, the snapshot, the feed, the file
// operations with their self-made echoes, shared links and thumbnails.
#include "services/RemoteFileSystemDropbox.h"

#include <gtest/gtest.h>

#include <QImage>

#include <chrono>
#include <thread>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "emulators/HttpServer.h"
#include "services/RemoteDropboxUtils.h"
#include "services/RemoteFileSystemFactoryDropbox.h"
#include "support/DropboxTesting.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;

std::vector<HttpRequest> RequestsTo(emulators::Emulator& emulator, const std::string& path) {
  std::vector<HttpRequest> found;
  for (const HttpRequest& request : emulator.server().Requests()) {
    if (request.path == path)
      found.push_back(request);
  }
  return found;
}

// An adapter whose API host is a plain server answering every RPC with `answer`.
struct CannedAnswer {
  explicit CannedAnswer(std::function<HttpResponse(const HttpRequest&)> answer,
                        const std::string& root = std::string()) {
    server.Handle("*", "/2/", answer, emulators::Match::kPrefix);
    Endpoints::Override(Endpoints::kDropboxApi, server.BaseUrl());
    Endpoints::Override(Endpoints::kDropboxNotify, server.BaseUrl());
    adapter = std::make_unique<RemoteFileSystemDropbox>(
        std::make_shared<RemoteFileSystemDropboxSharedData>(), root);
    EXPECT_TRUE(adapter->Open(std::make_shared<CurlURLProcessorFactory>(
        std::make_shared<core::cookie::CookieOAuth>("token"))));
  }
  ~CannedAnswer() { Endpoints::ResetOverrides(); }

  utils::ManualClock clock;
  utils::ScopedClock scoped{&clock};
  emulators::HttpServer server;
  std::unique_ptr<RemoteFileSystemDropbox> adapter;
};

HttpResponse Answer(int status, const std::string& type, const std::string& body) {
  HttpResponse response = HttpResponse::Status(status, body);
  if (!type.empty())
    response.headers = {{"Content-Type", type}};
  return response;
}

TEST(DropboxRpcTest, EveryAnswerMapsToItsResultLogLineMetricAndWait) {
  struct Case {
    int status;
    const char* type;
    const char* body;
    FileSystem::Result result;
    const char* line;
    std::vector<std::int64_t> waits;
    std::size_t rate_metrics;
  };
  const char* kJson = "application/json";
  const Case cases[] = {
      {401,
       kJson,
       R"({"error_summary":"invalid_access_token/.."})",
       FileSystem::AUTH_INVALID,
       "Dropbox RPC returned authorization error.",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"path/not_found/.."})",
       FileSystem::CONFLICT,
       "returned endpoint error: path/not_found/..: no_message",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"path/not_file/"})",
       FileSystem::CONFLICT,
       "not_file",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"path/conflict/folder/"})",
       FileSystem::CONFLICT,
       "conflict",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"path/no_write_permission/"})",
       FileSystem::ACCESS_DENIED,
       "no_write_permission",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"path/insufficient_space/"})",
       FileSystem::NO_SPACE,
       "insufficient_space",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"email_not_verified/"})",
       FileSystem::FAILED,
       "email_not_verified",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"path/disallowed_name/"})",
       FileSystem::BADNAM,
       "disallowed_name",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"restricted_content/"})",
       FileSystem::BLOCKED,
       "restricted_content",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"path/malformed_path/"})",
       FileSystem::BADNAM,
       "malformed_path",
       {},
       0},
      // Combined summaries: the last row of the table that hits wins.
      {409,
       kJson,
       R"({"error_summary":"insufficient_space/conflict/"})",
       FileSystem::NO_SPACE,
       "insufficient_space/conflict",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"malformed_path/restricted_content"})",
       FileSystem::BADNAM,
       "malformed_path/restricted_content",
       {},
       0},
      {409,
       kJson,
       R"({"error_summary":"too_many_write_operations/.."})",
       FileSystem::FAILED,
       "Encountered too many write operation, waiting for a second...",
       {1000},
       0},
      {409,
       kJson,
       R"({"error_summary":"","error_message":""})",
       FileSystem::FAILED,
       "Full json response was: ",
       {},
       0},
      {429,
       kJson,
       R"({"error":{"reason":{".tag":"too_many_requests"},"retry_after":300}})",
       FileSystem::FAILED,
       "Waiting for 180seconds.",
       {180000},
       1},
      {429,
       kJson,
       R"({"error":{"retry_after":0}})",
       FileSystem::FAILED,
       "Waiting for one second.",
       {1000},
       1},
      {429,
       kJson,
       R"({"error_summary":"too_many_requests/.."})",
       FileSystem::FAILED,
       "Waiting for one second.",
       {1000},
       1},
      {429, kJson, R"({"retry_after":7})", FileSystem::FAILED, "Waiting for 7seconds.", {7000}, 1},
      {429,
       "text/plain",
       "Too Many Requests",
       FileSystem::FAILED,
       "Got not json but: Too Many",
       {1000},
       1},
      {200,
       "application/json; charset=utf-8",
       "{}",
       FileSystem::FATAL,
       "Got not json but: {}",
       {},
       0},
      {503,
       "text/html",
       "<html>busy</html>",
       FileSystem::FAILED,
       "Got not json but: <html>",
       {},
       0},
      {200, kJson, "", FileSystem::FAILED, "Failed reading response from dropbox. Result: ", {}, 0},
      {200,
       kJson,
       R"({"metadata":{"name":)",
       FileSystem::FAILED,
       "Failed parsing dropbox response json. Dropbox sent: \n{",
       {},
       0},
      {500,
       kJson,
       "{}",
       FileSystem::FAILED,
       "failed for unknown reason with HTTP status code: 500.",
       {},
       0},
  };
  for (const Case& c : cases) {
    CannedAnswer canned([&c](const HttpRequest&) { return Answer(c.status, c.type, c.body); });
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    EXPECT_EQ(canned.adapter->CreateFolderImpl(FileSystem::OverwriteControl(), "a"), c.result)
        << c.body;
    EXPECT_TRUE(log.Contains(c.line)) << c.body;
    EXPECT_EQ(canned.clock.Waits(), c.waits) << c.body;
    EXPECT_EQ(metrics.Count("dropbox_too_many_requests"), c.rate_metrics) << c.body;
    EXPECT_FALSE(log.Contains("Skipping")) << c.body;
  }
}

TEST(DropboxRpcTest, TheMetainfoReadingOfFailuresIsReduced) {
  struct Case {
    int status;
    const char* body;
    FileSystem::Result result;
  };
  const Case cases[] = {
      {401, R"({"error_summary":"expired_access_token/"})", FileSystem::AUTH_INVALID},
      {429, R"({"error":{"retry_after":300}})", FileSystem::FAILED},
      {409, R"({"error_summary":"path/not_found/"})", FileSystem::CONFLICT},
      {409, R"({"error_summary":"path/malformed_path/"})", FileSystem::FAILED},
      {409, R"({"error_summary":"insufficient_space/"})", FileSystem::FAILED},
      {500, R"({"error_summary":"other/"})", FileSystem::SUCCEEDED},
      {404, R"({})", FileSystem::SUCCEEDED},
  };
  for (const Case& c : cases) {
    emulators::HttpServer server;
    server.Handle("POST", "/x", [&c](const HttpRequest&) {
      return Answer(c.status, "application/json", c.body);
    });
    auto client =
        CurlURLProcessorFactory(std::make_shared<core::cookie::CookieOAuth>("t")).Create();
    ASSERT_TRUE(client->Open(nullptr));
    URLProcessor::Request request;
    request.verb = "POST";
    request.url = DispatcherUrl::FromString(server.BaseUrl() + "/x");
    client->Send(request);
    utils::json::json_tree json;
    URLProcessor::Result transport;
    const FileSystem::Result parsed = ParseRpcResponse(&json, client, &transport);
    utils::ManualClock clock;
    utils::ScopedClock scoped(&clock);
    EXPECT_EQ(parsed == FileSystem::SUCCEEDED ? GetRpcError(json, client) : parsed, c.result)
        << c.body;
    EXPECT_TRUE(clock.Waits().empty());
  }
}

TEST(DropboxRpcTest, StopEndsARealRetryAfterWaitAndAnswersStopped) {
  emulators::HttpServer server;
  server.Handle(
      "*", "/2/",
      [](const HttpRequest&) {
        return Answer(429, "application/json", R"({"error":{"retry_after":300}})");
      },
      emulators::Match::kPrefix);
  Endpoints::Override(Endpoints::kDropboxApi, server.BaseUrl());
  RemoteFileSystemDropbox adapter(std::make_shared<RemoteFileSystemDropboxSharedData>(), "");
  ASSERT_TRUE(adapter.Open(std::make_shared<CurlURLProcessorFactory>(
      std::make_shared<core::cookie::CookieOAuth>("token"))));
  std::chrono::steady_clock::time_point stopped_at;
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stopped_at = std::chrono::steady_clock::now();
    adapter.Stop();
  });
  EXPECT_EQ(adapter.CreateFolderImpl(FileSystem::OverwriteControl(), "a"), FileSystem::STOPPED);
  auto late = std::chrono::steady_clock::now() - stopped_at;
  stopper.join();
  EXPECT_LT(late, std::chrono::milliseconds(100));
  EXPECT_EQ(adapter.CreateFolderImpl(FileSystem::OverwriteControl(), "b"), FileSystem::STOPPED);
  Endpoints::ResetOverrides();
}

TEST(DropboxRpcTest, ArgumentHeaderEscapesEverythingBeyondAscii) {
  EXPECT_EQ(MakeApiArgHeaders(R"({"path":"/a b/Ä€😀\u007f"})"),
            std::vector<std::string>{
                R"(Dropbox-API-Arg: {"path":"/a b/\u00c4\u20ac\ud83d\ude00\u007f"})"});
}

// --- snapshot --------------------------------------------------------------------------------

// 500 folders in a few levels, ten files each, names from three scripts with the characters
// that trip URL and JSON handling, and names that differ only in case in different folders.
void GenerateAccount(emulators::CloudAccount& account) {
  const char* const kNames[] = {"Report", "отчёт", "報告", "Name With Space", "hash#tag",
                                "100%",   "a&b",   "c+d",  ".hidden",         "NAME"};
  std::vector<std::string> folders{account.RootId()};
  for (int i = 0; i < 500; ++i) {
    emulators::Item folder;
    const std::string parent = folders[static_cast<std::size_t>(i / 10)];
    ASSERT_EQ(account.CreateFolder(parent, std::string(kNames[i % 10]) + " " + std::to_string(i),
                                   &folder),
              emulators::AccountError::kNone);
    folders.push_back(folder.id);
    for (int f = 0; f < 10; ++f) {
      std::string name = (f % 2 ? "name" : "NAME") + std::to_string(f / 2) + "." + kNames[f];
      ASSERT_EQ(account.CreateFile(folder.id, name, "content " + std::to_string(i * 10 + f),
                                   1600000000000 + i * 1000, nullptr),
                emulators::AccountError::kNone);
    }
  }
}

TEST(DropboxSnapshotTest, AGeneratedAccountComesDownItemByItemOverSmallPages) {
  DropboxFixture fixture(std::string(), 50);
  GenerateAccount(fixture.account());
  EXPECT_EQ(fixture.adapter().GetFirstSnapshotProgress(), 0.0);
  LoggerWrapper::Capture log;
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  fixture.ExpectTreeMatchesAccount();
  EXPECT_EQ(fixture.adapter().GetFirstSnapshotProgress(), 1.0);
  EXPECT_TRUE(log.Contains("Dropbox contains 5000 files and 500 folders."));
  EXPECT_EQ(fixture.total_, fixture.account().TotalSpace());
  EXPECT_EQ(fixture.free_, fixture.account().TotalSpace() - fixture.account().UsedSpace());
  auto first = RequestsTo(fixture.emulator(), "/api/2/files/list_folder");
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].body, R"({"path": "","recursive": true,"limit": 1999})");
  EXPECT_EQ(first[0].Header("Content-Type"), "application/json");
  // Each page after the first asks with the cursor the previous page gave: no cursor repeats.
  auto next = RequestsTo(fixture.emulator(), "/api/2/files/list_folder/continue");
  EXPECT_EQ(next.size(), 5500u / 50 - 1);
  std::set<std::string> cursors;
  for (const HttpRequest& request : next) {
    EXPECT_EQ(request.body.compare(0, 11, R"({"cursor":")"), 0);
    cursors.insert(request.body);
  }
  EXPECT_EQ(cursors.size(), next.size());
}

TEST(DropboxSnapshotTest, ARemoteRootIsStrippedAndAMissingOneIsAConflict) {
  {
    DropboxFixture fixture("Root Dir");
    std::string error;
    for (const char* path : {"Root Dir/a.txt", "Root Dir/sub/b.txt", "Other/c.txt"}) {
      ASSERT_TRUE(
          emulators::ApplyForeignChange(fixture.account(), {"create", path, "", path}, &error));
    }
    ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
    fixture.ExpectTreeMatchesAccount("Root Dir");
    EXPECT_EQ(RequestsTo(fixture.emulator(), "/api/2/files/list_folder")[0].body,
              R"({"path": "/Root Dir","recursive": true,"limit": 1999})");
  }
  DropboxFixture missing("Nowhere");
  LoggerWrapper::Capture log;
  EXPECT_EQ(missing.LoadTree(), FileSystem::CONFLICT);
  EXPECT_TRUE(log.Contains("Failed initiating folder listing: CONFLICT"));
}

TEST(DropboxSnapshotTest, BadPagesGiveTheirLines) {
  struct Case {
    const char* page;
    FileSystem::Result result;
    const char* line;
  };
  const Case cases[] = {
      {R"({"entries":[],"has_more":false})", FileSystem::FATAL, "No cursor in list folder reply."},
      {R"({"cursor":"c","has_more":false})", FileSystem::FATAL, "No entries in list folder reply."},
      {R"({"cursor":"c","entries":[{".tag":"file","path_display":""}]})", FileSystem::SUCCEEDED,
       "Invalid empty path."},
      {R"({"cursor":"c","entries":[{".tag":"symlink","path_display":"/Root/x"}]})",
       FileSystem::SUCCEEDED, "Unknown item type in entries."},
      {R"({"cursor":"c","entries":[{".tag":"file","path_display":"/Elsewhere/x","size":1}]})",
       FileSystem::FATAL, "Invalid path outside requested dir \"Elsewhere/x\"."},
      {R"({"cursor":"c","entries":[{".tag":"file","path_display":"/Root/../x","size":1}]})",
       FileSystem::SUCCEEDED, "Invalid entry."},
      {R"({"cursor":"c","entries":[{".tag":"file","path_display":"/Root/x","size":"huge"}]})",
       FileSystem::SUCCEEDED, "Invalid entry."},
  };
  for (const Case& c : cases) {
    CannedAnswer canned(
        [&c](const HttpRequest& request) {
          if (request.path == "/2/users/get_space_usage")
            return Answer(200, "application/json", R"({"used":1,"allocation":{"allocated":10}})");
          if (request.path == "/2/sharing/list_shared_links")
            return Answer(200, "application/json", R"({"links":[]})");
          return Answer(200, "application/json", c.page);
        },
        "Root");
    LoggerWrapper::Capture log;
    FolderNode root;
    std::uint64_t free = 0;
    std::uint64_t total = 0;
    EXPECT_EQ(canned.adapter->GetFullTree(&root, &free, &total, nullptr), c.result) << c.page;
    EXPECT_TRUE(log.Contains(c.line)) << c.page;
    EXPECT_EQ(root.FileCount(), 0u);
  }
}

TEST(DropboxSnapshotTest, AFailedPageIsAskedAgainAfterTwoSeconds) {
  DropboxFixture fixture(std::string(), 2);
  std::string error;
  for (const char* path : {"a/1", "a/2", "b/3", "4"})
    emulators::ApplyForeignChange(fixture.account(), {"create", path, "", path}, &error);
  fixture.emulator().faults().Add(
      emulators::FaultRule::On("", "/api/2/files/list_folder/continue").Status(500));
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  EXPECT_EQ(fixture.clock().Waits(), std::vector<std::int64_t>{2000});
  fixture.ExpectTreeMatchesAccount();
}

TEST(DropboxSnapshotTest, ZeroQuotaFailsBeforeAnyListing) {
  DropboxFixture fixture;
  fixture.account().SetTotalSpace(0);
  EXPECT_EQ(fixture.LoadTree(), FileSystem::FATAL);
  EXPECT_TRUE(RequestsTo(fixture.emulator(), "/api/2/files/list_folder").empty());
}

// --- feed ------------------------------------------------------------------------------------

TEST(DropboxFeedTest, ForeignChangesArriveAndTheTreeFollowsTheAccount) {
  DropboxFixture fixture;
  std::string error;
  emulators::ApplyForeignChange(fixture.account(), {"create", "docs/old.txt", "", "old"}, &error);
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  const std::vector<emulators::ForeignChange> steps = {
      {"create", "docs/new.txt", "", "fresh"}, {"modify", "docs/old.txt", "", "changed content"},
      {"create", "gone/deep/x.txt", "", "x"},  {"delete", "gone", "", ""},
      {"delete", "docs/new.txt", "", ""},      {"mkdir", "docs/new.txt", "", ""},
      {"delete", "docs/new.txt", "", ""},      {"create", "docs/new.txt", "", "file again"},
      {"rename", "docs", "Documents", ""},
  };
  for (const emulators::ForeignChange& step : steps) {
    ASSERT_TRUE(emulators::ApplyForeignChange(fixture.account(), step, &error)) << error;
    ASSERT_EQ(fixture.FollowFeed(), FileSystem::SUCCEEDED) << step.op << " " << step.path;
    fixture.ExpectTreeMatchesAccount();
  }
  for (const HttpRequest& poll :
       RequestsTo(fixture.emulator(), "/notify/2/files/list_folder/longpoll")) {
    EXPECT_FALSE(poll.HasHeader("Authorization"));
    EXPECT_EQ(poll.body.compare(0, 12, R"({ "cursor":")"), 0) << poll.body;
  }
}

TEST(DropboxFeedTest, BackoffResetAndAFailingContinue) {
  DropboxFixture fixture;
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  std::string error;
  // 1. A backoff of 30 s is waited out before the changes are read.
  fixture.dialect().SetLongpollBackoff(30);
  emulators::ApplyForeignChange(fixture.account(), {"create", "a.txt", "", "a"}, &error);
  ASSERT_EQ(fixture.FollowFeed(), FileSystem::SUCCEEDED);
  EXPECT_EQ(fixture.clock().Waits(), (std::vector<std::int64_t>{30000, 100}));
  fixture.ExpectTreeMatchesAccount();
  fixture.dialect().SetLongpollBackoff(0);
  // 2. A continue that fails leaves the cursor: the next round reads the same change.
  emulators::ApplyForeignChange(fixture.account(), {"create", "b.txt", "", "b"}, &error);
  fixture.emulator().faults().Add(
      emulators::FaultRule::On("", "/api/2/files/list_folder/continue").Status(500));
  EXPECT_EQ(fixture.FollowFeed(), FileSystem::FAILED);
  EXPECT_EQ(fixture.FollowFeed(), FileSystem::SUCCEEDED);
  fixture.ExpectTreeMatchesAccount();
  // 3. A cursor the service forgot: the tree is renewed at once.
  EXPECT_FALSE(fixture.adapter().ShouldRenewTree());
  emulators::ApplyForeignChange(fixture.account(), {"create", "c.txt", "", "c"}, &error);
  fixture.account().ForgetJournal();
  LoggerWrapper::Capture log;
  EXPECT_EQ(fixture.FollowFeed(), FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("Got error while longpoll: reset/.."));
  EXPECT_TRUE(fixture.adapter().ShouldRenewTree());
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  EXPECT_FALSE(fixture.adapter().ShouldRenewTree());
}

TEST(DropboxFeedTest, NothingIsFollowedBeforeTheFirstTree) {
  DropboxFixture fixture;
  LoggerWrapper::Capture log;
  EXPECT_EQ(fixture.FollowFeed(), FileSystem::SUCCEEDED);
  EXPECT_TRUE(log.Contains("No changes since the tree has not been requested."));
  EXPECT_EQ(fixture.clock().Waits(), std::vector<std::int64_t>{500});
  EXPECT_TRUE(RequestsTo(fixture.emulator(), "/notify/2/files/list_folder/longpoll").empty());
}

// --- file operations -------------------------------------------------------------------------

TEST(DropboxOperationsTest, BodiesOnTheWireAndEachEchoDroppedOnce) {
  DropboxFixture fixture;
  std::string error;
  for (const char* path : {"top/mid/low/f1.txt", "top/mid/f2.txt", "top/f3.txt", "file.txt",
                           "moved.txt", "dir/inner.txt", "stale.txt"}) {
    emulators::ApplyForeignChange(fixture.account(), {"create", path, "", path}, &error);
  }
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  RemoteFileSystemDropbox& adapter = fixture.adapter();
  FolderNode& tree = fixture.tree();
  fixture.emulator().server().ClearRequests();
  const std::string file_rev = fixture.RevOf("file.txt");
  ASSERT_FALSE(file_rev.empty());
  // 1. Each operation, and its body byte for byte.
  FileSystem::OverwriteControl fresh(tree.GetFolderAtPath("")->GetFile("file.txt")->hash);
  FileSystem::OverwriteControl stale(tree.GetFile("stale.txt")->hash);
  HashDropbox old_rev = stale.hash.GetHashDropbox();
  old_rev.rev = "000000001999";
  stale.hash = SomeHash(old_rev);
  EXPECT_EQ(adapter.CreateFolderImpl({}, "Neu Ä"), FileSystem::SUCCEEDED);
  EXPECT_EQ(adapter.DeleteFileImpl(fresh, "file.txt", 0, 0), FileSystem::SUCCEEDED);
  EXPECT_EQ(adapter.DeleteFileImpl(stale, "stale.txt", 0, 0), FileSystem::CONFLICT);
  EXPECT_EQ(
      adapter.DeleteFolderImpl(*tree.GetFolder("top"), FileSystem::Revision::RevisionNone(), "top"),
      FileSystem::SUCCEEDED);
  EXPECT_EQ(adapter.MoveFileImpl(*tree.GetFile("moved.txt"), {}, "moved.txt", {}, "dir/m.txt"),
            FileSystem::SUCCEEDED);
  // The core edits its tree after each success, as the echoes will be dropped.
  tree.CreateFolder("Neu Ä");
  tree.DeleteFileW("file.txt");
  tree.DeleteFolder("top");
  FolderNode::MoveFileW(&tree, "moved.txt", tree.GetFolder("dir"), "m.txt");
  LoggerWrapper::Capture log;
  ASSERT_EQ(fixture.FollowFeed(), FileSystem::SUCCEEDED);
  EXPECT_EQ(log.Count("Skipping self made change: "), 1u + 1 + 6 + 2);
  EXPECT_EQ(adapter.MoveFolderImpl(*tree.GetFolder("dir"), {}, "dir", {}, "Dir2"),
            FileSystem::SUCCEEDED);
  FolderNode::MoveFolder(&tree, "dir", &tree, "Dir2");
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"/api/2/files/create_folder_v2", R"({ "path":"/Neu Ä", "autorename":false })"},
      {"/api/2/files/delete_v2", R"({ "path":"/file.txt" ,"parent_rev":")" + file_rev + R"(" })"},
      {"/api/2/files/delete_v2", R"({ "path":"/stale.txt" ,"parent_rev":"000000001999" })"},
      {"/api/2/files/delete_v2", R"({ "path":"/top" })"},
      {"/api/2/files/move_v2",
       R"({ "from_path":"/moved.txt", "to_path":"/dir/m.txt", "autorename":false })"},
      {"/api/2/files/move_v2", R"({ "from_path":"/dir", "to_path":"/Dir2", "autorename":false })"},
  };
  std::vector<HttpRequest> requests;
  for (const HttpRequest& request : fixture.emulator().server().Requests()) {
    if (request.path.find("list_folder") == std::string::npos &&
        request.path.find("get_space_usage") == std::string::npos)
      requests.push_back(request);
  }
  ASSERT_EQ(requests.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(requests[i].path, expected[i].first);
    EXPECT_EQ(requests[i].body, expected[i].second);
  }
  // 2. The echoes, each dropped once; the failed delete left no record.
  ASSERT_EQ(fixture.FollowFeed(), FileSystem::SUCCEEDED);
  EXPECT_EQ(log.Count("Skipping self made change: "), 1u + 1 + 6 + 2 + 4);
  fixture.ExpectTreeMatchesAccount();
  EXPECT_TRUE(log.Contains("Skipping self made change: FOLDER_CREATE  \"Neu Ä\""));
  EXPECT_FALSE(log.Contains("stale.txt"));
}

TEST(DropboxOperationsTest, ServiceErrorsMapAndAddNoRecord) {
  struct Case {
    const char* fault;
    FileSystem::Result result;
  };
  const Case cases[] = {
      {"", FileSystem::CONFLICT},  // the folder exists already
      {"path/no_write_permission", FileSystem::ACCESS_DENIED},
      {"path/insufficient_space", FileSystem::NO_SPACE},
      {"path/malformed_path", FileSystem::BADNAM},
  };
  for (const Case& c : cases) {
    DropboxFixture fixture;
    std::string error;
    emulators::ApplyForeignChange(fixture.account(), {"mkdir", "taken", "", ""}, &error);
    ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
    if (*c.fault) {
      fixture.emulator().faults().Add(
          emulators::FaultRule::On("", "/api/2/files/create_folder_v2").Status(409).Error(c.fault));
    }
    EXPECT_EQ(fixture.adapter().CreateFolderImpl({}, *c.fault ? "new" : "taken"), c.result);
    emulators::ApplyForeignChange(fixture.account(), {"mkdir", "new", "", ""}, &error);
    LoggerWrapper::Capture log;
    ASSERT_EQ(fixture.FollowFeed(), FileSystem::SUCCEEDED);
    EXPECT_FALSE(log.Contains("Skipping self made change")) << c.fault;
  }
  DropboxFixture fixture;
  EXPECT_EQ(fixture.adapter().DeleteFileImpl({}, "../x", 0, 0), FileSystem::FATAL);
  EXPECT_EQ(fixture.adapter().CreateFolderImpl({}, "a/../b"), FileSystem::BADNAM);
}

TEST(DropboxSelfMadeFilterTest, RecordsMatchByKindLowerCasePathAndContent) {
  const HashDropbox hash = HashDropbox::FromHexString(std::string(64, 'a'));
  const HashDropbox other = HashDropbox::FromHexString(std::string(64, 'b'));
  struct Case {
    FileSystem::Change::Type type;
    const char* path;
    HashDropbox hash;
    std::uint64_t size;
    bool dropped;
  };
  const Case cases[] = {
      {FileSystem::Change::FILE_CREATE, "ÄBC/FILE.TXT", hash, 5, true},
      {FileSystem::Change::FILE_CREATE, "äbc/file.txt", hash, 5, false},  // used up
      {FileSystem::Change::FILE_CREATE, "up2", other, 5, false},
      {FileSystem::Change::FILE_CREATE, "up2", hash, 6, false},
      {FileSystem::Change::FILE_CREATE, "UP2", hash, 5, true},
      {FileSystem::Change::FILE_CREATE, "empty", other, 0, true},
      {FileSystem::Change::FOLDER_CREATE, "Ünïcode", {}, 0, true},
      {FileSystem::Change::FILE_OR_FOLDER_DELETE, "ünïcode", {}, 0, false},
      {FileSystem::Change::FILE_OR_FOLDER_DELETE, "GONE", {}, 0, true},
      {FileSystem::Change::FILE_OR_FOLDER_DELETE, "gone", {}, 0, false},
      {FileSystem::Change::FILE_MODIFY, "up3", hash, 5, false},
  };
  DropboxSelfMadeFilter filter;
  filter.ExpectUpload("äbc/file.txt", hash, 5);
  filter.ExpectUpload("up2", hash, 5);
  filter.ExpectUpload("up3", hash, 5);
  filter.ExpectUpload("Empty", hash, 0);
  filter.ExpectFolder("üNÏCODE");
  filter.ExpectDelete("gone");
  for (const Case& c : cases) {
    FileSystem::Change change(c.type, c.path);
    change.hash = SomeHash(c.hash);
    change.size = c.size;
    EXPECT_EQ(filter.IsSelfMadeChange(change), c.dropped) << c.path;
  }
}

// --- links and thumbnails --------------------------------------------------------------------

TEST(DropboxLinksTest, CreateFallBackRevokeAndTheFeedsLinkChanges) {
  DropboxFixture fixture;
  std::string error;
  emulators::ApplyForeignChange(fixture.account(), {"create", "doc.txt", "", "d"}, &error);
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  std::string first;
  std::string second;
  ASSERT_EQ(fixture.adapter().GetPublicLink("doc.txt", false, &first), FileSystem::SUCCEEDED);
  LoggerWrapper::Capture log;
  ASSERT_EQ(fixture.adapter().GetPublicLink("doc.txt", false, &second), FileSystem::SUCCEEDED);
  EXPECT_EQ(first, second);
  EXPECT_TRUE(log.Contains("Public link already exists. Falling back"));
  EXPECT_EQ(fixture.account().FindByPath("doc.txt")->public_link, first);
  // The feed tells of the new link once 121 s have passed, with one listing of links.
  fixture.emulator().server().ClearRequests();
  auto link_changes = [&fixture] {
    std::queue<FileSystem::Change> changes;
    EXPECT_EQ(fixture.adapter().GetChanges(&changes), FileSystem::SUCCEEDED);
    std::vector<FileSystem::Change> links;
    for (; !changes.empty(); changes.pop()) {
      if (changes.front().type == FileSystem::Change::PUBLIC_LINK)
        links.push_back(changes.front());
    }
    return links;
  };
  fixture.clock().Advance(120'000);
  EXPECT_TRUE(link_changes().empty());
  fixture.clock().Advance(1'000);
  auto links = link_changes();
  ASSERT_EQ(links.size(), 1u);
  EXPECT_EQ(links[0].path, "doc.txt");
  EXPECT_EQ(links[0].size, 1u);
  EXPECT_EQ(RequestsTo(fixture.emulator(), "/api/2/sharing/list_shared_links").size(), 1u);
  // Revoked, and a path with no link at all.
  EXPECT_EQ(fixture.adapter().ClosePublicLink("doc.txt"), FileSystem::SUCCEEDED);
  EXPECT_TRUE(fixture.account().FindByPath("doc.txt")->public_link.empty());
  EXPECT_EQ(fixture.adapter().ClosePublicLink("doc.txt"), FileSystem::FATAL);
  EXPECT_TRUE(log.Contains("No existing link found."));
}

TEST(DropboxLinksTest, AThumbnailOfAnAwkwardNameDecodes) {
  DropboxFixture fixture;
  std::string error;
  emulators::ApplyForeignChange(fixture.account(), {"create", "pics/a #1 ü+%.jpg", "", "x"},
                                &error);
  emulators::ApplyForeignChange(fixture.account(), {"create", "notes.txt", "", "x"}, &error);
  auto image = fixture.adapter().GetThumbnail("pics/a #1 ü+%.jpg");
  ASSERT_TRUE(image.HasValue());
  EXPECT_EQ(image.GetValue().width(), 8);
  EXPECT_EQ(fixture.adapter().GetThumbnail("pics/none.jpg").GetError(), FileSystem::CONFLICT);
  EXPECT_EQ(fixture.adapter().GetThumbnail("notes.txt").GetError(), FileSystem::FAILED);
}

TEST(DropboxEntryTest, TheFactoryMakesTheAdapterWithItsAnswers) {
  RemoteFileSystemFactoryDropbox factory("");
  std::unique_ptr<RemoteFileSystem> adapter(factory.Create());
  ASSERT_NE(dynamic_cast<RemoteFileSystemDropbox*>(adapter.get()), nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<RemoteFileSystemDropboxSharedData>(factory.GetSharedData()),
            nullptr);
  EXPECT_EQ(adapter->GetServiceId(), CloudServiceId::DROPBOX);
  EXPECT_EQ(adapter->GetHashType(), SomeHash::DROPBOX);
  EXPECT_EQ(adapter->GetMaxFileSize(), UINT64_MAX);
  EXPECT_TRUE(adapter->IsCaseInsensitive());
  EXPECT_TRUE(adapter->SupportsChangesListening());
  EXPECT_TRUE(adapter->SupportsResumingUpload());
  EXPECT_FALSE(adapter->IsServiceTraitA());
  EXPECT_EQ(&adapter->GetUnsupportedSymbolsMap(),
            &InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin);
  RemoteFileSystemFactoryDropbox slash("/");
  std::unique_ptr<RemoteFileSystem> refused(slash.Create());
  LoggerWrapper::Capture log;
  EXPECT_FALSE(refused->Open(nullptr));
  EXPECT_TRUE(log.Contains("Invalid non-normalized remote path \"/\"."));
}

}  // namespace

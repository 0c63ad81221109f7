// The WebDAV adapter against a programmable server: the code table, faults of the tree walk,
// conditional uploads and deletes, both integrity checks, and URL building.
#include "services/RemoteFileSystemWebDAV.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <queue>

#include "core/Clock.h"
#include "core/Cookie.h"
#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "core/RemoteFileSystemSharedData.h"
#include "emulators/HttpServer.h"
#include "services/RemoteFileSystemBox.h"
#include "services/RemoteWebDAVUtils.h"
#include "support/HashOf.h"
#include "support/WebDavTesting.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;
using test::DavEntry;
using Result = FileSystem::Result;

HttpResponse MultiStatusResponse(const std::vector<DavEntry>& entries) {
  HttpResponse response = HttpResponse::Status(207, test::Multistatus(entries));
  response.headers = {{"Content-Type", "application/xml; charset=utf-8"}};
  return response;
}

HttpResponse Quota(std::uint64_t available, std::uint64_t used) {
  HttpResponse response = HttpResponse::Status(
      207,
      "<?xml version=\"1.0\"?><d:multistatus xmlns:d=\"DAV:\"><d:response><d:href>/dav/</d:href>"
      "<d:propstat><d:prop><d:quota-available-bytes>" +
          std::to_string(available) + "</d:quota-available-bytes><d:quota-used-bytes>" +
          std::to_string(used) +
          "</d:quota-used-bytes></d:prop><d:status>HTTP/1.1 200 OK</d:status></d:propstat>"
          "</d:response></d:multistatus>");
  return response;
}

// Answers in turn from a list; the last answer repeats.
class Script {
 public:
  explicit Script(std::vector<HttpResponse> replies) : replies_(std::move(replies)) {}
  HttpResponse operator()(const HttpRequest&) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t index = std::min(served_++, replies_.size() - 1);
    return replies_[index];
  }
  std::size_t Served() {
    std::lock_guard<std::mutex> lock(mutex_);
    return served_;
  }

 private:
  std::mutex mutex_;
  std::vector<HttpResponse> replies_;
  std::size_t served_ = 0;
};

std::vector<std::int64_t> LongWaits(const utils::ManualClock& clock) {
  std::vector<std::int64_t> waits;
  for (std::int64_t ms : clock.Waits()) {
    if (ms >= 1000) {  // the 150 ms holds of the idle workers are not the back-off
      waits.push_back(ms);
    }
  }
  return waits;
}

class WebDavFaultTest : public testing::Test {
 protected:
  void SetUp() override {
    server_.Handle("PROPFIND", "/dav", [](const HttpRequest&) { return Quota(1000, 300); });
    server_.Handle("PROPFIND", "/dav/", [](const HttpRequest&) {
      return MultiStatusResponse(
          {{"/dav/", true}, {"/dav/a/", true}, {"/dav/top.txt", false, 7, "\"t1\""}});
    });
  }
  std::unique_ptr<RemoteFileSystemWebDAV> Open(const std::string& root = std::string()) {
    auto dav = test::OpenWebDav(server_.BaseUrl() + "/dav", root);
    EXPECT_NE(dav, nullptr);
    return dav;
  }

  emulators::HttpServer server_;
};

TEST(WebDavCodeTable, EveryCodeHasItsResultAndWord) {
  struct Case {
    int code;
    Result result;
    const char* word;  // null: no line
  };
  const Case cases[] = {
      {200, Result::SUCCEEDED, nullptr},
      {207, Result::SUCCEEDED, nullptr},
      {0, Result::FAILED, nullptr},
      {401, Result::AUTH_INVALID, "Authorization failed (401)."},
      {403, Result::ACCESS_DENIED, "Forbidden (403)."},
      {404, Result::CONFLICT, "Not found (404)."},
      {405, Result::ACCESS_DENIED, "Method not allowed (405)."},
      {409, Result::CONFLICT, "Collection conflict (409)."},
      {412, Result::CONFLICT, "Precondition failed (412)."},
      {413, Result::TOO_LARGE, "Entity too large (413)."},
      {414, Result::BADNAM, "URI too long (414)."},
      {423, Result::FAILED, "Locked (423)."},
      {425, Result::NO_SPACE, "Out of space (425)."},
      {507, Result::NO_SPACE, "Out of space (507)."},
      {500, Result::FAILED, "Failed with HTTP code 500"},
      {302, Result::FAILED, "Failed with HTTP code 302"},
  };
  for (const Case& c : cases) {
    LoggerWrapper::Capture log;
    EXPECT_EQ(GetResultFromHttpCode(c.code), c.result) << c.code;
    const Result orFailed = c.result == Result::SUCCEEDED ? Result::FAILED : c.result;
    EXPECT_EQ(GetResultFromHttpCodeOrFailed(c.code), orFailed) << c.code;
    if (c.word) {
      EXPECT_EQ(log.Count(c.word), 2u) << c.code;
      EXPECT_EQ(log.LinesAtLevel(LogType::kWarning).size(), 2u) << c.code;
    } else {
      EXPECT_TRUE(log.Lines().empty()) << c.code;
    }
  }
}

TEST(WebDavBaseUrl, PCloudHostsGetTheLongerTimeOut) {
  const std::pair<const char*, int> cases[] = {
      {"https://webdav.pcloud.com", 150},
      {"https://ewebdav.pcloud.com/", 150},
      {"https://dav.example.com/webdav.pcloud", 90},
  };
  for (const auto& [server, timeout] : cases) {
    auto factory = std::make_shared<test::RecordingProcessorFactory>(server);
    RemoteFileSystemWebDAV dav(std::make_shared<RemoteFileSystemSharedData>(), "");
    ASSERT_TRUE(dav.Open(factory)) << server;
    ASSERT_EQ(factory->made.size(), 1u);
    EXPECT_EQ(factory->made[0]->timeouts.back(), timeout) << server;
  }
  // Credentials of another kind give no server at all.
  class OAuthFactory : public URLProcessorFactory {
   public:
    std::shared_ptr<URLProcessor> Create() override {
      return std::make_shared<CurlURLProcessor>(
          std::make_shared<core::cookie::CookieOAuth>("token"));
    }
  };
  LoggerWrapper::Capture log;
  RemoteFileSystemWebDAV dav(std::make_shared<RemoteFileSystemSharedData>(), "");
  EXPECT_FALSE(dav.Open(std::make_shared<OAuthFactory>()));
  EXPECT_TRUE(log.Contains("Invalid Auth cookie type."));
  EXPECT_TRUE(log.Contains("No base url."));
}

TEST_F(WebDavFaultTest, UrlsJoinTheMountedRootButNotForTheServerRoot) {
  auto dav = Open("backups/my docs");
  server_.Handle(
      "*", "/dav/backups/", [](const HttpRequest&) { return HttpResponse::Status(201); },
      emulators::Match::kPrefix);
  ASSERT_EQ(dav->CreateFolderImpl({}, "new #1?"), Result::SUCCEEDED);
  std::uint64_t total = 0, used = 0;
  ASSERT_EQ(dav->GetCloudSize(&total, &used), Result::SUCCEEDED);
  EXPECT_EQ(total, 1300u);
  EXPECT_EQ(used, 300u);
  auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].verb, "MKCOL");
  EXPECT_EQ(requests[0].path, "/dav/backups/my%20docs/new%20%231%3F/");
  EXPECT_EQ(requests[1].path, "/dav");
  EXPECT_EQ(requests[1].Header("Depth"), "0");
  EXPECT_NE(requests[1].body.find("<D:quota-available-bytes/>   <D:quota-used-bytes/>"),
            std::string::npos);
}

TEST_F(WebDavFaultTest, FolderOperationsSendTheirHeadersAndMapRefusals) {
  auto dav = Open();
  server_.Handle("MKCOL", "/dav/exists/",
                 [](const HttpRequest&) { return HttpResponse::Status(405); });
  server_.Handle(
      "MOVE", "/dav/", [](const HttpRequest&) { return HttpResponse::Status(201); },
      emulators::Match::kPrefix);
  server_.Handle("DELETE", "/dav/locked",
                 [](const HttpRequest&) { return HttpResponse::Status(423); });
  LoggerWrapper::Capture log;
  EXPECT_EQ(dav->CreateFolderImpl({}, "exists"), Result::SUCCEEDED);
  EXPECT_TRUE(log.Contains("threating as the dir already exists."));
  FolderNode root;
  FileNode* file = root.CreateFileW("f", 1, SomeHash(std::string("\"e\"")), 0);
  EXPECT_EQ(dav->MoveFileImpl(*file, {}, "f",
                              FileSystem::OverwriteControl(SomeHash(std::string("\"x\""))), "g"),
            Result::SUCCEEDED);
  EXPECT_EQ(dav->MoveFileImpl(*file, {}, "f", {}, "new name"), Result::SUCCEEDED);
  EXPECT_EQ(dav->MoveFolderImpl(root, {}, "d", {}, "e"), Result::SUCCEEDED);
  EXPECT_EQ(dav->DeleteFolderImpl(root, FileSystem::Revision::RevisionNone(), "locked"),
            Result::FAILED);
  EXPECT_TRUE(log.Contains("DELETE failed; response code 423."));
  EXPECT_EQ(dav->DeleteFolderImpl(root, FileSystem::Revision::RevisionNone(), "/bad/"),
            Result::FATAL);
  auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 5u);
  const std::string base = server_.BaseUrl();
  EXPECT_EQ(requests[1].Header("Destination"), base + "/dav/g");
  EXPECT_EQ(requests[1].Header("Overwrite"), "T");
  EXPECT_EQ(requests[2].Header("Destination"), base + "/dav/new%20name");
  EXPECT_EQ(requests[2].Header("Overwrite"), "F");
  // A folder moves by its collection URL, with the trailing slash on both ends.
  EXPECT_EQ(requests[3].path, "/dav/d/");
  EXPECT_EQ(requests[3].Header("Destination"), base + "/dav/e/");
  EXPECT_EQ(requests[4].path, "/dav/locked");
  EXPECT_FALSE(requests[4].HasHeader("If-Match"));
}

TEST_F(WebDavFaultTest, DeleteOfAFileIsConditionalOnItsEtag) {
  auto dav = Open();
  server_.Handle(
      "DELETE", "/dav/",
      [](const HttpRequest& request) {
        return HttpResponse::Status(request.Header("If-Match") == "\"v2\"" ? 412 : 204);
      },
      emulators::Match::kPrefix);
  LoggerWrapper::Capture log;
  EXPECT_EQ(
      dav->DeleteFileImpl(FileSystem::OverwriteControl(SomeHash(std::string("\"v1\""))), "a", 5, 0),
      Result::SUCCEEDED);
  EXPECT_EQ(
      dav->DeleteFileImpl(FileSystem::OverwriteControl(SomeHash(std::string("\"v2\""))), "a", 5, 0),
      Result::CONFLICT);
  EXPECT_EQ(dav->DeleteFileImpl({}, "b", 5, 0), Result::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Hash is not set in overwrite control: b"));
  auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].Header("If-Match"), "\"v1\"");
  EXPECT_FALSE(requests[2].HasHeader("If-Match"));
}

// A name listed twice is kept once, the first one, and a folder over a file of its name: the
// same for a one-level listing and for the tree, with a line for each one dropped.
TEST_F(WebDavFaultTest, ANameListedTwiceIsKeptOnceByEveryRoad) {
  server_.Handle("PROPFIND", "/dav/", [](const HttpRequest&) {
    return MultiStatusResponse({{"/dav/", true},
                                {"/dav/dup", false, 1, "\"first\""},
                                {"/dav/twin", false, 2, "\"t\""},
                                {"/dav/x/", true},
                                {"/dav/dup", false, 9, "\"second\""},
                                {"/dav/twin/", true},
                                {"/dav/x/", true}});
  });
  server_.Handle("PROPFIND", "/dav/twin/", [](const HttpRequest&) {
    return MultiStatusResponse({{"/dav/twin/", true}});
  });
  server_.Handle("PROPFIND", "/dav/x/", [](const HttpRequest&) {
    return MultiStatusResponse({{"/dav/x/", true}});
  });
  auto dav = Open();
  LoggerWrapper::Capture log;
  RemoteFileSystem::FolderListing listing;
  ASSERT_EQ(dav->GetFolderListing("", &listing), Result::SUCCEEDED);
  EXPECT_EQ(listing.folders, (std::vector<std::string>{"x", "twin"}));
  ASSERT_EQ(listing.files.size(), 1u);
  EXPECT_EQ(listing.files[0].first, "dup");
  EXPECT_EQ(listing.files[0].second.size, 1u);
  FolderNode root;
  std::uint64_t free = 0, total = 0;
  tsl::htrie_set<char> items;
  ASSERT_EQ(dav->GetFullTree(&root, &free, &total, &items), Result::SUCCEEDED);
  ASSERT_NE(root.GetFile("dup"), nullptr);
  EXPECT_EQ(root.GetFile("dup")->size, 1u);
  EXPECT_NE(root.GetFolder("twin"), nullptr);
  EXPECT_EQ(root.GetFile("twin"), nullptr);
  EXPECT_NE(root.GetFolder("x"), nullptr);
  EXPECT_TRUE(log.Contains("Duplicate name in a listing, the first one kept: dup"));
  EXPECT_TRUE(log.Contains("Duplicate name in a listing, the first one kept: twin"));
  EXPECT_TRUE(log.Contains("Duplicate name in a listing, the first one kept: x"));
}

// A weak etag (Apache's for a file changed within its last second) can't match under If-Match:
// the file's etag of now is compared weakly, then sent in its strong form or, still weak, not at
// all. A different version is CONFLICT and nothing is written or deleted.
TEST_F(WebDavFaultTest, AWeakControlIsCheckedWeaklyBeforeTheWrite) {
  struct Case {
    const char* name;
    int status;       // of the PROPFIND of the file
    const char* now;  // the etag the server gives now
    Result result;
    const char* sent;  // If-Match of the write; nullptr: no write at all
  };
  const Case cases[] = {
      {"still weak", 207, "W/\"5-abc\"", Result::SUCCEEDED, ""},
      {"strong now", 207, "\"5-abc\"", Result::SUCCEEDED, "\"5-abc\""},
      {"another version", 207, "\"6-def\"", Result::CONFLICT, nullptr},
      {"another weak version", 207, "W/\"6-def\"", Result::CONFLICT, nullptr},
      {"gone", 404, "", Result::CONFLICT, nullptr},
      {"refused", 401, "", Result::AUTH_INVALID, nullptr},
  };
  const FileSystem::OverwriteControl weak(SomeHash(std::string("W/\"5-abc\"")));
  for (const Case& c : cases) {
    for (bool remove : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (remove ? ", delete" : ", rewrite"));
      server_.Handle("PROPFIND", "/dav/f", [&c](const HttpRequest&) {
        return c.status == 207 ? MultiStatusResponse({{"/dav/f", false, 5, c.now}})
                               : HttpResponse::Status(c.status);
      });
      server_.Handle("PUT", "/dav/f", [](const HttpRequest&) {
        HttpResponse response = HttpResponse::Status(204);
        response.headers = {{"ETag", "\"7-new\""}};
        return response;
      });
      server_.Handle("DELETE", "/dav/f",
                     [](const HttpRequest&) { return HttpResponse::Status(204); });
      auto dav = Open();
      const std::size_t before = server_.Requests().size();
      Result result = Result::SUCCEEDED;
      if (remove) {
        result = dav->DeleteFileImpl(weak, "f", 5, 0);
      } else {
        std::uint64_t offset = 0;
        result = dav->OpenForRewrite(weak, "f", SomeHash(), 5, 0, &offset);
        if (result == Result::SUCCEEDED &&
            (result = dav->WriteFile(reinterpret_cast<const std::uint8_t*>("12345"), 5)) ==
                Result::SUCCEEDED) {
          FileSystem::FileProperties props;
          result = dav->CloseFile(&props);
        }
      }
      EXPECT_EQ(result, c.result);
      const auto requests = server_.Requests();
      ASSERT_GT(requests.size(), before);
      EXPECT_EQ(requests[before].verb, "PROPFIND");
      EXPECT_EQ(requests[before].Header("Depth"), "0");
      if (c.sent == nullptr) {
        EXPECT_EQ(requests.size(), before + 1);
        continue;
      }
      ASSERT_EQ(requests.size(), before + 2);
      EXPECT_EQ(requests.back().verb, remove ? "DELETE" : "PUT");
      EXPECT_EQ(requests.back().Header("If-Match"), c.sent);
    }
  }
}

// The faults of one folder's listing during a whole tree walk. The root lists fine; folder "a"
// answers from the script.
TEST_F(WebDavFaultTest, TreeWalkMeetsFaultsOfOneFolder) {
  const std::string good =
      test::Multistatus({{"/dav/a/", true}, {"/dav/a/x.bin", false, 3, "\"x\""}});
  HttpResponse ok = HttpResponse::Status(207, good);
  auto with = [](int status, const char* retryAfter) {
    HttpResponse response = HttpResponse::Status(status);
    if (retryAfter) {
      response.headers = {{"Retry-After", retryAfter}};
    }
    return response;
  };
  HttpResponse cut = ok;
  cut.cut_after = good.size() / 2;
  HttpResponse noEtag =
      HttpResponse::Status(207, test::Multistatus({{"/dav/a/", true}, {"/dav/a/y", false, 3, ""}}));
  struct Case {
    const char* name;
    std::vector<HttpResponse> replies;
    Result result;
    std::vector<std::int64_t> waits;
    std::vector<const char*> words;
    bool stopAfterThreeWaits = false;
  };
  const Case cases[] = {
      {"429 asks too long",
       {with(429, "500"), ok},
       Result::SUCCEEDED,
       {90000},
       {"Retry after 90 seconds, as asked by server."}},
      {"429 with zero",
       {with(429, " 0 "), ok},
       Result::SUCCEEDED,
       {2000},
       {"Retry after 2 seconds."}},
      {"503 again and again",
       {with(503, nullptr), with(503, nullptr), with(503, nullptr), with(503, nullptr), ok},
       Result::SUCCEEDED,
       {2000, 3000, 4000, 6000},
       {"Got rate limit while downloading dir."}},
      {"cut inside the document",
       {cut, ok},
       Result::SUCCEEDED,
       {3000},
       {"Failed downloading directory: FAILED"}},
      {"vanished folder",
       {with(404, nullptr)},
       Result::CONFLICT,
       {},
       {"Got error from download thread: CONFLICT"}},
      {"file without etag",
       {noEtag},
       Result::FATAL,
       {},
       {"Failed to parse xml propstat for folder: a", "Fatal because of result: FATAL"}},
      {"500 until stopped", {with(500, nullptr)}, Result::STOPPED, {3000, 3000, 3000}, {}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    utils::ManualClock clock;
    utils::ScopedClock scoped(&clock);
    auto dav = Open();
    Script script(c.replies);
    server_.Handle("PROPFIND", "/dav/a/", std::ref(script));
    int longWaits = 0;
    if (c.stopAfterThreeWaits) {
      clock.SetOnWait([&](std::int64_t ms) {
        if (ms >= 1000 && ++longWaits == 3) {
          dav->Stop();
        }
      });
    }
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    FolderNode root;
    std::uint64_t free = 0, total = 0;
    EXPECT_EQ(dav->GetFullTree(&root, &free, &total, nullptr), c.result);
    EXPECT_EQ(LongWaits(clock), c.waits);
    for (const char* word : c.words) {
      EXPECT_TRUE(log.Contains(word)) << word;
    }
    EXPECT_EQ(free, 1000u);
    EXPECT_EQ(total, 1300u);
    if (c.result == Result::SUCCEEDED) {
      FolderNode* a = root.GetFolder("a");
      ASSERT_NE(a, nullptr);
      ASSERT_NE(a->GetFile("x.bin"), nullptr);
      EXPECT_EQ(a->GetFile("x.bin")->hash, SomeHash(std::string("\"x\"")));
      EXPECT_EQ(metrics.Count("count_files_in_webdav"), 1u);
      EXPECT_TRUE(log.Contains("Got total 2 files and 2 dirs in WebDAV storage."));
    }
    EXPECT_EQ(dav->GetLastErrorDescription().isEmpty(), c.result != Result::FATAL);
    // One run of limits, one metric: the root's good answer was recorded before "a" was asked
    // for, so no worker's good answer can fall between the limits of "a" and re-arm it.
    EXPECT_EQ(metrics.Count("webdav_listing_rate_limit"),
              c.waits.empty() || c.waits[0] == 3000 ? 0u : 1u);
    if (c.result == Result::STOPPED) {
      EXPECT_FALSE(log.Contains("Got error from download thread"));
    }
  }
}

struct UploadCase {
  const char* name;
  std::string controlHash;  // empty: a new file
  std::string content;
  int status;
  const char* etagHeader;  // null: the server sends none
  Result result;
  const char* condition;  // the header line expected, null: none
};

TEST_F(WebDavFaultTest, UploadsAreConditionalAndReturnTheServersEtag) {
  const UploadCase cases[] = {
      {"new file", "", "hello", 201, "\"n1\"", Result::SUCCEEDED, "If-None-Match: *"},
      {"new file that exists", "", "hello", 412, nullptr, Result::CONFLICT, "If-None-Match: *"},
      {"known file", "\"k1\"", "hello", 204, "\"k2\"", Result::SUCCEEDED, "If-Match: \"k1\""},
      {"stale file", "\"old\"", "hello", 412, nullptr, Result::CONFLICT, "If-Match: \"old\""},
      {"empty over a known file", "\"k1\"", "", 201, "\"e\"", Result::SUCCEEDED, nullptr},
      {"full disk", "", "hello", 507, nullptr, Result::NO_SPACE, "If-None-Match: *"},
  };
  for (const UploadCase& c : cases) {
    SCOPED_TRACE(c.name);
    auto dav = Open();
    server_.ClearRequests();
    server_.Handle("PUT", "/dav/up/file.bin", [&c](const HttpRequest&) {
      HttpResponse response = HttpResponse::Status(c.status);
      if (c.etagHeader) {
        response.headers = {{"ETag", c.etagHeader}};
      }
      return response;
    });
    const FileSystem::OverwriteControl control =
        c.controlHash.empty() ? FileSystem::OverwriteControl()
                              : FileSystem::OverwriteControl(SomeHash(c.controlHash));
    std::uint64_t offset = 7;
    ASSERT_EQ(
        dav->OpenForRewrite(control, "up/file.bin", test::HashOf<HashCalculatorInternal>(c.content),
                            c.content.size(), 0, &offset),
        Result::SUCCEEDED);
    EXPECT_EQ(offset, 0u);
    if (!c.content.empty()) {
      ASSERT_EQ(dav->WriteFile(reinterpret_cast<const std::uint8_t*>(c.content.data()),
                               static_cast<std::uint32_t>(c.content.size())),
                Result::SUCCEEDED);
    }
    FileSystem::FileProperties props;
    EXPECT_EQ(dav->CloseFile(&props), c.result);
    if (c.result == Result::SUCCEEDED) {
      EXPECT_EQ(props.hash, SomeHash(std::string(c.etagHeader)));
    }
    auto requests = server_.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body, c.content);
    EXPECT_EQ(requests[0].Header("Content-Type"), "application/binary");
    EXPECT_EQ(requests[0].Header("If-None-Match").empty() && requests[0].Header("If-Match").empty(),
              c.condition == nullptr);
    if (c.condition) {
      const std::string line = c.condition;
      const std::string name = line.substr(0, line.find(':'));
      EXPECT_EQ(requests[0].Header(name), line.substr(name.size() + 2));
    }
  }
}

// A block that differs from the announced content, early or last, keeps the upload from ending:
// small blocks are hashed before they go, large ones beside their sending.
TEST_F(WebDavFaultTest, AnUploadWhoseContentIsNotTheAnnouncedOneNeverEnds) {
  for (std::uint32_t blockSize : {1000u, 512u * 1024}) {
    const std::string a(blockSize, 'a');
    const std::string b(blockSize, 'b');
    const std::uint64_t total = 3ull * blockSize;
    struct Case {
      const char* name;
      int changedBlock;  // -1: none
    };
    for (const Case& c :
         {Case{"honest", -1}, Case{"first block changed", 0}, Case{"last block changed", 2}}) {
      SCOPED_TRACE(std::string(c.name) + ", blocks of " + std::to_string(blockSize));
      // A path of its own: the server may log a cut request of the case before after this one
      // began.
      const std::string name =
          "f" + std::to_string(blockSize) + "-" + std::to_string(c.changedBlock);
      auto dav = Open();
      server_.Handle("PUT", "/dav/" + name, [](const HttpRequest&) {
        HttpResponse response = HttpResponse::Status(201);
        response.headers = {{"ETag", "\"w\""}};
        return response;
      });
      HashCalculatorInternal calculator;
      calculator.Begin();
      for (int i = 0; i < 3; ++i) {
        calculator.Feed(reinterpret_cast<const std::uint8_t*>(a.data()), blockSize);
      }
      std::uint64_t offset = 0;
      ASSERT_EQ(dav->OpenForCreate({}, name, calculator.Finish(), total, 0, &offset, false),
                Result::SUCCEEDED);
      LoggerWrapper::Capture log;
      RadarsLogger::Capture metrics;
      const bool honest = c.changedBlock < 0;
      for (int i = 0; i < 3; ++i) {
        const std::string& sent = i == c.changedBlock ? b : a;
        EXPECT_EQ(dav->WriteFile(reinterpret_cast<const std::uint8_t*>(sent.data()), blockSize),
                  i < 2 || honest ? Result::SUCCEEDED : Result::FAILED);
      }
      FileSystem::FileProperties props;
      EXPECT_EQ(dav->CloseFile(&props), honest ? Result::SUCCEEDED : Result::FAILED);
      EXPECT_EQ(metrics.Count("webdav_invalid_write_hash"), honest ? 0u : 1u);
      EXPECT_EQ(log.Contains("Invalid content being uploaded. Expected hash is "), !honest);
      // The last block of a cut upload never reaches the server.
      for (const HttpRequest& request : server_.Requests()) {
        if (request.path == "/dav/" + name) {
          EXPECT_EQ(request.body_size == total, honest) << request.body_size;
        }
      }
    }
  }
}

// The announced hash may come in the hex of any case (a server's own form, upper case for some):
// the same content is the same whichever case, another content is refused whatever the case.
TEST_F(WebDavFaultTest, AnUploadsHashIsComparedWhateverTheCaseOfItsHex) {
  const std::string content(3000, 'c');
  const std::string hex = test::HashOf<HashCalculatorInternal>(content).GetHashGenericString();
  std::string upper = hex;
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  std::string mixed = hex;
  for (std::size_t i = 0; i < mixed.size(); i += 2) {
    mixed[i] = static_cast<char>(::toupper(mixed[i]));
  }
  std::string other = upper;
  other[0] = other[0] == 'A' ? 'B' : 'A';
  const std::pair<std::string, Result> cases[] = {
      {hex, Result::SUCCEEDED},
      {upper, Result::SUCCEEDED},
      {mixed, Result::SUCCEEDED},
      {other, Result::FAILED},
  };
  ASSERT_NE(hex, upper);
  for (const auto& [announced, result] : cases) {
    SCOPED_TRACE(announced);
    auto dav = Open();
    server_.Handle("PUT", "/dav/f", [](const HttpRequest&) {
      HttpResponse response = HttpResponse::Status(201);
      response.headers = {{"ETag", "\"w\""}};
      return response;
    });
    std::uint64_t offset = 0;
    ASSERT_EQ(dav->OpenForCreate({}, "f", SomeHash(announced), 3000, 0, &offset, false),
              Result::SUCCEEDED);
    EXPECT_EQ(dav->WriteFile(reinterpret_cast<const std::uint8_t*>(content.data()), 3000), result);
    FileSystem::FileProperties props;
    EXPECT_EQ(dav->CloseFile(&props), result);
  }
}

// A refusal means the same whenever it comes: after the body, or before it (a large upload asks
// "Expect: 100-continue" and gets the server's word first), for a new file and for a rewrite.
TEST_F(WebDavFaultTest, ARefusalOfAnUploadIsMappedByItsCodeWheneverItComes) {
  const std::pair<int, Result> refusals[] = {
      {412, Result::CONFLICT},     {507, Result::NO_SPACE},     {413, Result::TOO_LARGE},
      {401, Result::AUTH_INVALID}, {404, Result::CONFLICT},     {423, Result::FAILED},
      {500, Result::FAILED},       {403, Result::ACCESS_DENIED}};
  const std::uint32_t kBlock = 256 * 1024;
  const std::string block(kBlock, 'z');
  for (const auto& [code, expected] : refusals) {
    for (std::uint64_t size : {std::uint64_t{1000}, std::uint64_t{8} * kBlock}) {
      for (bool rewrite : {false, true}) {
        SCOPED_TRACE(std::to_string(code) + ", " + std::to_string(size) + " bytes, " +
                     (rewrite ? "rewrite" : "new"));
        const bool early = size > kBlock;
        server_.Handle(
            "PUT", "/dav/up",
            [code = code](const HttpRequest&) { return HttpResponse::Status(code, "refused"); },
            emulators::Match::kExact,
            early ? emulators::BodyMode::kAnswerFirst : emulators::BodyMode::kStore);
        auto dav = Open();
        FileSystem::OverwriteControl control;
        if (rewrite) {
          control = FileSystem::OverwriteControl(SomeHash(std::string("\"e1\"")));
        }
        std::uint64_t offset = 0;
        ASSERT_EQ(dav->OpenForCreate(control, "up", SomeHash(), size, 0, &offset, false),
                  Result::SUCCEEDED);
        LoggerWrapper::Capture log;
        Result result = Result::SUCCEEDED;
        for (std::uint64_t sent = 0; sent < size && result == Result::SUCCEEDED;) {
          const auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(kBlock, size - sent));
          result = dav->WriteFile(reinterpret_cast<const std::uint8_t*>(block.data()), n);
          sent += n;
        }
        if (result == Result::SUCCEEDED) {
          FileSystem::FileProperties props;
          result = dav->CloseFile(&props);
        } else {
          // The refusal ended the upload: nothing is open any more.
          EXPECT_EQ(dav->CloseFile(nullptr), Result::FAILED);
          EXPECT_TRUE(log.Contains("Received unsuccessfull http code while writing file: " +
                                   std::to_string(code) + "."));
        }
        EXPECT_EQ(result, expected);
        EXPECT_EQ(server_.Requests().back().Header("If-Match"), rewrite ? "\"e1\"" : "");
      }
    }
  }
}

TEST_F(WebDavFaultTest, WritingPastTheAnnouncedSizeEndsTheUploadBeforeSendingMore) {
  server_.Handle("PUT", "/dav/f", [](const HttpRequest&) { return HttpResponse::Status(201); });
  auto dav = Open();
  std::uint64_t offset = 0;
  ASSERT_EQ(dav->OpenForCreate({}, "f", SomeHash(), 5, 0, &offset, false), Result::SUCCEEDED);
  LoggerWrapper::Capture log;
  ASSERT_EQ(dav->WriteFile(reinterpret_cast<const std::uint8_t*>("123"), 3), Result::SUCCEEDED);
  EXPECT_EQ(dav->WriteFile(reinterpret_cast<const std::uint8_t*>("4567"), 4), Result::FAILED);
  EXPECT_TRUE(log.Contains("Write overflow; size=5, actual_offset=3."));
  EXPECT_EQ(dav->CloseFile(nullptr), Result::FAILED);
  // No body of five bytes ever reached the server: the file was never written.
  for (const HttpRequest& request : server_.Requests()) {
    EXPECT_NE(request.body_size, 5u);
  }
}

// One file at a time: a second open must not end the transfer of the first one.
TEST_F(WebDavFaultTest, AFileIsOpenedOnlyFromIdle) {
  server_.Handle(
      "PUT", "/dav/f", [](const HttpRequest&) { return HttpResponse::Status(201); },
      emulators::Match::kExact, emulators::BodyMode::kStore);
  server_.Handle("GET", "/dav/top.txt",
                 [](const HttpRequest&) { return HttpResponse::Status(200, "content"); });
  auto dav = Open();
  std::uint64_t offset = 0;
  ASSERT_EQ(dav->OpenForCreate({}, "f", SomeHash(), 6, 0, &offset, false), Result::SUCCEEDED);
  ASSERT_EQ(dav->WriteFile(reinterpret_cast<const std::uint8_t*>("abc"), 3), Result::SUCCEEDED);
  LoggerWrapper::Capture log;
  EXPECT_EQ(dav->OpenForRead("top.txt", 0, 7, 7, SomeHash()), Result::FATAL);
  EXPECT_EQ(dav->OpenForCreate({}, "g", SomeHash(), 1, 0, &offset, false), Result::FATAL);
  EXPECT_TRUE(log.Contains("A file is already open; close it first"));
  // The upload goes on as if nothing was asked.
  ASSERT_EQ(dav->WriteFile(reinterpret_cast<const std::uint8_t*>("def"), 3), Result::SUCCEEDED);
  FileSystem::FileProperties props;
  server_.Handle("PROPFIND", "/dav/f", [](const HttpRequest&) {
    return MultiStatusResponse({{"/dav/f", false, 6, "\"f1\""}});
  });
  EXPECT_EQ(dav->CloseFile(&props), Result::SUCCEEDED);
  EXPECT_EQ(server_.Requests().back().verb, "PROPFIND");
  bool whole = false;
  for (const HttpRequest& request : server_.Requests()) {
    whole = whole || (request.verb == "PUT" && request.body == "abcdef");
  }
  EXPECT_TRUE(whole);
}

// Without a client nothing may go out and nothing may crash: never opened, a failed Open, and
// closed. Operations that need the server answer FATAL with the line that says why.
TEST_F(WebDavFaultTest, WithoutAClientEveryOperationAnswersWithoutTheServer) {
  auto closed = Open();
  ASSERT_EQ(closed->Close(), Result::SUCCEEDED);
  const std::size_t before = server_.Requests().size();
  RemoteFileSystemWebDAV never(std::make_shared<RemoteFileSystemSharedData>(), "");
  RemoteFileSystemWebDAV failed(std::make_shared<RemoteFileSystemSharedData>(), "");
  EXPECT_FALSE(failed.Open(nullptr));
  RemoteFileSystemWebDAV noBase(std::make_shared<RemoteFileSystemSharedData>(), "");
  EXPECT_FALSE(noBase.Open(std::make_shared<test::RecordingProcessorFactory>("")));
  for (RemoteFileSystemWebDAV* dav : {closed.get(), &never, &failed, &noBase}) {
    LoggerWrapper::Capture log;
    FileSystem::OverwriteControl none;
    FolderNode root;
    FileNode* file = root.CreateFileW("f", 1, SomeHash(), 0);
    std::uint64_t a = 0, b = 0;
    std::uint32_t done = 0;
    std::uint8_t byte = 0;
    tsl::htrie_set<char> items;
    RemoteFileSystem::FolderListing listing;
    std::string link;
    std::queue<FileSystem::Change> changes;
    FileSystem::FileProperties props;
    const std::pair<const char*, Result> needServer[] = {
        {"CheckConnection", dav->CheckConnection()},
        {"GetCloudSize", dav->GetCloudSize(&a, &b)},
        {"GetFullTree", dav->GetFullTree(&root, &a, &b, &items)},
        {"GetFolderListing", dav->GetFolderListing("", &listing)},
        {"CreateFolderImpl", dav->CreateFolderImpl(none, "d")},
        {"DeleteFileImpl", dav->DeleteFileImpl(none, "f", 0, 0)},
        {"DeleteFolderImpl",
         dav->DeleteFolderImpl(root, FileSystem::Revision::RevisionNone(), "d")},
        {"MoveFileImpl", dav->MoveFileImpl(*file, none, "f", none, "g")},
        {"MoveFolderImpl", dav->MoveFolderImpl(root, none, "d", none, "e")},
        {"OpenForRead", dav->OpenForRead("f", 0, 1, 1, SomeHash())},
        {"OpenForCreate", dav->OpenForCreate(none, "f", SomeHash(), 1, 0, &a, false)},
        {"OpenForRewrite", dav->OpenForRewrite(none, "f", SomeHash(), 1, 0, &a)},
        {"InterruptFile", dav->InterruptFile()},
    };
    for (const auto& [name, result] : needServer) {
      EXPECT_EQ(result, Result::FATAL) << name;
    }
    EXPECT_TRUE(log.Contains("Http client not exists"));
    // The rest answer from what the adapter knows, or refuse as they always do.
    EXPECT_NE(dav->ReadFile(&byte, 1, &done), Result::SUCCEEDED);
    EXPECT_NE(dav->WriteFile(&byte, 1), Result::SUCCEEDED);
    EXPECT_NE(dav->CloseFile(&props), Result::SUCCEEDED);
    EXPECT_NE(dav->GetPublicLink("f", true, &link), Result::SUCCEEDED);
    EXPECT_NE(dav->ClosePublicLink("f"), Result::SUCCEEDED);
    EXPECT_NE(dav->GetChanges(&changes), Result::SUCCEEDED);
    EXPECT_NE(dav->RenameFileImpl(*file, none, "f", none, "g", nullptr), Result::SUCCEEDED);
    EXPECT_FALSE(dav->GetLastFiles(3).HasValue());
    EXPECT_FALSE(dav->GetThumbnail("f").HasValue());
    EXPECT_EQ(dav->GetMaxFileSize(), static_cast<std::uint64_t>(-1));
    EXPECT_EQ(dav->GetFirstSnapshotProgress(), dav->GetFirstSnapshotProgress());
    dav->Stop();
    dav->Start();
    dav->OnDiskActivity();
  }
  EXPECT_EQ(server_.Requests().size(), before);
}

// A server that tells a use and no total, or a negative "available" (some write one for
// "unlimited"), leaves nothing known to be free; it never wraps to a huge number.
TEST_F(WebDavFaultTest, AQuotaWithoutATotalLeavesNothingFree) {
  const auto answer = [](const std::string& available, const std::string& used) {
    return HttpResponse::Status(
        207,
        "<?xml version=\"1.0\"?><d:multistatus xmlns:d=\"DAV:\"><d:response><d:href>/dav/"
        "</d:href><d:propstat><d:prop>" +
            available + "<d:quota-used-bytes>" + used +
            "</d:quota-used-bytes></d:prop><d:status>HTTP/1.1 200 OK</d:status></d:propstat>"
            "</d:response></d:multistatus>");
  };
  struct Case {
    const char* name;
    std::string available;
    Result result;
    std::uint64_t total;
  };
  const Case cases[] = {
      {"no available", "", Result::SUCCEEDED, 0},
      {"empty available", "<d:quota-available-bytes/>", Result::SUCCEEDED, 0},
      {"negative available", "<d:quota-available-bytes>-3</d:quota-available-bytes>",
       Result::SUCCEEDED, 0},
      {"text available", "<d:quota-available-bytes>lots</d:quota-available-bytes>", Result::FAILED,
       0},
      {"available", "<d:quota-available-bytes>700</d:quota-available-bytes>", Result::SUCCEEDED,
       1000},
  };
  server_.Handle("PROPFIND", "/dav/a/", [](const HttpRequest&) {
    return MultiStatusResponse({{"/dav/a/", true}});
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    server_.Handle("PROPFIND", "/dav",
                   [&](const HttpRequest&) { return answer(c.available, "300"); });
    auto dav = Open();
    FolderNode root;
    std::uint64_t free = 12345, total = 12345;
    tsl::htrie_set<char> items;
    EXPECT_EQ(dav->GetFullTree(&root, &free, &total, &items), c.result);
    if (c.result == Result::SUCCEEDED) {
      EXPECT_EQ(total, c.total);
      EXPECT_EQ(free, c.total == 0 ? 0u : c.total - 300);
    }
  }
}

TEST_F(WebDavFaultTest, AServerWithoutEtagOnPutIsAskedOnceMore) {
  struct Case {
    const char* name;
    std::string propfind;  // the answer to the PROPFIND of the file
    Result result;
    std::vector<std::int64_t> waits;
  };
  const Case cases[] = {
      {"etag in the listing",
       test::Multistatus({{"/dav/f", false, 5, "\"p1\""}}),
       Result::SUCCEEDED,
       {}},
      {"size not there yet",
       test::Multistatus({{"/dav/f", false, 0, "\"p1\""}}),
       Result::SUCCEEDED,
       {300}},
      {"no etag", test::Multistatus({{"/dav/f", false, 5, ""}}), Result::FAILED, {}},
      {"broken xml", "<D:multistatus xmlns:D=\"DAV:\"><D:response>", Result::FAILED, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    utils::ManualClock clock;
    utils::ScopedClock scoped(&clock);
    auto dav = Open();
    server_.Handle("PUT", "/dav/f", [](const HttpRequest&) { return HttpResponse::Status(201); });
    server_.Handle("PROPFIND", "/dav/f", [&c](const HttpRequest& request) {
      EXPECT_EQ(request.Header("Depth"), "0");
      return HttpResponse::Status(207, c.propfind);
    });
    std::uint64_t offset = 0;
    ASSERT_EQ(dav->OpenForCreate({}, "f", SomeHash(), 5, 0, &offset, false), Result::SUCCEEDED);
    ASSERT_EQ(dav->WriteFile(reinterpret_cast<const std::uint8_t*>("12345"), 5), Result::SUCCEEDED);
    LoggerWrapper::Capture log;
    FileSystem::FileProperties props;
    EXPECT_EQ(dav->CloseFile(&props), c.result);
    EXPECT_EQ(clock.Waits(), c.waits);
    if (c.result == Result::SUCCEEDED) {
      EXPECT_EQ(props.hash, SomeHash(std::string("\"p1\"")));
    }
    EXPECT_EQ(log.Contains("No etag in response."), std::string(c.name) == "no etag");
  }
}

TEST_F(WebDavFaultTest, AReadIsCheckedAgainstTheEtagOfTheTree) {
  struct Case {
    const char* header;
    const char* expected;
    bool agree;
  };
  const Case cases[] = {
      {"\"abc123\"", "ABC123", true},          {"\"ABC123\"", "abc123", true},
      {"\"aBc123\"", "\"AbC123\"", true},      {"\"abc123\"", "a", false},
      {"\"abc123-gzip\"", "\"abc123\"", true}, {"\"abd123\"", "\"abc123\"", false},
      {nullptr, "\"anything\"", true},
  };
  const std::string content = "0123456789";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    auto dav = Open();
    server_.Handle("GET", "/dav/r", [&](const HttpRequest&) {
      HttpResponse response = HttpResponse::Status(200, content);
      if (c.header) {
        response.headers = {{"ETag", c.header}};
      }
      return response;
    });
    RadarsLogger::Capture metrics;
    LoggerWrapper::Capture log;
    ASSERT_EQ(dav->OpenForRead("r", 0, 10, 10, SomeHash(std::string(c.expected))),
              Result::SUCCEEDED);
    std::uint8_t buffer[64];
    std::uint32_t done = 0;
    EXPECT_EQ(dav->ReadFile(buffer, sizeof(buffer), &done),
              c.agree ? Result::SUCCEEDED : Result::FAILED);
    EXPECT_EQ(metrics.Count("webdav_remote_invalid_hash"), c.agree ? 0u : 1u);
    EXPECT_EQ(log.Contains("Invalid content received, expected "), !c.agree);
    if (c.agree) {
      EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), done), content);
      EXPECT_EQ(server_.Requests().back().HasHeader("Range"), false);
      EXPECT_EQ(dav->CloseFile(nullptr), Result::SUCCEEDED);
    } else {
      EXPECT_EQ(dav->ReadFile(buffer, sizeof(buffer), &done), Result::FAILED);
    }
  }
}

TEST_F(WebDavFaultTest, ARangedReadTrustsOnlyAServerThatHonouredTheRange) {
  const std::string content = emulators::PatternString(0, 1000);
  for (bool honours : {true, false}) {
    SCOPED_TRACE(honours);
    auto dav = Open();
    server_.Handle("GET", "/dav/r", [&](const HttpRequest& request) {
      EXPECT_EQ(request.Header("Range"), "bytes=100-199");
      if (!honours) {
        return HttpResponse::Status(200, content);
      }
      HttpResponse response = HttpResponse::Status(206, content.substr(100, 100));
      response.headers = {{"Content-Range", "bytes 100-199/1000"}};
      return response;
    });
    LoggerWrapper::Capture log;
    ASSERT_EQ(dav->OpenForRead("r", 100, 200, 1000, SomeHash()), Result::SUCCEEDED);
    std::uint8_t buffer[1000];
    std::uint32_t done = 0;
    EXPECT_EQ(dav->ReadFile(buffer, sizeof(buffer), &done),
              honours ? Result::SUCCEEDED : Result::FATAL);
    EXPECT_EQ(log.Contains("Invalid response range, full headers:"), !honours);
    if (honours) {
      EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), done), content.substr(100, 100));
      // Past the end the read is over: the caller stops at the size it asked for.
      EXPECT_EQ(dav->ReadFile(buffer, sizeof(buffer), &done), Result::FAILED);
    }
    dav->CloseFile(nullptr);
  }
}

TEST_F(WebDavFaultTest, OldBoxTellsAFileOverItsLimitAsTooLarge) {
  server_.Handle("PROPFIND", "/dav",
                 [](const HttpRequest&) { return Quota(5ULL << 30, 1ULL << 30); });
  server_.Handle("PUT", "/dav/huge", [](const HttpRequest&) { return HttpResponse::Status(507); });
  auto shared = std::make_shared<RemoteFileSystemBoxWebDAVSharedData>();
  RemoteFileSystemBox box(shared, "");
  RemoteFileSystemBox other(shared, "");
  ASSERT_TRUE(
      box.Open(std::make_shared<test::RecordingProcessorFactory>(server_.BaseUrl() + "/dav")));
  EXPECT_EQ(box.GetMaxFileSize(), static_cast<std::uint64_t>(-1));
  std::uint64_t total = 0, used = 0;
  ASSERT_EQ(box.GetCloudSize(&total, &used), Result::SUCCEEDED);
  EXPECT_EQ(box.GetMaxFileSize(), RemoteFileSystemBox::kSmallAccountMaxFileSize);
  // Every adapter of the account knows the limit, not only the one that asked.
  EXPECT_EQ(other.GetMaxFileSize(), RemoteFileSystemBox::kSmallAccountMaxFileSize);
  EXPECT_EQ(box.GetServiceId(), CloudServiceId::BOX);
  // A small file over the limit: the server takes the body and refuses it at the end.
  std::uint64_t offset = 0;
  ASSERT_EQ(box.OpenForCreate({}, "huge", SomeHash(), 0, 0, &offset, false), Result::SUCCEEDED);
  EXPECT_EQ(box.CloseFile(nullptr), Result::NO_SPACE);  // the upload isn't over the limit
}

}  // namespace

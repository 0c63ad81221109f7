// Stop() from another thread while a Yandex adapter is on the wire or waiting: the binary snapshot
// in the middle of its body, the waits between attempts and pages, the delta feed, and the polls
// of an operation that goes on. Each ends with STOPPED, at once.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/HttpServer.h"
#include "services/RemoteFileSystemYandex.h"
#include "support/YandexTesting.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;
using Result = FileSystem::Result;
using Clock = std::chrono::steady_clock;

constexpr auto kStopBound = std::chrono::seconds(1);

HttpResponse Answer(int status, const std::string& body) {
  HttpResponse response = HttpResponse::Status(status, body);
  response.headers = {{"Content-Type", "application/json"}, {"Item-Count", "100000"}};
  return response;
}

class YandexStopTest : public testing::Test {
 protected:
  void SetUp() override {
    test::PointYandexAt(server_.BaseUrl());
    server_.Handle("GET", "/v1/disk", [](const HttpRequest&) {
      return Answer(200, R"({"total_space":10,"used_space":1,"revision":5})");
    });
  }
  void TearDown() override { Endpoints::ResetOverrides(); }

  Result Tree(RemoteFileSystemYandex* fs) {
    std::uint64_t free = 0;
    std::uint64_t total = 0;
    tsl::htrie_set<char> items;
    FolderNode root;
    return fs->GetFullTree(&root, &free, &total, &items);
  }
  // Runs `operation` on its own thread, stops `fs` from this one once `ready` holds, and answers
  // what the operation gave, which must come within the bound.
  Result StopWhile(RemoteFileSystemYandex* fs, const std::function<Result()>& operation,
                   const std::function<bool()>& ready) {
    auto running = std::async(std::launch::async, operation);
    while (!ready()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const auto stoppedAt = Clock::now();
    fs->Stop();
    EXPECT_EQ(running.wait_for(kStopBound), std::future_status::ready);
    EXPECT_LT(Clock::now() - stoppedAt, kStopBound);
    return running.get();
  }
  bool Asked(const std::string& path) const {
    for (const HttpRequest& request : server_.Requests()) {
      if (request.path == path) {
        return true;
      }
    }
    return false;
  }

  emulators::HttpServer server_;
  std::unique_ptr<RemoteFileSystemFactory> factory_;
};

TEST_F(YandexStopTest, StopInTheMiddleOfTheBinarySnapshot) {
  std::string body;
  for (int i = 0; i < 2000; ++i) {
    body += test::SnapshotFolder("/Docs/f" + std::to_string(i));
  }
  server_.Handle("GET", "/disk/Docs", [body](const HttpRequest&) {
    HttpResponse response = Answer(200, test::SnapshotFolder("/Docs") + body);
    response.trickle_bytes = 64;
    response.trickle_interval_ms = 20;
    return response;
  });
  auto fs = test::OpenYandex("Docs", &factory_);
  ASSERT_NE(fs, nullptr);
  EXPECT_EQ(StopWhile(
                fs.get(), [&] { return Tree(fs.get()); },
                [&] { return fs->GetFirstSnapshotProgress() > 0.0; }),
            Result::STOPPED);
}

TEST_F(YandexStopTest, StopDuringTheWaits) {
  // Each wait of the adapter is where another thread's Stop lands.
  struct Case {
    const char* name;
    std::string root;
    const char* path;
    HttpResponse answer;
    std::int64_t wait;
  };
  HttpResponse cut = Answer(200, R"({"revision":1,"iteration_key":"","items":[]})");
  cut.cut_after = 10;
  const Case cases[] = {
      {"between binary attempts", "Docs", "/disk/Docs", HttpResponse::Status(503), 1000},
      {"before a lost JSON page again", "", "/v1/disk/resources/snapshot", cut, 2000},
      {"out a rate limit", "", "/v1/disk", HttpResponse::Status(429), 2000},
  };
  for (const Case& c : cases) {
    server_.Handle("GET", c.path, [&c](const HttpRequest&) { return c.answer; });
    auto fs = test::OpenYandex(c.root, &factory_);
    ASSERT_NE(fs, nullptr);
    utils::ManualClock clock;
    utils::ScopedClock scoped(&clock);
    clock.SetOnWait([&fs](std::int64_t) { std::thread([&fs] { fs->Stop(); }).join(); });
    EXPECT_EQ(Tree(fs.get()), Result::STOPPED) << c.name;
    ASSERT_FALSE(clock.Waits().empty()) << c.name;
    EXPECT_EQ(clock.Waits().front(), c.wait) << c.name;
    EXPECT_EQ(clock.Waits().size(), 1u) << c.name;
  }
}

TEST_F(YandexStopTest, StopWhileTheFeedWaitsForItsPage) {
  server_.Handle("GET", "/v1/disk/resources/snapshot", [](const HttpRequest&) {
    return Answer(200, R"({"revision":7,"iteration_key":"","items":[]})");
  });
  server_.Handle("GET", "/v1/disk/resources/deltas", [](const HttpRequest&) {
    HttpResponse response = Answer(200, R"({"revision":8,"iteration_key":"","items":[]})");
    response.delay_ms = 5000;
    return response;
  });
  auto fs = test::OpenYandex("", &factory_);
  ASSERT_NE(fs, nullptr);
  ASSERT_EQ(Tree(fs.get()), Result::SUCCEEDED);
  std::queue<FileSystem::Change> changes;
  EXPECT_EQ(StopWhile(
                fs.get(), [&] { return fs->GetChanges(&changes); },
                [&] { return Asked("/v1/disk/resources/deltas"); }),
            Result::STOPPED);
  EXPECT_TRUE(changes.empty());
  // The feed is not lost by a stop: the next call after Start asks from the same revision.
  EXPECT_FALSE(fs->ShouldRenewTree());
}

TEST_F(YandexStopTest, StopWhileTheFeedWaitsForAHash) {
  server_.Handle("GET", "/v1/disk/resources/snapshot", [](const HttpRequest&) {
    return Answer(200, R"({"revision":7,"iteration_key":"","items":[]})");
  });
  server_.Handle("GET", "/v1/disk/resources/deltas", [](const HttpRequest&) {
    return Answer(200, R"({"revision":8,"iteration_key":"","items":[{"revision":8,)"
                       R"("change_type":"new","type":"file","path":"disk:/x","resource":)"
                       R"({"size":1,"md5":"","sha256":""}}]})");
  });
  auto fs = test::OpenYandex("", &factory_);
  ASSERT_NE(fs, nullptr);
  ASSERT_EQ(Tree(fs.get()), Result::SUCCEEDED);
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  clock.SetOnWait([&fs](std::int64_t) { std::thread([&fs] { fs->Stop(); }).join(); });
  std::queue<FileSystem::Change> changes;
  EXPECT_EQ(fs->GetChanges(&changes), Result::STOPPED);
  EXPECT_EQ(clock.Waits(), std::vector<std::int64_t>{1000});
  EXPECT_FALSE(fs->ShouldRenewTree());
}

TEST_F(YandexStopTest, StopWhileAnOperationIsPolled) {
  const std::string link = server_.BaseUrl() + "/op";
  server_.Handle("DELETE", "/v1/disk/resources", [link](const HttpRequest&) {
    return Answer(202, R"({"href":")" + link + R"(","method":"GET","templated":false})");
  });
  server_.Handle("GET", "/op",
                 [](const HttpRequest&) { return Answer(200, R"({"status":"in-progress"})"); });
  auto fs = test::OpenYandex("", &factory_);
  ASSERT_NE(fs, nullptr);
  // The waits between polls pass at once: the operation is asked again and again until the stop.
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  FolderNode folder;
  EXPECT_EQ(
      StopWhile(
          fs.get(), [&] { return fs->DeleteFolderImpl(folder, FileSystem::Revision(), "big"); },
          [&] { return Asked("/op"); }),
      Result::STOPPED);
}

}  // namespace

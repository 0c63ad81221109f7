// The three threads of a Yandex account at once: the feed's GetChanges with its own processor,
// file operations that feed the conflict rule and report disk activity, and Stop from a third.
// Run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

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

HttpResponse Json(const std::string& body) {
  HttpResponse response = HttpResponse::Status(200, body);
  response.headers = {{"Content-Type", "application/json"}};
  return response;
}

TEST(YandexConcurrencyTest, FeedBesideFileOperationsAndStop) {
  // 1. A disk whose feed always has a change, so that every call asks for the size too.
  emulators::HttpServer server;
  test::PointYandexAt(server.BaseUrl());
  server.Handle("GET", "/v1/disk", [](const HttpRequest&) {
    return Json(R"({"total_space":10,"used_space":1,"revision":5})");
  });
  server.Handle("GET", "/v1/disk/resources/snapshot", [](const HttpRequest&) {
    return Json(R"({"revision":7,"iteration_key":"","items":[]})");
  });
  std::atomic<int> served{0};
  server.Handle("GET", "/v1/disk/resources/deltas", [&served](const HttpRequest&) {
    const std::string revision = std::to_string(8 + served++);
    return Json(R"({"revision":)" + revision + R"(,"iteration_key":"","items":[{"revision":)" +
                revision + R"(,"change_type":"new","type":"dir","path":"disk:/d)" + revision +
                R"("}]})");
  });
  std::unique_ptr<RemoteFileSystemFactory> factory;
  auto fs = test::OpenYandex("", &factory);
  ASSERT_NE(fs, nullptr);
  FolderNode root;
  std::uint64_t free = 0;
  std::uint64_t total = 0;
  tsl::htrie_set<char> items;
  ASSERT_EQ(fs->GetFullTree(&root, &free, &total, &items), Result::SUCCEEDED);

  // 2. The feed on its thread, applying what it gets.
  std::atomic<int> passes{0};
  auto feed = std::async(std::launch::async, [&] {
    while (true) {
      std::queue<FileSystem::Change> changes;
      const Result result = fs->GetChanges(&changes);
      if (result != Result::SUCCEEDED) {
        return result;
      }
      for (; !changes.empty(); changes.pop()) {
        EXPECT_TRUE(fs->ApplyRemoteChange(changes.front(), &root, &free, &total));
      }
      ++passes;
    }
  });

  // 3. File operations on another, until the feed has gone round a few times.
  std::atomic<bool> stopOperations{false};
  auto operations = std::async(std::launch::async, [&] {
    int rounds = 0;
    while (!stopOperations) {
      fs->NoteOperationResult(rounds % 3 ? Result::CONFLICT : Result::SUCCEEDED);
      fs->OnDiskActivity();
      fs->ShouldRenewTree();
      fs->SupportsChangesListening();
      fs->AddSelfUploadedFile("f" + std::to_string(rounds % 7), {HashYandex(), 1});
      ++rounds;
    }
    return rounds;
  });
  while (passes < 20) {
    std::this_thread::yield();
  }

  // 4. Stop from this thread ends the feed.
  fs->Stop();
  EXPECT_EQ(feed.wait_for(std::chrono::seconds(1)), std::future_status::ready);
  EXPECT_EQ(feed.get(), Result::STOPPED);
  stopOperations = true;
  EXPECT_GT(operations.get(), 0);
  EXPECT_GE(root.FolderCount(), 20u);
  EXPECT_EQ(total, 10u);
  Endpoints::ResetOverrides();
}

}  // namespace

// Stop() from another thread ends a read and an upload that the server holds, each
// within a second and with no thread left behind.
#include <gtest/gtest.h>

#include <dirent.h>
#include <chrono>
#include <future>
#include <thread>

#include "core/Nodes.h"
#include "services/RemoteFileSystemWebDAV.h"
#include "support/TestHttpServer.h"
#include "support/WebDavTesting.h"

namespace {

using Result = FileSystem::Result;
using test::HttpRequest;
using test::HttpResponse;

int ThreadCount() {
  int count = 0;
  if (DIR* dir = ::opendir("/proc/self/task")) {
    while (dirent* entry = ::readdir(dir)) {
      count += entry->d_name[0] != '.';
    }
    ::closedir(dir);
  }
  return count;
}

// A server that answers everything slowly, after the head or in a trickle of body bytes.
class WebDavStopTest : public testing::Test {
 protected:
  void SetUp() override {
    server_.Handle("PROPFIND", "/dav", [](const HttpRequest&) {
      return HttpResponse::Status(207, test::Multistatus({{"/dav/", true}}));
    });
    server_.Handle("PROPFIND", "/dav/", [](const HttpRequest&) {
      HttpResponse response = HttpResponse::Status(
          207, test::Multistatus({{"/dav/", true}, {"/dav/a/", true}, {"/dav/b/", true}}));
      return response;
    });
    server_.Handle(
        "PROPFIND", "/dav/a/",
        [](const HttpRequest&) {
          HttpResponse response = HttpResponse::Status(207, test::Multistatus({{"/dav/a/", true}}));
          response.delay_ms = 30000;
          return response;
        },
        test::Match::kPrefix);
    server_.Handle("GET", "/dav/slow", [](const HttpRequest&) {
      HttpResponse response = HttpResponse::Status(200);
      response.generated_size = 1 << 20;
      response.trickle_bytes = 10;
      response.trickle_interval_ms = 1000;
      return response;
    });
    server_.Handle(
        "PUT", "/dav/up",
        [](const HttpRequest&) {
          HttpResponse response = HttpResponse::Status(201);
          response.delay_ms = 30000;
          return response;
        },
        test::Match::kExact, test::BodyMode::kHashOnly);
    baseline_ = ThreadCount();
    dav_ = test::OpenWebDav(server_.BaseUrl() + "/dav");
    ASSERT_NE(dav_, nullptr);
  }

  // Runs `operation` on another thread, stops the adapter after `after`, and answers what the
  // operation returned and how long after the stop it took.
  template <typename Operation>
  std::pair<Result, std::chrono::milliseconds> StopDuring(Operation operation,
                                                          std::chrono::milliseconds after) {
    auto running = std::async(std::launch::async, operation);
    std::this_thread::sleep_for(after);
    const auto stopAt = std::chrono::steady_clock::now();
    dav_->Stop();
    const Result result = running.get();
    return {result, std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - stopAt)};
  }

  test::TestHttpServer server_;
  std::unique_ptr<RemoteFileSystemWebDAV> dav_;
  int baseline_ = 0;
};

TEST_F(WebDavStopTest, StopEndsAReadAndAnUpload) {
  struct Case {
    const char* name;
    std::function<Result()> operation;
  };
  const std::string block(64 * 1024, 'u');
  const Case cases[] = {
      {"read",
       [&] {
         Result result = dav_->OpenForRead("slow", 0, 1 << 20, 1 << 20, SomeHash());
         std::uint8_t buffer[4096];
         std::uint32_t done = 0;
         while (result == Result::SUCCEEDED) {
           result = dav_->ReadFile(buffer, sizeof(buffer), &done);
         }
         return result;
       }},
      {"upload",
       [&] {
         std::uint64_t offset = 0;
         Result result = dav_->OpenForCreate({}, "up", SomeHash(), block.size(), 0, &offset, false);
         if (result == Result::SUCCEEDED) {
           result = dav_->WriteFile(reinterpret_cast<const std::uint8_t*>(block.data()),
                                    static_cast<std::uint32_t>(block.size()));
         }
         FileSystem::FileProperties props;
         return result == Result::SUCCEEDED ? dav_->CloseFile(&props) : result;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto [result, took] = StopDuring(c.operation, std::chrono::milliseconds(300));
    EXPECT_EQ(result, Result::STOPPED);
    EXPECT_LT(took.count(), 1000);
    dav_->Start();
    dav_->CloseFile(nullptr);
  }
  // The walk's workers are joined; the server's own connection threads may linger a moment.
  EXPECT_EQ(ThreadCount() - baseline_ <= static_cast<int>(server_.ConnectionCount()), true);
}

TEST_F(WebDavStopTest, AStoppedAdapterWorksAgainAfterStart) {
  dav_->Stop();
  std::uint64_t total = 0, used = 0;
  EXPECT_EQ(dav_->GetCloudSize(&total, &used), Result::STOPPED);
  dav_->Start();
  EXPECT_EQ(dav_->GetCloudSize(&total, &used), Result::SUCCEEDED);
}

}  // namespace

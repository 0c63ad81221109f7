// Stop() from another thread ends a read, an upload and a tree walk that the server holds, each
// within a second and with no thread left behind.
#include <gtest/gtest.h>

#include <dirent.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "emulators/HttpServer.h"
#include "services/MultithreadedTreeDownloader.h"
#include "services/RemoteFileSystemWebDAV.h"
#include "support/WebDavTesting.h"

namespace {

using Result = FileSystem::Result;
using emulators::HttpRequest;
using emulators::HttpResponse;
using Milliseconds = std::chrono::milliseconds;

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

// Counts the requests that reached the server's handlers.
class Arrivals {
 public:
  void Signal() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  int Count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  // The limit only ends a test whose request never comes.
  bool WaitUntil(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

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
        emulators::Match::kPrefix);
    server_.Handle("GET", "/dav/slow", [this](const HttpRequest&) {
      arrivals_.Signal();
      return HttpResponse::Trickling(1000);
    });
    server_.Handle(
        "PUT", "/dav/up",
        [this](const HttpRequest&) {
          arrivals_.Signal();
          HttpResponse response = HttpResponse::Status(201);
          response.delay_ms = 30000;
          return response;
        },
        emulators::Match::kExact, emulators::BodyMode::kHashOnly);
    baseline_ = ThreadCount();
    dav_ = test::OpenWebDav(server_.BaseUrl() + "/dav");
    ASSERT_NE(dav_, nullptr);
  }

  // Runs `operation` on another thread, stops the adapter once the server has its request, and
  // answers what the operation returned and how long after the stop it took.
  template <typename Operation>
  std::pair<Result, std::chrono::milliseconds> StopOnArrival(Operation operation) {
    const int before = arrivals_.Count();
    auto running = std::async(std::launch::async, operation);
    EXPECT_TRUE(arrivals_.WaitUntil(before + 1));
    const auto stopAt = std::chrono::steady_clock::now();
    std::thread([this] { dav_->Stop(); }).join();
    const Result result = running.get();
    return {result, std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - stopAt)};
  }

  Arrivals arrivals_;
  emulators::HttpServer server_;
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
    const auto [result, took] = StopOnArrival(c.operation);
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

// Answers that the server holds until the test lets them go: a walk is caught with every worker
// inside a request, and the server's threads end when the test is done.
class HeldAnswers {
 public:
  HttpResponse Hold(HttpResponse response) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++held_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return released_; });
    --held_;
    return response;
  }
  bool WaitUntilHeld(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return held_ >= count; });
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }
  void Rearm() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int held_ = 0;
  bool released_ = false;
};

// A tree of kTop folders under the root, each with kInner subfolders of kFiles files. The
// subfolders' answers are held while `hold_` is not released; every answer may come late.
class WebDavTreeStopTest : public testing::Test {
 protected:
  static constexpr int kTop = 6;
  static constexpr int kInner = 4;
  static constexpr int kFiles = 3;
  static constexpr int kDirs = 1 + kTop + kTop * kInner;

  void SetUp() override {
    hold_.Release();
    server_.Handle("PROPFIND", "/dav", [](const HttpRequest&) {
      return HttpResponse::Status(207, test::Multistatus({{"/dav/", true}}));
    });
    server_.Handle("PROPFIND", "/dav/", [](const HttpRequest&) {
      std::vector<test::DavEntry> entries = {{"/dav/", true}};
      for (int i = 0; i < kTop; ++i) {
        entries.push_back({"/dav/t" + std::to_string(i) + "/", true});
      }
      return HttpResponse::Status(207, test::Multistatus(entries));
    });
    server_.Handle(
        "PROPFIND", "/dav/",
        [this](const HttpRequest& request) {
          if (request.path == "/dav/t" + std::to_string(vanishedTop_) + "/") {
            return HttpResponse::Status(404);
          }
          HttpResponse response = HttpResponse::Status(207, Listing(request.path));
          response.delay_ms = delayMs_;
          return hold_.Hold(response);
        },
        emulators::Match::kPrefix);
    dav_ = test::OpenWebDav(server_.BaseUrl() + "/dav");
    ASSERT_NE(dav_, nullptr);
    baseline_ = ClientThreads();
  }

  void TearDown() override { hold_.Release(); }

  // A top folder lists its subfolders, a subfolder its files.
  static std::string Listing(const std::string& path) {
    std::vector<test::DavEntry> entries = {{path, true}};
    const bool top = std::count(path.begin(), path.end(), '/') == 3;
    for (int i = 0; i < (top ? kInner : kFiles); ++i) {
      if (top) {
        entries.push_back({path + "i" + std::to_string(i) + "/", true});
      } else {
        entries.push_back({path + "f" + std::to_string(i), false, 10, "\"e\""});
      }
    }
    return test::Multistatus(entries);
  }

  struct Walk {
    Result result;
    Milliseconds tookAfterStop;
  };

  // Runs GetFullTree on another thread and stops the adapter from a third one after `after`, or
  // as soon as `heldRequests` requests are held by the server.
  Walk StopWalk(Milliseconds after, int heldRequests = 0) {
    FolderNode root;
    auto running = std::async(std::launch::async, [this, &root] {
      std::uint64_t free = 0, total = 0;
      return dav_->GetFullTree(&root, &free, &total, nullptr);
    });
    std::this_thread::sleep_for(after);
    if (heldRequests > 0) {
      EXPECT_TRUE(hold_.WaitUntilHeld(heldRequests));
    }
    const auto stopAt = std::chrono::steady_clock::now();
    std::thread([this] { dav_->Stop(); }).join();
    const Result result = running.get();
    return {result,
            std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - stopAt)};
  }

  // Threads of this process but the server's, which has one per open connection.
  int ClientThreads() const { return ThreadCount() - server_.OpenConnectionCount(); }

  // A connection's thread ends a moment after its connection: the count is given that moment.
  // Once is enough: a short-lived thread of the transport (a name lookup) may come and go at any
  // moment, so a second count could see one that has nothing to do with the walk.
  bool ThreadsBackToBaseline() const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      if (ClientThreads() <= baseline_) {
        return true;
      }
      if (std::chrono::steady_clock::now() >= end) {
        return false;
      }
      std::this_thread::sleep_for(Milliseconds(10));
    }
  }

  Result FullWalk(LoggerWrapper::Capture* log) {
    FolderNode root;
    std::uint64_t free = 0, total = 0;
    const Result result = dav_->GetFullTree(&root, &free, &total, nullptr);
    EXPECT_TRUE(log->Contains("Got total " + std::to_string(kTop * kInner * kFiles) +
                              " files and " + std::to_string(kDirs) + " dirs in WebDAV storage."));
    return result;
  }

  HeldAnswers hold_;
  std::atomic<int> delayMs_{0};
  std::atomic<int> vanishedTop_{-1};  // this top folder answers 404
  emulators::HttpServer server_;
  std::unique_ptr<RemoteFileSystemWebDAV> dav_;
  int baseline_ = 0;
};

TEST_F(WebDavTreeStopTest, StopEndsAWalkWhoseRequestsTheServerHolds) {
  LoggerWrapper::Capture log;
  hold_.Rearm();
  const Walk walk = StopWalk(Milliseconds(0), auxil::MultithreadedTreeDownloader::kThreadCount);

  EXPECT_EQ(walk.result, Result::STOPPED);
  EXPECT_LT(walk.tookAfterStop.count(), 1000);
  EXPECT_EQ(log.Count("Stopped."),
            static_cast<std::size_t>(auxil::MultithreadedTreeDownloader::kThreadCount));
  EXPECT_FALSE(log.Contains("Got error from download thread: "));
  EXPECT_FALSE(log.Contains("Fatal because of result: "));
  hold_.Release();
  EXPECT_TRUE(ThreadsBackToBaseline());

  dav_->Start();
  log.Clear();
  EXPECT_EQ(FullWalk(&log), Result::SUCCEEDED);
  EXPECT_TRUE(ThreadsBackToBaseline());
}

// The first folder of the walk has vanished while the others' answers are held: the walk ends with
// CONFLICT at once, and does not wait for the answers that no one will read.
TEST_F(WebDavTreeStopTest, AVanishedFolderEndsTheWalkWithoutWaitingForTheOthers) {
  LoggerWrapper::Capture log;
  vanishedTop_ = 0;
  hold_.Rearm();
  FolderNode root;
  auto running = std::async(std::launch::async, [this, &root] {
    std::uint64_t free = 0, total = 0;
    return dav_->GetFullTree(&root, &free, &total, nullptr);
  });
  const bool ended = running.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  hold_.Release();
  EXPECT_TRUE(ended);
  EXPECT_EQ(running.get(), Result::CONFLICT);
  EXPECT_TRUE(log.Contains("Got error from download thread: CONFLICT"));
  EXPECT_FALSE(log.Contains("Fatal because of result: "));
  EXPECT_TRUE(ThreadsBackToBaseline());
}

TEST_F(WebDavTreeStopTest, StopAtRandomMomentsOfAWalk) {
  LoggerWrapper::Capture log;
  delayMs_ = 5;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(FullWalk(&log), Result::SUCCEEDED);
  const auto length =
      std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - start);

  std::mt19937 random(20240611);
  std::uniform_int_distribution<int> moment(0, static_cast<int>(length.count()));
  for (int round = 0; round < 8; ++round) {
    const Milliseconds after(moment(random));
    SCOPED_TRACE(after.count());
    log.Clear();
    const Walk walk = StopWalk(after);
    // A walk may have ended before the stop came; a stopped request is never a failure.
    EXPECT_TRUE(walk.result == Result::STOPPED || walk.result == Result::SUCCEEDED) << walk.result;
    EXPECT_LT(walk.tookAfterStop.count(), 1000);
    EXPECT_FALSE(log.Contains("Got error from download thread: "));
    EXPECT_FALSE(log.Contains("Failed downloading directory: "));
    dav_->Start();
  }
  log.Clear();
  EXPECT_EQ(FullWalk(&log), Result::SUCCEEDED);
  EXPECT_TRUE(ThreadsBackToBaseline());
}

}  // namespace

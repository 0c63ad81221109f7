// The tree walk with real threads and the real clock: Stop from another thread, and a wide tree
// listed by all workers at once (run it under ThreadSanitizer).
#include "services/MultithreadedTreeDownloader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "support/DavTreeFixture.h"
#include "support/FakeDavTransport.h"
#include "support/WindowsNameMapper.h"

namespace {

using test::DavFolderUrl;
using test::DavListing;
using Clock = std::chrono::steady_clock;

class TreeWalk {
 public:
  // `stopFirst`: the walk is stopped before it starts, as a Stop() between the adapter's
  // publishing of the downloader and the start of the workers does.
  explicit TreeWalk(FakeDavTransport* transport, bool stopFirst = false)
      : downloader_(
            test::SendDavPropfind(), [](const std::string& etag) { return SomeHash(etag); },
            &mapper_) {
    if (stopFirst) {
      downloader_.Stop();
    }
    result_ = std::async(std::launch::async, [this, transport] {
      const FileSystem::Result result = downloader_.DownloadTree(&root_, *transport, &bytesSeen_);
      downloader_.Finish();
      return result;
    });
  }

  auxil::MultithreadedTreeDownloader& Downloader() { return downloader_; }
  FolderNode& Root() { return root_; }
  // The result, or STOPPED after a stop of its own when the walk doesn't end within `limit`.
  bool EndsWithin(std::chrono::milliseconds limit, FileSystem::Result* result) {
    const bool ended = result_.wait_for(limit) == std::future_status::ready;
    if (!ended) {
      downloader_.Stop();
    }
    *result = result_.get();
    return ended;
  }

 private:
  test::WindowsNameMapper mapper_;
  FolderNode root_;
  std::atomic<std::uint64_t> bytesSeen_{0};
  auxil::MultithreadedTreeDownloader downloader_;
  std::future<FileSystem::Result> result_;
};

void WaitForRequests(const FakeDavTransport& transport, const std::string& url, std::size_t count) {
  const Clock::time_point end = Clock::now() + std::chrono::seconds(10);
  while (transport.RequestCount(url) < count && Clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_GE(transport.RequestCount(url), count);
}

// Stop breaks a hanging request, a back-off of the real clock, and a walk without workers.
TEST(MultithreadedTreeDownloaderConcurrencyTest, StopFromAnotherThreadEndsTheWalkWithinASecond) {
  struct Case {
    const char* name;
    FakeDavTransport::Reply rootReply;
    bool failOpen;
  };
  const std::vector<Case> cases = {
      {"hanging request", {207, "", DavListing("", {}, {}), true}, false},
      {"rate limit back-off of a minute", {429, "Retry-After: 60\r\n"}, false},
      {"server error retried", {500, ""}, false},
      {"no worker could open", {207, "", DavListing("", {}, {})}, true},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    LoggerWrapper::Capture log;
    FakeDavTransport transport;
    transport.SetReplies(DavFolderUrl(""), {test.rootReply});
    if (test.failOpen) {
      transport.FailOpen();
    }
    TreeWalk walk(&transport);
    if (!test.failOpen) {
      WaitForRequests(transport, DavFolderUrl(""), 1);
    }
    std::thread([&walk] { walk.Downloader().Stop(); }).join();

    FileSystem::Result result = FileSystem::SUCCEEDED;
    EXPECT_TRUE(walk.EndsWithin(std::chrono::seconds(1), &result));
    EXPECT_EQ(result, FileSystem::STOPPED);
    EXPECT_FALSE(log.Contains("Got error from download thread: "));
    // Finish joined every worker: each closed what it opened.
    EXPECT_EQ(transport.OpenProcessors(), 0);
    EXPECT_EQ(log.Count("Failed to open urlprocessor."), test.failOpen ? 3u : 0u);
  }
}

// However the walk ends, Finish breaks the requests still running rather than wait for them.
TEST(MultithreadedTreeDownloaderConcurrencyTest, NoWorkerOutlivesTheWalkInARequest) {
  struct Case {
    const char* name;
    bool stopFirst;
    FileSystem::Result expected;
  };
  const Case cases[] = {
      {"a sibling vanished while a request hangs", false, FileSystem::CONFLICT},
      {"stopped before the workers started", true, FileSystem::STOPPED},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    FakeDavTransport transport;
    const FakeDavTransport::Reply hang{207, "", DavListing("a", {}, {}), true};
    transport.SetReplies(
        DavFolderUrl(""),
        {test.stopFirst ? hang : FakeDavTransport::Reply{207, "", DavListing("", {"a", "b"}, {})}});
    transport.SetReplies(DavFolderUrl("a"), {hang});
    transport.SetReplies(DavFolderUrl("b"), {{404, ""}});
    TreeWalk walk(&transport, test.stopFirst);

    FileSystem::Result result = FileSystem::SUCCEEDED;
    EXPECT_TRUE(walk.EndsWithin(std::chrono::seconds(1), &result));
    EXPECT_EQ(result, test.expected);
    EXPECT_EQ(transport.OpenProcessors(), 0);
  }
}

TEST(MultithreadedTreeDownloaderConcurrencyTest, AWideTreeIsListedByAllWorkers) {
  constexpr int kFolders = 40;
  FakeDavTransport transport;
  std::vector<std::string> names;
  for (int i = 0; i < kFolders; ++i) {
    const std::string name = "f" + std::to_string(i);
    names.push_back(name);
    transport.SetReplies(
        DavFolderUrl(name),
        {{207, "", DavListing(name, {"inner"}, {{"a", 1, "e1"}, {"b", 2, "e2"}})}});
    transport.SetReplies(DavFolderUrl(name + "/inner"),
                         {{207, "", DavListing(name + "/inner", {}, {{"c", 3, "e3"}})}});
  }
  transport.SetReplies(DavFolderUrl(""), {{207, "", DavListing("", names, {})}});
  LoggerWrapper::Capture log;
  TreeWalk walk(&transport);

  FileSystem::Result result = FileSystem::FAILED;
  EXPECT_TRUE(walk.EndsWithin(std::chrono::seconds(30), &result));
  EXPECT_EQ(result, FileSystem::SUCCEEDED);
  EXPECT_EQ(transport.Requests().size(), 1u + 2 * kFolders);
  EXPECT_EQ(walk.Root().FolderSize(FolderNode::WithServiceItems(true)), 6u * kFolders);
  EXPECT_TRUE(log.Contains("Got total 120 files and 81 dirs in WebDAV storage."));
}

// A stop at any moment of a walk ends it, and no thread is left behind.
TEST(MultithreadedTreeDownloaderConcurrencyTest, StopAtAnyMomentEndsTheWalk) {
  FakeDavTransport transport;
  std::vector<std::string> names;
  for (int i = 0; i < 20; ++i) {
    names.push_back("d" + std::to_string(i));
    transport.SetReplies(DavFolderUrl(names.back()),
                         {{503, ""}, {207, "", DavListing(names.back(), {}, {{"x", 1, "e"}})}});
  }
  transport.SetReplies(DavFolderUrl(""), {{207, "", DavListing("", names, {})}});
  for (int delayUs : {0, 50, 200, 1000, 5000}) {
    SCOPED_TRACE(delayUs);
    TreeWalk walk(&transport);
    std::this_thread::sleep_for(std::chrono::microseconds(delayUs));
    walk.Downloader().Stop();
    FileSystem::Result result = FileSystem::FAILED;
    EXPECT_TRUE(walk.EndsWithin(std::chrono::seconds(1), &result));
    EXPECT_TRUE(result == FileSystem::STOPPED || result == FileSystem::SUCCEEDED) << result;
    EXPECT_EQ(transport.OpenProcessors(), 0);
  }
}

}  // namespace

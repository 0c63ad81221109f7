#include "services/MultithreadedTreeDownloader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/Clock.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "support/DavTreeFixture.h"
#include "support/FakeDavTransport.h"
#include "support/WindowsNameMapper.h"

namespace {

using test::DavFolderUrl;
using test::DavListing;
using Reply = FakeDavTransport::Reply;

// The walk runs on ManualClock: every back-off and retry returns at once and is recorded.
class MultithreadedTreeDownloaderTest : public ::testing::Test {
 protected:
  FileSystem::Result Walk() {
    auxil::MultithreadedTreeDownloader downloader(
        test::SendDavPropfind(), [](const std::string& etag) { return SomeHash(etag); }, &mapper_);
    downloader_ = &downloader;
    const FileSystem::Result result = downloader.DownloadTree(&root_, transport_, &bytesSeen_);
    downloader.Finish();
    serverLacksEtag_ = downloader.ServerLacksEtag();
    downloader_ = nullptr;
    return result;
  }

  // The waits of the back-off and of the retries, in seconds; the 150 ms holds of idle workers
  // are left out.
  std::vector<std::int64_t> LongWaitsSec() const {
    std::vector<std::int64_t> waits;
    for (std::int64_t ms : clock_.Waits()) {
      if (ms != 150) {
        waits.push_back(ms / 1000);
      }
    }
    return waits;
  }

  utils::ManualClock clock_;
  utils::ScopedClock scopedClock_{&clock_};
  LoggerWrapper::Capture log_;
  RadarsLogger::Capture metrics_;
  FakeDavTransport transport_;
  test::WindowsNameMapper mapper_;
  FolderNode root_;
  std::atomic<std::uint64_t> bytesSeen_{0};
  bool serverLacksEtag_ = false;
  auxil::MultithreadedTreeDownloader* downloader_ = nullptr;
};

std::string MetricValue(const RadarsLogger::Capture& metrics, const std::string& name) {
  for (const RadarsLogger::Metric& metric : metrics.Metrics()) {
    if (metric.name == name) {
      return metric.value;
    }
  }
  return "<none>";
}

TEST_F(MultithreadedTreeDownloaderTest, WalksTheWholeTreeOnceEachFolder) {
  transport_.SetReplies(DavFolderUrl(""),
                        {{207, "", DavListing("", {"x", "y z"}, {{"a", 10, "\"ea\""}})}});
  transport_.SetReplies(DavFolderUrl("x"),
                        {{207, "", DavListing("x", {"deep"}, {{"b", 20, "\"eb\""}})}});
  transport_.SetReplies(DavFolderUrl("x/deep"),
                        {{207, "", DavListing("x/deep", {}, {{"c", 30, "\"ec\""}})}});
  transport_.SetReplies(DavFolderUrl("y z"), {{207, "", DavListing("y z", {}, {})}});

  EXPECT_EQ(Walk(), FileSystem::SUCCEEDED);

  ASSERT_NE(root_.GetFile("a"), nullptr);
  EXPECT_EQ(root_.GetFile("a")->size, 10u);
  EXPECT_EQ(root_.GetFile("a")->hash.GetHashGenericString(), "\"ea\"");
  ASSERT_NE(root_.GetFolder("x"), nullptr);
  ASSERT_NE(root_.GetFolder("x")->GetFolder("deep"), nullptr);
  EXPECT_NE(root_.GetFolder("x")->GetFolder("deep")->GetFile("c"), nullptr);
  ASSERT_NE(root_.GetFolder("y z"), nullptr);
  EXPECT_EQ(bytesSeen_, 60u);
  for (const char* path : {"", "x", "x/deep", "y z"}) {
    EXPECT_EQ(transport_.RequestCount(DavFolderUrl(path)), 1u) << path;
  }
  EXPECT_EQ(transport_.Requests().size(), 4u);
  EXPECT_EQ(transport_.ProcessorCount(), 3u);
  EXPECT_EQ(transport_.OpenProcessors(), 0);
  EXPECT_TRUE(log_.Contains("Got total 3 files and 4 dirs in WebDAV storage."));
  EXPECT_EQ(MetricValue(metrics_, "count_files_in_webdav"), "3");
  EXPECT_EQ(MetricValue(metrics_, "count_folders_in_webdav"), "4");
  EXPECT_TRUE(clock_.Waits().empty());
  EXPECT_TRUE(log_.LinesAtLevel(LogType::kWarning).empty());
}

TEST_F(MultithreadedTreeDownloaderTest, AnEmptyRootIsOneRequest) {
  transport_.SetReplies(DavFolderUrl(""), {{207, "", DavListing("", {}, {})}});
  EXPECT_EQ(Walk(), FileSystem::SUCCEEDED);
  EXPECT_EQ(transport_.Requests(), std::vector<std::string>{"PROPFIND http://dav.test/"});
  EXPECT_TRUE(log_.Contains("Got total 0 files and 1 dirs in WebDAV storage."));
}

// The back-off row of a rate limited server, and the server's own word where it gives one.
TEST_F(MultithreadedTreeDownloaderTest, RateLimitsWaitAsAskedOrByTheRow) {
  struct Case {
    const char* name;
    std::vector<Reply> limits;
    std::vector<std::int64_t> waits;
    std::vector<const char*> words;
  };
  const std::vector<Case> cases = {
      {"asks for more than the cap",
       {{429, "Retry-After: 500\r\n"}},
       {90},
       {"Retry after 90 seconds, as asked by server."}},
      {"asks for a few seconds, white space around",
       {{429, "retry-after:   7  \r\n"}},
       {7},
       {"Retry after 7 seconds, as asked by server."}},
      {"zero and a date fall back to the row",
       {{429, "Retry-After: 0\r\n"}, {503, "Retry-After: Wed, 21 Oct 2015 07:28:00 GMT\r\n"}},
       {2, 3},
       {"Retry after 2 seconds.", "Retry after 3 seconds."}},
      {"the server's word leaves the row where it was",
       {{503, ""}, {503, "Retry-After: 5\r\n"}, {503, ""}},
       {2, 5, 3},
       {}},
      {"503 without the header on consecutive tries",
       std::vector<Reply>(12, Reply{503, ""}),
       {2, 3, 4, 6, 9, 13, 19, 28, 42, 63, 90, 90},
       {"Retry after 90 seconds."}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    std::vector<Reply> replies = test.limits;
    replies.push_back({207, "", DavListing("", {}, {{"f", 1, "e"}})});
    transport_.SetReplies(DavFolderUrl(""), replies);
    log_.Clear();
    metrics_.Clear();
    const std::size_t waitsBefore = LongWaitsSec().size();
    root_.Clear();

    EXPECT_EQ(Walk(), FileSystem::SUCCEEDED);

    const std::vector<std::int64_t> all = LongWaitsSec();
    EXPECT_EQ(std::vector<std::int64_t>(all.begin() + waitsBefore, all.end()), test.waits);
    EXPECT_EQ(log_.Count("Got rate limit while downloading dir."), test.limits.size());
    for (const char* word : test.words) {
      EXPECT_TRUE(log_.Contains(word)) << word;
    }
    // One metric per run of limits, ended by the good answer.
    EXPECT_EQ(metrics_.Count("webdav_listing_rate_limit"), 1u);
    EXPECT_NE(root_.GetFile("f"), nullptr);
  }
}

TEST_F(MultithreadedTreeDownloaderTest, TheRateLimitMetricCountsSecondsSinceTheLastGoodAnswer) {
  transport_.SetReplies(DavFolderUrl(""), {{207, "", DavListing("", {"a"}, {})}});
  transport_.SetReplies(DavFolderUrl("a"),
                        {{500, ""}, {503, ""}, {503, ""}, {207, "", DavListing("a", {}, {})}});
  EXPECT_EQ(Walk(), FileSystem::SUCCEEDED);
  // The root was the last good answer; the retry of the 500 took 3 seconds since.
  EXPECT_EQ(metrics_.Count("webdav_listing_rate_limit"), 1u);
  EXPECT_EQ(MetricValue(metrics_, "webdav_listing_rate_limit"), "3");
}

// Answers that end the walk: the folder that vanished, the listing that can't be used.
TEST_F(MultithreadedTreeDownloaderTest, AFailedFolderEndsTheWalk) {
  struct Case {
    const char* name;
    Reply reply;
    FileSystem::Result result;
    bool lacksEtag;
    std::vector<const char*> words;
    bool fatalWord;
  };
  const std::vector<Case> cases = {
      {"vanished folder",
       {404, ""},
       FileSystem::CONFLICT,
       false,
       {"Failed downloading directory: CONFLICT", "Got error from download thread: CONFLICT"},
       false},
      {"file without etag",
       {207, "", DavListing("sub", {}, {{"a", 1, "e"}, {"n", 2, ""}})},
       FileSystem::FATAL,
       true,
       {"Failed to parse xml propstat for folder: sub", "Failed downloading directory: FATAL",
        "Got error from download thread: FATAL", "Fatal because of result: FATAL"},
       true},
      {"malformed listing",
       {207, "", "<D:multistatus xmlns:D=\"DAV:\"><D:response>"},
       FileSystem::FATAL,
       false,
       {"Failed to parse xml propstat for folder: sub", "Got error from download thread: FATAL"},
       true},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    root_.Clear();
    log_.Clear();
    transport_.SetReplies(DavFolderUrl(""), {{207, "", DavListing("", {"sub"}, {})}});
    transport_.SetReplies(DavFolderUrl("sub"), {test.reply});

    EXPECT_EQ(Walk(), test.result);
    EXPECT_EQ(serverLacksEtag_, test.lacksEtag);
    for (const char* word : test.words) {
      EXPECT_TRUE(log_.Contains(word)) << word;
    }
    EXPECT_EQ(log_.Contains("Fatal because of result: "), test.fatalWord);
    // What the failed parse added is dropped again.
    ASSERT_NE(root_.GetFolder("sub"), nullptr);
    EXPECT_EQ(root_.GetFolder("sub")->FileCount(), 0u);
    EXPECT_EQ(transport_.OpenProcessors(), 0);
  }
}

TEST_F(MultithreadedTreeDownloaderTest, AServerErrorIsRetriedEveryThreeSecondsUntilStop) {
  transport_.SetReplies(DavFolderUrl(""), {{500, ""}});
  int retries = 0;
  clock_.SetOnWait([&](std::int64_t ms) {
    if (ms == 3000 && ++retries == 5) {
      downloader_->Stop();
    }
  });

  EXPECT_EQ(Walk(), FileSystem::STOPPED);

  EXPECT_EQ(LongWaitsSec(), std::vector<std::int64_t>(5, 3));
  EXPECT_EQ(transport_.RequestCount(DavFolderUrl("")), 5u);
  EXPECT_EQ(log_.Count("Failed downloading directory: FAILED"), 5u);
  EXPECT_FALSE(log_.Contains("Got error from download thread: "));
  EXPECT_FALSE(log_.Contains("Fatal because of result: "));
}

TEST_F(MultithreadedTreeDownloaderTest, StopDuringABackOffEndsTheWaitAndTheWalk) {
  transport_.SetReplies(DavFolderUrl(""), {{429, "Retry-After: 60\r\n"}});
  clock_.SetOnWait([&](std::int64_t ms) {
    if (ms == 60'000) {
      downloader_->Stop();
    }
  });
  const std::int64_t before = clock_.SteadyMs();

  EXPECT_EQ(Walk(), FileSystem::STOPPED);

  // The wait was cut short: the clock did not move by its length.
  EXPECT_EQ(clock_.SteadyMs(), before);
  EXPECT_EQ(transport_.RequestCount(DavFolderUrl("")), 1u);
  EXPECT_FALSE(log_.Contains("Got error from download thread: "));
}

// While one worker backs off a rate limit, the others send nothing: each holds its next request
// until the first good answer. The workers are driven through the clock's waits: the retries of
// "b" and "c" come back once "a" is in its back-off, which lasts until both were seen holding.
TEST_F(MultithreadedTreeDownloaderTest, OneWorkersBackOffHoldsTheOthers) {
  transport_.SetReplies(DavFolderUrl(""), {{207, "", DavListing("", {"a", "b", "c"}, {})}});
  transport_.SetReplies(DavFolderUrl("a"),
                        {{429, "Retry-After: 60\r\n"}, {207, "", DavListing("a", {}, {})}});
  for (const char* name : {"b", "c"}) {
    transport_.SetReplies(DavFolderUrl(name), {{500, ""}, {207, "", DavListing(name, {}, {})}});
  }
  std::mutex mutex;
  std::condition_variable changed;
  bool backingOff = false;
  std::set<std::thread::id> holders;
  bool othersHeld = false;
  std::vector<std::string> sentBeforeTheBackOffEnded;
  clock_.SetOnWait([&](std::int64_t ms) {
    std::unique_lock<std::mutex> lock(mutex);
    if (ms == 3000) {
      changed.wait(lock, [&] { return backingOff; });
    } else if (ms == 150) {
      holders.insert(std::this_thread::get_id());
      changed.notify_all();
    } else if (ms == 60'000) {
      backingOff = true;
      changed.notify_all();
      // Only a broken hold lets this guard run out.
      othersHeld =
          changed.wait_for(lock, std::chrono::seconds(20), [&] { return holders.size() == 2; });
      sentBeforeTheBackOffEnded = transport_.Requests();
    }
  });

  EXPECT_EQ(Walk(), FileSystem::SUCCEEDED);

  EXPECT_TRUE(othersHeld);
  for (const char* name : {"b", "c"}) {
    SCOPED_TRACE(name);
    const std::string request = "PROPFIND " + DavFolderUrl(name);
    EXPECT_LE(
        std::count(sentBeforeTheBackOffEnded.begin(), sentBeforeTheBackOffEnded.end(), request), 1);
    // The held retry went out after the good answer that ended the back-off.
    const std::vector<std::string> all = transport_.Requests();
    const auto aAgain =
        std::find(std::find(all.begin(), all.end(), "PROPFIND " + DavFolderUrl("a")) + 1, all.end(),
                  "PROPFIND " + DavFolderUrl("a"));
    ASSERT_NE(aAgain, all.end());
    EXPECT_EQ(std::count(all.begin(), all.end(), request), 2);
    EXPECT_NE(std::find(aAgain, all.end(), request), all.end());
  }
  EXPECT_EQ(metrics_.Count("webdav_listing_rate_limit"), 1u);
  EXPECT_EQ(log_.Count("Got rate limit while downloading dir."), 1u);
}

TEST(InterThreadQueueTest, BoundsCountAndSizeAndGivesUpAfterTheWait) {
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  struct Case {
    std::int64_t maxCount;
    std::int64_t maxSize;
    std::size_t fits;
  };
  for (const Case& test : {Case{2, 0, 2}, Case{0, 3 * sizeof(int), 3}, Case{0, 0, 10}}) {
    utils::InterThreadQueue<int> queue(test.maxCount, test.maxSize);
    std::size_t pushed = 0;
    while (pushed < 10 && queue.Push(static_cast<int>(pushed), 50)) {
      ++pushed;
    }
    EXPECT_EQ(pushed, test.fits);
    EXPECT_EQ(queue.Pop(), 0);
    EXPECT_TRUE(queue.Push(99, 50));
    queue.Clear();
    EXPECT_TRUE(queue.IsEmpty());
  }
}

TEST(InterThreadQueueTest, AClosedQueueDropsPushesAndADestroyedFullOneSaysSo) {
  LoggerWrapper::Capture log;
  {
    utils::InterThreadQueue<std::string> queue;
    EXPECT_TRUE(queue.Push("a"));
    queue.Close();
    EXPECT_FALSE(queue.Push("b"));
    EXPECT_EQ(queue.Pop(), "a");
    EXPECT_TRUE(queue.IsEmpty());
  }
  EXPECT_FALSE(log.Contains("Non empty queue destroyed."));
  {
    utils::InterThreadQueue<std::string> queue;
    queue.Push("left behind");
  }
  EXPECT_EQ(log.Count("Non empty queue destroyed."), 1u);
}

}  // namespace

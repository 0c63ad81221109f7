// The pace of the Google feed and what ends its pauses from other threads: polls 4 seconds apart,
// 20 minutes apart once the disk has been left alone, disk activity, Stop and a conflict of an
// item operation each ending the long pause at once; and a folder made while the feed polls,
// whose echo the feed meets before the creating request has answered.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/Clock.h"
#include "core/LoggerWrapper.h"
#include "support/GoogleFeedTesting.h"

namespace {

using Change = FileSystem::Change;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const FileSystem::OverwriteControl kNone;

// Time that tests move by hand, with waits that really block until they are woken: what ends a
// 20-minute pause is then seen to end it. No wait outlasts the test's patience.
class HeldClock : public utils::Clock {
 public:
  explicit HeldClock(std::int64_t now_ms) : now_ms_(now_ms) {}
  std::int64_t NowMs() override { return now_ms_; }
  std::int64_t SteadyMs() override { return now_ms_; }
  bool WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               std::int64_t ms, const std::function<bool()>& stopped) override {
    waits_.push_back(ms);
    return condition.wait_for(lock, std::chrono::seconds(5), stopped);
  }
  void SleepMs(std::int64_t, const std::atomic<bool>*) override {}
  std::vector<std::int64_t> Waits() const { return waits_; }

 private:
  std::atomic<std::int64_t> now_ms_;
  std::vector<std::int64_t> waits_;  // only the polling thread waits
};

TEST(GoogleFeedPaceConcurrencyTest, PollsAreFourSecondsApartThenTwentyMinutesWhenLeftAlone) {
  test::GoogleFeed feed;
  feed.Load();
  std::size_t before = feed.drive.clock.Waits().size();
  LoggerWrapper::Capture log;
  ASSERT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  ASSERT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  EXPECT_FALSE(log.Contains("INACTIVE"));
  feed.drive.clock.Advance(121'000);
  ASSERT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Switched to getting changes in INACTIVE mode."));
  EXPECT_TRUE(feed.drive.fs->IsInactive());
  feed.drive.fs->OnDiskActivity();
  EXPECT_FALSE(feed.drive.fs->IsInactive());
  ASSERT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  std::vector<std::int64_t> waits = feed.drive.clock.Waits();
  EXPECT_EQ(
      std::vector<std::int64_t>(waits.begin() + static_cast<std::ptrdiff_t>(before), waits.end()),
      (std::vector<std::int64_t>{4'000, 4'000, 1'200'000, 4'000}));
}

TEST(GoogleFeedPaceConcurrencyTest, TheLongPauseEndsAtOnceFromAnotherThread) {
  struct Case {
    const char* name;
    std::function<void(test::GoogleFeed&)> wake;
    FileSystem::Result result;
    const char* log;
  };
  const Case cases[] = {
      {"disk activity", [](test::GoogleFeed& feed) { feed.drive.fs->OnDiskActivity(); },
       FileSystem::SUCCEEDED, "Switched to getting changes in ACTIVE mode."},
      {"Stop", [](test::GoogleFeed& feed) { feed.drive.fs->Stop(); }, FileSystem::STOPPED, nullptr},
      {"a conflict of an item operation",
       [](test::GoogleFeed& feed) {
         feed.drive.account().Delete(feed.drive.account().FindByPath("gone.txt")->id);
         EXPECT_EQ(feed.drive.fs->DeleteFileImpl(kNone, "gone.txt", 4, 0), FileSystem::CONFLICT);
       },
       FileSystem::SUCCEEDED, "Not found."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::GoogleFeed feed;
    emulators::CloudAccount& account = feed.drive.account();
    account.CreateFile(account.RootId(), "gone.txt", "gone", 0, nullptr);
    feed.Load();
    // 1. Two idle minutes later the feed sleeps for twenty.
    HeldClock clock(feed.drive.clock.NowMs() + 121'000);
    utils::ScopedClock scoped(&clock);
    LoggerWrapper::Capture log;
    std::atomic<bool> inside{false};
    FileSystem::Result result = FileSystem::FAILED;
    std::thread poller([&] {
      std::queue<Change> changes;
      inside = true;
      result = feed.drive.fs->GetChanges(&changes);
    });
    for (int i = 0; i < 5000 && !(inside && feed.drive.fs->IsInactive()); ++i) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    if (!feed.drive.fs->IsInactive()) {
      ADD_FAILURE() << "the feed never went to sleep";
      feed.drive.fs->Stop();
      poller.join();
      continue;
    }
    // 2. Woken from here.
    steady_clock::time_point start = steady_clock::now();
    c.wake(feed);
    poller.join();
    EXPECT_LT(steady_clock::now() - start, milliseconds(100));
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(clock.Waits().back(), 1'200'000);
    if (c.log) {
      EXPECT_TRUE(log.Contains(c.log)) << c.log;
    }
  }
}

TEST(GoogleFolderRaceConcurrencyTest, FolderSeenByTheFeedBeforeItsAnswerIsNoForeignChange) {
  test::GoogleFeed feed;
  emulators::GoogleDialect::SeedDemoDrive(feed.drive.account());
  feed.Load();
  // 1. The creation's answer is held back while the feed polls on.
  feed.drive.emulator->faults().Add(
      emulators::FaultRule::On("POST", "/drive/v3/files").DelayMs(400));
  LoggerWrapper::Capture log;
  std::atomic<bool> creating{true};
  std::atomic<int> polls_while_creating{0};
  std::vector<Change> seen;
  bool applied = true;
  std::thread poller([&] {
    while (creating) {
      std::queue<Change> changes;
      EXPECT_EQ(feed.drive.fs->GetChanges(&changes), FileSystem::SUCCEEDED);
      for (; !changes.empty(); changes.pop()) {
        applied = feed.drive.fs->ApplyRemoteChange(changes.front(), &feed.root, &feed.free,
                                                   &feed.total) &&
                  applied;
        seen.push_back(changes.front());
      }
      ++polls_while_creating;
    }
  });
  EXPECT_EQ(feed.drive.fs->CreateFolderImpl(kNone, "Docs/race"), FileSystem::SUCCEEDED);
  // The feed met the folder while its answer was held back.
  EXPECT_EQ(log.Count("Skipping self-made folder creation: race"), 1u);
  creating = false;
  poller.join();
  // 2. The feed was never held up, and took the folder for the echo it is, once.
  EXPECT_GE(polls_while_creating, 2);
  feed.PollUntilIdle();
  seen.insert(seen.end(), feed.changes.begin(), feed.changes.end());
  EXPECT_EQ(test::ChangeLines(seen), std::vector<std::string>{});
  EXPECT_EQ(log.Count("Skipping self-made folder creation: race"), 1u);
  EXPECT_TRUE(applied && feed.applied_all);
  feed.drive.clock.Advance(101'000);
  EXPECT_FALSE(feed.drive.fs->ShouldRenewTree());
  // 3. The folder is in the id tree, where the next folder made in it goes.
  EXPECT_EQ(feed.drive.fs->CreateFolderImpl(kNone, "Docs/race/inner"), FileSystem::SUCCEEDED);
}

}  // namespace

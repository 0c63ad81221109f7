// The feed and file operations or uploads on one instance from two threads, and Stop from a third:
// the self-made records are shared by both threads, and Stop ends a held longpoll at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "support/DropboxTesting.h"
#include "support/HashOf.h"

namespace {

// Follows the feed on its own thread until a Stop ends it.
class FeedThread {
 public:
  explicit FeedThread(DropboxFixture& fixture)
      : thread_([this, &fixture] {
          do {
            last_ = fixture.FollowFeed();
          } while (last_ == FileSystem::SUCCEEDED);
        }) {}
  // Stops the adapter and answers how the feed ended; the feed's thread is gone after it.
  FileSystem::Result StopAndJoin(DropboxFixture& fixture, std::chrono::nanoseconds* took) {
    const auto stop_time = std::chrono::steady_clock::now();
    fixture.adapter().Stop();
    thread_.join();
    *took = std::chrono::steady_clock::now() - stop_time;
    return last_;
  }

 private:
  FileSystem::Result last_ = FileSystem::SUCCEEDED;
  std::thread thread_;
};

// Polls until `done` holds or about two seconds passed: the feed delivers on its own time.
template <typename Done>
void Settle(Done done) {
  for (int i = 0; i < 200 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

TEST(DropboxConcurrencyTest, FeedBesideOperationsThenStopEndsTheFeed) {
  DropboxFixture fixture;
  fixture.dialect().SetLongpollSecondMs(1000);  // a poll held until a change or a Stop
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  LoggerWrapper::Capture log;
  FeedThread feed(fixture);
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(fixture.adapter().CreateFolderImpl({}, "f" + std::to_string(i)),
              FileSystem::SUCCEEDED);
  }
  // An echo read before its record was added is applied as a foreign change instead: either way
  // each folder ends in the tree exactly once or is dropped exactly once.
  Settle([&] { return log.Count("Skipping self made change: FOLDER_CREATE") == 20; });
  std::chrono::nanoseconds took{};
  EXPECT_EQ(feed.StopAndJoin(fixture, &took), FileSystem::STOPPED);
  EXPECT_LT(took, std::chrono::seconds(1));
  EXPECT_EQ(log.Count("Skipping self made change: FOLDER_CREATE") + fixture.tree().FolderCount(),
            20u);
  EXPECT_EQ(fixture.adapter().CreateFolderImpl({}, "late"), FileSystem::STOPPED);
}

TEST(DropboxConcurrencyTest, UploadsFinishWhileTheFeedRunsOnTheSameInstance) {
  DropboxFixture fixture;
  fixture.dialect().SetLongpollSecondMs(1000);
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  LoggerWrapper::Capture log;
  FeedThread feed(fixture);
  // One-shot uploads, and sessions left open until CloseFile (no time) so that the finish is the
  // last request of each.
  const int kUploads = 12;
  for (int i = 0; i < kUploads; ++i) {
    const std::string bytes(1000 + i, static_cast<char>('a' + i));
    const SomeHash hash = test::HashOf<HashCalculatorDropbox>(bytes);
    std::uint64_t resume = 0;
    ASSERT_EQ(fixture.adapter().OpenForCreate({}, "up" + std::to_string(i) + ".bin", hash,
                                              bytes.size(), i % 2 ? 0 : 1700000000, &resume, false),
              FileSystem::SUCCEEDED);
    ASSERT_EQ(fixture.adapter().WriteFile(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                          static_cast<std::uint32_t>(bytes.size())),
              FileSystem::SUCCEEDED);
    FileSystem::FileProperties props(SomeHash(), 0, bytes.size(), 1700000000, false);
    ASSERT_EQ(fixture.adapter().CloseFile(&props), FileSystem::SUCCEEDED);
    EXPECT_EQ(props.hash.GetHashDropbox(), hash.GetHashDropbox());
  }
  // Each upload is in the tree as a foreign change or its echo was dropped, never both.
  Settle([&] { return log.Count("Skipping self made change: FILE_CREATE") == kUploads; });
  std::chrono::nanoseconds took{};
  EXPECT_EQ(feed.StopAndJoin(fixture, &took), FileSystem::STOPPED);
  EXPECT_LT(took, std::chrono::seconds(1));
  EXPECT_EQ(log.Count("Skipping self made change: FILE_CREATE") + fixture.tree().FileCount(),
            static_cast<std::size_t>(kUploads));
  EXPECT_EQ(fixture.account().ItemCount(), static_cast<std::size_t>(kUploads) + 1);
}

}  // namespace

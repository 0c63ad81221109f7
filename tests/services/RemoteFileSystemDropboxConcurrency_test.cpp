// The feed and file operations on one instance from two threads, and Stop from a third: the
// self-made records are shared by both threads, and Stop ends a held longpoll at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/LoggerWrapper.h"
#include "support/DropboxTesting.h"

namespace {

TEST(DropboxConcurrencyTest, FeedBesideOperationsThenStopEndsTheFeed) {
  DropboxFixture fixture;
  fixture.dialect().SetLongpollSecondMs(1000);  // a poll held until a change or a Stop
  ASSERT_EQ(fixture.LoadTree(), FileSystem::SUCCEEDED);
  LoggerWrapper::Capture log;
  std::atomic<int> rounds{0};
  FileSystem::Result last = FileSystem::SUCCEEDED;
  std::thread feed([&] {
    do {
      last = fixture.FollowFeed();
      ++rounds;
    } while (last == FileSystem::SUCCEEDED);
  });
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(fixture.adapter().CreateFolderImpl({}, "f" + std::to_string(i)),
              FileSystem::SUCCEEDED);
  }
  // An echo read before its record was added is applied as a foreign change instead: either way
  // each folder ends in the tree exactly once or is dropped exactly once.
  auto settled = [&] { return log.Count("Skipping self made change: FOLDER_CREATE") == 20; };
  for (int i = 0; i < 200 && !settled(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  auto stop_time = std::chrono::steady_clock::now();
  fixture.adapter().Stop();
  feed.join();
  EXPECT_LT(std::chrono::steady_clock::now() - stop_time, std::chrono::seconds(1));
  EXPECT_EQ(last, FileSystem::STOPPED);
  EXPECT_EQ(log.Count("Skipping self made change: FOLDER_CREATE") + fixture.tree().FolderCount(),
            20u);
  EXPECT_EQ(fixture.adapter().CreateFolderImpl({}, "late"), FileSystem::STOPPED);
}

}  // namespace

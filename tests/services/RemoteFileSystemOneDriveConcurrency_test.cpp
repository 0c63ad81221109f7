// One OneDrive adapter from two threads, as the client uses it: file operations on one, the feed
// on the other (under ThreadSanitizer in CI), and Stop from another thread during a chunk.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <queue>
#include <thread>

#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "emulators/Emulator.h"
#include "emulators/OneDriveDialect.h"
#include "services/RemoteFileSystemOneDrive.h"
#include "support/HashOf.h"
#include "support/OneDriveTesting.h"
#include "support/StopOnceReady.h"

namespace {

using Result = FileSystem::Result;

constexpr auto QuickXorOf = test::HashOf<HashCalculatorOneDrive>;

class OneDriveConcurrencyTest : public test::OneDriveEmulatorTest {
 protected:
  void SetUp() override {
    OneDriveEmulatorTest::SetUp();
    ASSERT_FALSE(HasFatalFailure());
    emulators::Item work;
    ASSERT_EQ(emulator_->account().CreateFolder(emulator_->account().RootId(), "Work", &work),
              emulators::AccountError::kNone);
    drive_ = OpenDrive();
    std::uint64_t free = 0, total = 0;
    ASSERT_EQ(drive_->GetFullTree(&root_, &free, &total, nullptr), Result::SUCCEEDED);
  }
  Result Upload(const std::string& path, const std::string& content, std::uint64_t time) {
    std::uint64_t offset = 0;
    Result result =
        drive_->OpenForCreate({}, path, QuickXorOf(content), content.size(), time, &offset, false);
    if (result == Result::SUCCEEDED)
      result = drive_->WriteFile(reinterpret_cast<const std::uint8_t*>(content.data()),
                                 static_cast<std::uint32_t>(content.size()));
    if (result == Result::SUCCEEDED)
      result = drive_->CloseFile(nullptr);
    return result;
  }

  std::unique_ptr<RemoteFileSystemOneDrive> drive_;
  FolderNode root_;
};

TEST_F(OneDriveConcurrencyTest, FileOperationsBesideTheFeedOnOneInstance) {
  // 1. The feed runs on its own thread, applying to the tree it keeps.
  std::atomic<bool> done{false};
  std::atomic<int> rounds{0};
  auto feed_round = [this] {
    std::queue<FileSystem::Change> changes;
    if (drive_->GetChanges(&changes) != Result::SUCCEEDED)
      return;
    std::uint64_t free = 0, total = 0;
    for (; !changes.empty(); changes.pop()) {
      FileSystem::Change change = changes.front();
      drive_->PrepareRemoteChange(&change);
      drive_->ApplyRemoteChange(change, &root_, &free, &total);
    }
  };
  std::thread feed([&] {
    while (!done.load()) {
      feed_round();
      rounds.fetch_add(1);
    }
  });
  // 2. Meanwhile every kind of file operation, each recording what the feed will bring back.
  LoggerWrapper::Capture log;
  FolderNode holder;
  const FileNode* node = holder.CreateFileW("x", 5, SomeHash(), 0);
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(i);
    const std::string folder = "Work/f" + std::to_string(i);
    ASSERT_EQ(drive_->CreateFolderImpl({}, folder), Result::SUCCEEDED);
    ASSERT_EQ(Upload(folder + "/a.bin", std::string(1000 + i, 'a'), 1'600'000'000 + i),
              Result::SUCCEEDED);
    ASSERT_EQ(Upload(folder + "/b.bin", std::string(10, 'b'), 0), Result::SUCCEEDED);
    ASSERT_EQ(drive_->RenameFileImpl(*node, {}, folder + "/a.bin", {}, folder + "/c.bin", nullptr),
              Result::SUCCEEDED);
    ASSERT_EQ(drive_->DeleteFileImpl({}, folder + "/b.bin", 10, 0), Result::SUCCEEDED);
    if (i % 2 == 1) {
      ASSERT_EQ(drive_->DeleteFolderImpl(holder, FileSystem::Revision::RevisionNone(), folder),
                Result::SUCCEEDED);
    }
  }
  while (rounds.load() < 2) {
    std::this_thread::yield();
  }
  done.store(true);
  feed.join();
  // 3. A last round takes the echoes still on the way; the account is as the operations left it.
  feed_round();
  EXPECT_EQ(shared_->ids.GetPathById(emulator_->account().FindByPath("Work/f4/c.bin")->id),
            std::optional<std::string>("Work/f4/c.bin"));
  EXPECT_FALSE(emulator_->account().FindByPath("Work/f1"));
  EXPECT_GT(log.Count("Skipping self made change: "), 0u);
}

TEST_F(OneDriveConcurrencyTest, StopDuringAChunkAnswersStoppedAndKeepsTheSession) {
  // The answer to the chunk is held far longer than the test waits, and never given.
  emulator_->faults().Add(emulators::FaultRule::On("PUT", "/_upload/").Status(503).DelayMs(20000));
  const std::string content(400000, 'q');
  std::uint64_t offset = 0;
  ASSERT_EQ(drive_->OpenForCreate({}, "Work/held.bin", QuickXorOf(content), content.size(), 0,
                                  &offset, false),
            Result::SUCCEEDED);
  // Stop once the service holds the whole chunk and has yet to answer.
  const auto written = test::StopOnceReady(
      [this, &content] {
        return drive_->WriteFile(reinterpret_cast<const std::uint8_t*>(content.data()),
                                 static_cast<std::uint32_t>(content.size()));
      },
      [this] { return emulator_->faults().Fired() > 0; }, [this] { drive_->Stop(); });
  EXPECT_EQ(written.value, Result::STOPPED);
  EXPECT_LT(written.took, std::chrono::seconds(1));
  EXPECT_EQ(shared_->sessions.Count(), 1u);
  // Another adapter of the account takes the session up where the service stands.
  RadarsLogger::Capture metrics;
  LoggerWrapper::Capture log;
  auto other = OpenDrive();
  ASSERT_EQ(other->OpenForCreate({}, "Work/held.bin", QuickXorOf(content), content.size(), 0,
                                 &offset, false),
            Result::SUCCEEDED)
      << testing::PrintToString(log.Lines());
  EXPECT_EQ(offset, 0u);
  EXPECT_EQ(metrics.Count("onedrive_upload_resumed"), 1u);
  ASSERT_EQ(other->WriteFile(reinterpret_cast<const std::uint8_t*>(content.data()),
                             static_cast<std::uint32_t>(content.size())),
            Result::SUCCEEDED);
  EXPECT_EQ(other->CloseFile(nullptr), Result::SUCCEEDED);
  EXPECT_EQ(emulator_->account().FindByPath("Work/held.bin")->size, content.size());
}

}  // namespace

#include "core/RemoteFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "core/Clock.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "support/MockRemoteFileSystem.h"

namespace {

using testing::_;
using testing::NiceMock;
using testing::Ref;
using testing::Return;

TEST(RemoteFileSystemTest, DefaultsAnswerHonestlyWithoutDoingWork) {
  NiceMock<MockNoChangesFileSystem> fs;
  EXPECT_EQ(fs.ReadInodeImpl("a", nullptr), FileSystem::NOT_SUPPORTED);
  EXPECT_EQ(fs.ReadFilePropsImpl("a").GetError(), FileSystem::NOT_SUPPORTED);
  EXPECT_FALSE(fs.ReadFilePropsImpl("a").HasValue());
  EXPECT_EQ(fs.GetLastFiles(10).GetError(), FileSystem::NOT_SUPPORTED);
  EXPECT_EQ(fs.GetThumbnail("a.jpg").GetError(), FileSystem::NOT_SUPPORTED);
  EXPECT_EQ(fs.PrepareAfterTreeDeserialized(), FileSystem::NOT_SUPPORTED);
  EXPECT_EQ(fs.UpdateMaxFileSize(), FileSystem::SUCCEEDED);
  tsl::htrie_set<char> items;
  std::stringstream state;
  EXPECT_FALSE(fs.Deserialize(nullptr, &items, state));
  EXPECT_FALSE(fs.NeedSavingStateInFile());
  EXPECT_TRUE(fs.GetUnsupportedSymbolsMap().empty());
  EXPECT_FALSE(fs.GetMaxSupportedNameLength().second);
  EXPECT_TRUE(fs.GetMaxSupportedNameLength().first);
}

TEST(RemoteFileSystemTest, NoChangesBaseHasNoFeed) {
  NiceMock<MockNoChangesFileSystem> fs;
  LoggerWrapper::Capture capture;
  std::queue<FileSystem::Change> changes;
  changes.push(FileSystem::Change(FileSystem::Change::FILE_CREATE, "kept"));
  EXPECT_EQ(fs.GetChanges(&changes), FileSystem::NOT_SUPPORTED);
  EXPECT_EQ(changes.size(), 1u);
  FolderNode root;
  std::uint64_t free = 5;
  std::uint64_t total = 10;
  EXPECT_FALSE(fs.ApplyRemoteChange(changes.front(), &root, &free, &total));
  EXPECT_EQ(free, 5u);
  EXPECT_TRUE(root.IsEmpty());
  EXPECT_EQ(capture.LinesAtLevel(LogType::kError).size(), 1u);
  EXPECT_FALSE(fs.SupportsChangesListening());
  EXPECT_FALSE(fs.SupportsSelfChangeFiltering());
  EXPECT_FALSE(fs.ShouldRenewTree());
}

TEST(RemoteFileSystemTest, ChangesBaseListensAndHasNoFolderListing) {
  NiceMock<MockChangesFileSystem> fs;
  RemoteFileSystem::FolderListing listing;
  EXPECT_EQ(fs.GetFolderListing("a", &listing), FileSystem::NOT_SUPPORTED);
  EXPECT_TRUE(fs.SupportsChangesListening());
  EXPECT_TRUE(fs.SupportsSelfChangeFiltering());
}

TEST(RemoteFileSystemTest, DefaultsThatDelegateReachTheAdaptersOperation) {
  NiceMock<MockNoChangesFileSystem> fs;
  FolderNode root;
  FileNode* file = root.CreateFileW("a.txt", 3, SomeHash(), 0);
  FileSystem::OverwriteControl from_control(SomeHash(std::string("e1")));
  FileSystem::OverwriteControl to_control;
  EXPECT_CALL(fs, MoveFileImpl(Ref(*file), Ref(from_control), "a.txt", Ref(to_control), "b.txt"))
      .WillOnce(Return(FileSystem::CONFLICT));
  SomeHash hash(std::string("kept"));
  EXPECT_EQ(fs.RenameFileImpl(*file, from_control, "a.txt", to_control, "b.txt", &hash),
            FileSystem::CONFLICT);
  EXPECT_EQ(hash, SomeHash(std::string("kept")));

  EXPECT_CALL(fs, GetCloudSize(_, _)).WillOnce(Return(FileSystem::AUTH_INVALID));
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  EXPECT_EQ(fs.GetCloudSizeWithoutSharedData(&total, &used), FileSystem::AUTH_INVALID);
  EXPECT_CALL(fs, GetFullTree(&root, _, _, _)).WillOnce(Return(FileSystem::STOPPED));
  EXPECT_EQ(fs.GetFullTreeWithoutSharedData(&root, &total, &used, nullptr), FileSystem::STOPPED);
}

TEST(RemoteFileSystemTest, KeepsRootPathAndTheOnlyReferenceToSharedData) {
  auto shared = std::make_shared<RemoteFileSystemSharedData>();
  {
    NiceMock<MockNoChangesFileSystem> fs(shared, "/remote/root");
    EXPECT_EQ(fs.GetRemoteRootPath(), "/remote/root");
    EXPECT_EQ(fs.GetSharedData(), shared);
    EXPECT_EQ(shared.use_count(), 2);
  }
  EXPECT_EQ(shared.use_count(), 1);
}

TEST(RemoteFileSystemTest, StopEndsWaitsAndStartClearsIt) {
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  NiceMock<MockNoChangesFileSystem> fs;
  const std::int64_t start = clock.NowMs();

  EXPECT_FALSE(fs.WaitForStop(30'000));
  EXPECT_EQ(clock.NowMs() - start, 30'000);

  clock.SetOnWait([&](std::int64_t) { fs.Stop(); });  // Stop from "another thread" mid-wait
  EXPECT_TRUE(fs.WaitForStop(30'000));
  EXPECT_EQ(clock.NowMs() - start, 30'000);
  EXPECT_TRUE(fs.IsStopped());

  clock.SetOnWait(nullptr);
  fs.Start();
  EXPECT_FALSE(fs.IsStopped());
  EXPECT_FALSE(fs.WaitForStop(1'000));
}

TEST(RemoteFileSystemTest, StopWakesAWaiterOnAnotherThread) {
  NiceMock<MockNoChangesFileSystem> fs;
  std::promise<void> waiting;
  auto waiter = std::async(std::launch::async, [&] {
    waiting.set_value();
    return fs.WaitForStop(600'000);
  });
  waiting.get_future().wait();
  fs.Stop();
  // Correct code returns at once; a missed wake-up would hold the waiter for ten minutes.
  ASSERT_EQ(waiter.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_TRUE(waiter.get());
}

TEST(RemoteFileSystemTest, PercentOfFirstSnapshot) {
  struct Case {
    std::uint64_t expected;
    std::uint64_t seen;
    double percent;
  };
  const Case cases[] = {
      {0, 500, 0.0}, {1000, 0, 0.0}, {1000, 250, 0.25}, {1000, 1000, 1.0}, {1000, 4000, 1.0}};
  for (const Case& c : cases) {
    RemoteFileSystem::SnapshotDownloadProgress progress;
    progress.expected_bytes = c.expected;
    progress.AddSeenBytes(c.seen);
    EXPECT_DOUBLE_EQ(RemoteFileSystem::GetPercentCompleteGettingFirstSnapshot(progress), c.percent);
  }
  NiceMock<MockChangesFileSystem> fs;
  fs.snapshot_progress_.expected_bytes = 8;
  fs.snapshot_progress_.AddSeenBytes(2);
  EXPECT_DOUBLE_EQ(fs.GetFirstSnapshotProgress(), 0.25);
}

TEST(RemoteFileSystemTest, CreatePathToMakesTheMissingFolders) {
  FolderNode root;
  root.CreateFolder("Docs")->CreateFileW("f.txt", 1, SomeHash(), 0);
  FolderNode* folder = nullptr;
  std::string_view name;

  ASSERT_TRUE(RemoteFileSystem::CreatePathTo("a/b/c.txt", &root, &folder, &name, false));
  EXPECT_EQ(name, "c.txt");
  EXPECT_EQ(folder, root.GetFolderAtPath("a/b"));
  EXPECT_TRUE(root.GetFolder("a")->IsChanged());
  EXPECT_TRUE(folder->IsChanged());

  ASSERT_TRUE(RemoteFileSystem::CreatePathTo("docs/new", &root, &folder, &name, true));
  EXPECT_EQ(folder, root.GetFolder("Docs"));
  EXPECT_FALSE(root.HasFolder("docs"));
  EXPECT_FALSE(folder->IsChanged());  // found, not made

  ASSERT_TRUE(RemoteFileSystem::CreatePathTo("top.txt", &root, &folder, &name, false));
  EXPECT_EQ(folder, &root);

  for (const char* bad : {"", "/a/b", "a//b", "a/../b", "Docs/f.txt/x"}) {
    EXPECT_FALSE(RemoteFileSystem::CreatePathTo(bad, &root, &folder, &name, false)) << bad;
    EXPECT_EQ(folder, nullptr) << bad;
  }
  EXPECT_FALSE(root.GetFolder("Docs")->HasFolder("f.txt"));
}

TEST(RemoteFileSystemTest, RemoveFirstSlashIfExists) {
  const std::pair<std::string, std::string> cases[] = {
      {"/a/b", "a/b"}, {"a/b", "a/b"}, {"", ""}, {"/", ""}, {"//a", "/a"}};
  for (auto [path, expected] : cases) {
    RemoteFileSystem::RemoveFirstSlashIfExists(&path);
    EXPECT_EQ(path, expected);
  }
}

TEST(TreeRenewalRuleTest, FlagAndSixtySeconds) {
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  NiceMock<MockChangesFileSystem> fs;
  TreeRenewalRule& rule = fs.tree_renewal_;

  EXPECT_FALSE(fs.ShouldRenewTree());
  rule.RequestRenewal();
  EXPECT_TRUE(fs.ShouldRenewTree());  // no tree since the start

  rule.OnFullTreeRequested();
  EXPECT_FALSE(fs.ShouldRenewTree());  // the new tree answers the request
  rule.RequestRenewal();
  clock.Advance(59'999);
  EXPECT_FALSE(fs.ShouldRenewTree());
  clock.Advance(1);
  EXPECT_TRUE(fs.ShouldRenewTree());
  EXPECT_TRUE(fs.ShouldRenewTree());  // stays raised until the next tree

  clock.SetWallMs(clock.NowMs() - 3'600'000);  // the wall clock went back an hour
  EXPECT_FALSE(fs.ShouldRenewTree());
}

}  // namespace

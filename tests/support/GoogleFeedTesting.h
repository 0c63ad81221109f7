// The Google adapter's feed driven as the core drives it: a full tree, then polls whose changes
// are applied to that tree, with the changes kept for the test to read.
//
//   test::GoogleFeed feed;
//   feed.Load();
//   feed.drive.account().CreateFolder(feed.drive.account().RootId(), "new", nullptr);
//   EXPECT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
//   EXPECT_EQ(test::ChangeLines(feed.changes), (std::vector<std::string>{"FOLDER_CREATE new"}));
#pragma once

#include <string>
#include <vector>

#include "support/GoogleDriveFixture.h"

namespace test {

struct GoogleFeed {
  explicit GoogleFeed(const std::string& remote_root = std::string()) : drive(remote_root) {}
  // The whole drive into `root`; asserts that it came.
  void Load();
  // One GetChanges, every change it gives applied in order; `changes` holds them, and
  // `applied_all` whether each apply answered true.
  FileSystem::Result Poll();
  // Polls until one comes back without changes (the feed is idle), at most `limit` times.
  void PollUntilIdle(int limit = 10);

  GoogleDrive drive;
  FolderNode root;
  std::uint64_t free = 0;
  std::uint64_t total = 0;
  std::vector<FileSystem::Change> changes;
  bool applied_all = true;
};

// "TYPE path", with " <- old" for a move and " =1"/" =0" for a public link; public link lines
// only when asked.
std::vector<std::string> ChangeLines(const std::vector<FileSystem::Change>& changes,
                                     bool with_links = false);

}  // namespace test

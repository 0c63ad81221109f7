#include "support/GoogleFeedTesting.h"

#include <queue>

#include <gtest/gtest.h>

namespace test {

void GoogleFeed::Load() {
  tsl::htrie_set<char> shared;
  ASSERT_EQ(drive.fs->GetFullTree(&root, &free, &total, &shared), FileSystem::SUCCEEDED);
}

FileSystem::Result GoogleFeed::Poll() {
  changes.clear();
  applied_all = true;
  std::queue<FileSystem::Change> queue;
  FileSystem::Result result = drive.fs->GetChanges(&queue);
  for (; !queue.empty(); queue.pop()) {
    applied_all = drive.fs->ApplyRemoteChange(queue.front(), &root, &free, &total) && applied_all;
    changes.push_back(queue.front());
  }
  return result;
}

void GoogleFeed::PollUntilIdle(int limit) {
  std::vector<FileSystem::Change> all;
  bool applied = true;
  for (int i = 0; i < limit; ++i) {
    std::size_t waits = drive.clock.Waits().size();
    EXPECT_EQ(Poll(), FileSystem::SUCCEEDED);
    all.insert(all.end(), changes.begin(), changes.end());
    applied = applied && applied_all;
    if (drive.clock.Waits().size() > waits) {
      break;
    }
  }
  changes = std::move(all);
  applied_all = applied;
}

std::vector<std::string> ChangeLines(const std::vector<FileSystem::Change>& changes,
                                     bool with_links) {
  std::vector<std::string> lines;
  for (const FileSystem::Change& change : changes) {
    if (change.type == FileSystem::Change::PUBLIC_LINK && !with_links) {
      continue;
    }
    std::string line = std::string(FileSystem::Change::TypeName(change.type)) + " " + change.path;
    if (!change.old_path.empty()) {
      line += " <- " + change.old_path;
    }
    if (change.type == FileSystem::Change::PUBLIC_LINK) {
      line += change.size ? " =1" : " =0";
    }
    lines.push_back(line);
  }
  return lines;
}

}  // namespace test

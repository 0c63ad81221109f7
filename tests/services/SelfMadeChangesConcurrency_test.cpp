// The record of an adapter's own changes, filled by a file operation's thread while the feed's
// thread takes from it.
#include "services/SelfMadeChanges.h"

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

struct Upload {
  std::string path;
  std::uint64_t size;
  bool operator==(const Upload& other) const { return path == other.path && size == other.size; }
};

struct UploadHash {
  std::size_t operator()(const Upload& upload) const {
    return std::hash<std::string>()(upload.path) ^ upload.size;
  }
};

TEST(SelfMadeChangesTest, ARecordIsUsedOnceAndOnlyByItsMatch) {
  SelfMadeChanges<Upload, UploadHash> uploads;
  EXPECT_TRUE(uploads.Empty());
  uploads.Expect({"docs/a.txt", 5});
  EXPECT_FALSE(uploads.Take({"docs/a.txt", 6}));
  EXPECT_FALSE(uploads.Take({"docs/b.txt", 5}));
  EXPECT_TRUE(uploads.Take({"docs/a.txt", 5}));
  // The second echo of the same work passes as a change.
  EXPECT_FALSE(uploads.Take({"docs/a.txt", 5}));
  EXPECT_TRUE(uploads.Empty());
}

TEST(SelfMadeChangesConcurrencyTest, AddedOnOneThreadTakenOnAnother) {
  SelfMadeChanges<std::string> deletes;
  constexpr int kRecords = 20000;
  std::atomic<int> taken{0};
  std::thread feed([&] {
    for (int i = 0; i < kRecords;) {
      if (deletes.Take("item " + std::to_string(i))) {
        ++taken;
        ++i;
      }
    }
  });
  for (int i = 0; i < kRecords; ++i)
    deletes.Expect("item " + std::to_string(i));
  feed.join();
  EXPECT_EQ(taken.load(), kRecords);
  EXPECT_TRUE(deletes.Empty());
}

}  // namespace

// The account model every emulator serves: its operations, journal and upload sessions.
#include "emulators/CloudAccount.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using emulators::AccountError;
using emulators::ChangeKind;
using emulators::CloudAccount;
using emulators::Item;

class CloudAccountTest : public ::testing::Test {
 protected:
  CloudAccountTest() {
    account_.SetClock([this] { return now_ms_; });
  }

  Item Folder(const std::string& parent, const std::string& name) {
    Item made;
    EXPECT_EQ(account_.CreateFolder(parent, name, &made), AccountError::kNone) << name;
    return made;
  }
  Item File(const std::string& parent, const std::string& name, const std::string& content) {
    Item made;
    EXPECT_EQ(account_.CreateFile(parent, name, content, 0, &made), AccountError::kNone) << name;
    return made;
  }
  std::vector<ChangeKind> KindsSince(std::uint64_t sequence) {
    std::vector<ChangeKind> kinds;
    for (const auto& entry : account_.ChangesSince(sequence, 1000))
      kinds.push_back(entry.kind);
    return kinds;
  }

  std::int64_t now_ms_ = 1700000000000;
  CloudAccount account_{"root"};
};

TEST_F(CloudAccountTest, OperationsKeepTheJournalInOrder) {
  Item docs = Folder("root", "Docs");
  Item old = Folder("root", "Old");
  Item file = File(docs.id, "a.txt", "hello");
  std::uint64_t before = account_.Sequence();

  ASSERT_EQ(account_.ReplaceContent(file.id, "hello, world", 0, nullptr), AccountError::kNone);
  ASSERT_EQ(account_.Rename(file.id, "b.txt", nullptr), AccountError::kNone);
  ASSERT_EQ(account_.Move(file.id, {old.id}, "", nullptr), AccountError::kNone);
  ASSERT_EQ(account_.Trash(file.id, nullptr), AccountError::kNone);
  ASSERT_EQ(account_.Restore(file.id, nullptr), AccountError::kNone);
  ASSERT_EQ(account_.SetProperty(file.id, "k", "v", nullptr), AccountError::kNone);
  ASSERT_EQ(account_.Delete(old.id), AccountError::kNone);

  EXPECT_EQ(
      KindsSince(before),
      (std::vector<ChangeKind>{ChangeKind::kModified, ChangeKind::kMoved, ChangeKind::kMoved,
                               ChangeKind::kTrashed, ChangeKind::kRestored, ChangeKind::kUpdated,
                               ChangeKind::kDeleted, ChangeKind::kDeleted}));
  std::vector<emulators::JournalEntry> entries = account_.ChangesSince(before, 1000);
  EXPECT_EQ(entries[1].old_name, "a.txt");
  EXPECT_EQ(entries[2].old_parents, std::vector<std::string>{docs.id});
  // A deleted folder's child is journaled before the folder.
  EXPECT_EQ(entries[6].item.id, file.id);
  EXPECT_EQ(entries[7].item.id, old.id);
  EXPECT_FALSE(account_.Find(file.id));
  EXPECT_EQ(account_.ChangesSince(before, 3).size(), 3u);
  EXPECT_EQ(entries.back().sequence, account_.Sequence());
}

TEST_F(CloudAccountTest, RefusesWhatTheModelCannotHold) {
  Item docs = Folder("root", "Docs");
  Item inner = Folder(docs.id, "Inner");
  Item file = File(docs.id, "a.txt", "x");
  struct Case {
    const char* what;
    AccountError result;
    AccountError expected;
  } cases[] = {
      {"same name", account_.CreateFolder("root", "Docs", nullptr), AccountError::kNameTaken},
      {"empty name", account_.CreateFolder("root", "", nullptr), AccountError::kInvalidName},
      {"into a file", account_.CreateFile(file.id, "b", "", 0, nullptr), AccountError::kNotAFolder},
      {"no parent", account_.CreateFolder("nope", "x", nullptr), AccountError::kNotFound},
      {"into itself", account_.Move(docs.id, {inner.id}, "", nullptr), AccountError::kCycle},
      {"onto a name", account_.Rename(inner.id, "a.txt", nullptr), AccountError::kNameTaken},
      {"folder content", account_.ReplaceContent(docs.id, "x", 0, nullptr),
       AccountError::kNotAFile},
      {"the root", account_.Delete("root"), AccountError::kInvalidName},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.result, c.expected) << c.what;
  }
  // A trashed item frees its name.
  ASSERT_EQ(account_.Trash(file.id, nullptr), AccountError::kNone);
  EXPECT_EQ(account_.CreateFile(docs.id, "a.txt", "y", 0, nullptr), AccountError::kNone);
  EXPECT_TRUE(account_.IsInTrash(file.id));
}

TEST_F(CloudAccountTest, SameNamesWhereTheServiceAllowsThem) {
  CloudAccount drive("root", emulators::SameNames::kAllow);
  EXPECT_EQ(drive.CreateFile("root", "a", "1", 0, nullptr), AccountError::kNone);
  EXPECT_EQ(drive.CreateFile("root", "a", "2", 0, nullptr), AccountError::kNone);
  EXPECT_EQ(drive.Children("root").size(), 2u);
}

TEST_F(CloudAccountTest, ItemsHaveSeveralParentsAndPathsAndPages) {
  Item a = Folder("root", "A");
  Item b = Folder("root", "B");
  Item shared = File(a.id, "s", "data");
  ASSERT_EQ(account_.Move(shared.id, {a.id, b.id}, "", nullptr), AccountError::kNone);
  EXPECT_EQ(account_.Children(b.id).size(), 1u);
  EXPECT_EQ(account_.PathOf(shared.id), "A/s");
  EXPECT_EQ(account_.FindByPath("B/s")->id, shared.id);
  // Deleting one parent leaves the item under the other.
  ASSERT_EQ(account_.Delete(a.id), AccountError::kNone);
  EXPECT_EQ(account_.FindByPath("B/s")->parents, std::vector<std::string>{b.id});

  for (int i = 0; i < 5; ++i)
    File(b.id, "f" + std::to_string(i), "");
  std::size_t total = 0;
  std::vector<Item> page = account_.Children(b.id, false, 2, 2, &total);
  EXPECT_EQ(total, 6u);
  ASSERT_EQ(page.size(), 2u);
  EXPECT_EQ(page[0].name, "f1");
  EXPECT_EQ(account_.ChildByName(b.id, "F3", true)->name, "f3");
  EXPECT_FALSE(account_.ChildByName(b.id, "F3", false));
}

TEST_F(CloudAccountTest, UploadSessionsPersistInOrderAndWithinTheirLimit) {
  emulators::UploadSpec spec;
  spec.parent_id = "root";
  spec.name = "big.bin";
  spec.total_size = 10;
  spec.granularity = 4;
  spec.lifetime_ms = 1000;
  std::string session = account_.OpenUpload(spec);
  std::uint64_t persisted = 0;

  // A limit cuts what a piece persists to a multiple of the granularity.
  account_.LimitNextPersist(7);
  ASSERT_EQ(account_.AppendUpload(session, 0, "0123456789", &persisted), AccountError::kNone);
  EXPECT_EQ(persisted, 4u);
  EXPECT_EQ(account_.AppendUpload(session, 0, "0123", &persisted), AccountError::kBadOffset);
  EXPECT_EQ(persisted, 4u);
  Item out;
  EXPECT_EQ(account_.CommitUpload(session, &out), AccountError::kSizeMismatch);
  EXPECT_EQ(account_.AppendUpload(session, 4, "4567890", &persisted), AccountError::kSizeMismatch);
  ASSERT_EQ(account_.AppendUpload(session, 4, "456789", &persisted), AccountError::kNone);
  ASSERT_EQ(account_.CommitUpload(session, &out), AccountError::kNone);
  EXPECT_EQ(*out.content, "0123456789");
  EXPECT_EQ(out.digests.md5, "781e5e245d69b566979b86e28d23f2c7");

  // A session past its lifetime, or expired by a fault, is gone.
  std::string late = account_.OpenUpload(spec);
  now_ms_ += 1001;
  EXPECT_EQ(account_.AppendUpload(late, 0, "0", &persisted), AccountError::kSessionMissing);
  std::string expired = account_.OpenUpload(spec);
  account_.ExpireUploads();
  EXPECT_FALSE(account_.FindUpload(expired));
}

TEST_F(CloudAccountTest, LargeContentKeepsOnlyItsDigests) {
  account_.SetKeepContentLimit(4);
  Item small = File("root", "small", "1234");
  Item large = File("root", "large", "12345");
  EXPECT_TRUE(small.content);
  EXPECT_FALSE(large.content);
  EXPECT_EQ(large.size, 5u);
  EXPECT_EQ(large.digests.sha1, "8cb2237d0679ca88db6464eac60da96345513964");

  emulators::UploadSpec spec;
  spec.target_id = small.id;
  spec.total_size = 6;
  std::string session = account_.OpenUpload(spec);
  std::uint64_t persisted = 0;
  ASSERT_EQ(account_.AppendUpload(session, 0, "abc", &persisted), AccountError::kNone);
  ASSERT_EQ(account_.AppendUpload(session, 3, "def", &persisted), AccountError::kNone);
  Item out;
  ASSERT_EQ(account_.CommitUpload(session, &out), AccountError::kNone);
  EXPECT_EQ(out.id, small.id);
  EXPECT_FALSE(out.content);
  EXPECT_EQ(out.digests.sha256, emulators::ContentHasher::Of("abcdef").sha256);
  EXPECT_EQ(account_.ChangesSince(0, 100).back().item.digests.sha256, out.digests.sha256);
  EXPECT_EQ(account_.UsedSpace(), 4u + 5u + 6u - 4u);
}

TEST_F(CloudAccountTest, ASessionOfUnknownSizeKeepsItsBytesUpToTheLimit) {
  account_.SetKeepContentLimit(4);
  struct Case {
    const char* name;
    std::string content;
    bool kept;
  };
  for (const Case& c : {Case{"within", "abcd", true}, Case{"beyond", "abcde", false}}) {
    SCOPED_TRACE(c.name);
    emulators::UploadSpec spec;
    spec.parent_id = "root";
    spec.name = c.name;
    std::string session = account_.OpenUpload(spec);
    std::uint64_t persisted = 0;
    ASSERT_EQ(account_.AppendUpload(session, 0, c.content.substr(0, 2), &persisted),
              AccountError::kNone);
    ASSERT_EQ(account_.AppendUpload(session, 2, c.content.substr(2), &persisted),
              AccountError::kNone);
    Item out;
    ASSERT_EQ(account_.CommitUpload(session, &out), AccountError::kNone);
    EXPECT_EQ(out.size, c.content.size());
    EXPECT_EQ(out.content != nullptr, c.kept);
    if (out.content) {
      EXPECT_EQ(*out.content, c.content);
    }
    EXPECT_EQ(out.digests.sha256, emulators::ContentHasher::Of(c.content).sha256);
  }
}

}  // namespace

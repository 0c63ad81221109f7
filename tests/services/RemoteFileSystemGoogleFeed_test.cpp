// The Google adapter's change feed against the Drive emulator: the changes a page gives and the
// tree they leave, the echoes of the adapter's own work, the page token, malformed pages, and the
// application of each change type to the tree with its size arithmetic.
#include <queue>
#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "services/GoogleDocs.h"
#include "services/GoogleSelfMadeChanges.h"
#include "services/GoogleTreeConstructors.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteGoogleUtils.h"
#include "support/GoogleFeedTesting.h"

namespace {

using emulators::Item;
using Change = FileSystem::Change;
using test::ChangeLines;
using test::GoogleFeed;
using Lines = std::vector<std::string>;

Item MakeFolder(emulators::CloudAccount& account, const std::string& parent,
                const std::string& name) {
  Item made;
  EXPECT_EQ(account.CreateFolder(parent, name, &made), emulators::AccountError::kNone);
  return made;
}

Item MakeFile(emulators::CloudAccount& account, const std::string& parent, const std::string& name,
              const std::string& content) {
  Item made;
  EXPECT_EQ(account.CreateFile(parent, name, content, 1700000000000, &made),
            emulators::AccountError::kNone);
  return made;
}

// A handler in place of the emulator's changes.list.
void AnswerChanges(GoogleFeed& feed, int status, const std::string& body) {
  feed.drive.emulator->server().Handle("GET", "/drive/v3/changes",
                                       [status, body](const emulators::HttpRequest&) {
                                         return emulators::HttpResponse::Status(status, body);
                                       });
}

TEST(GoogleFeedTest, OneBatchGivesExactlyTheChangesOfItsEntries) {
  GoogleFeed feed;
  emulators::CloudAccount& account = feed.drive.account();
  const std::string root = account.RootId();
  Item gone = MakeFolder(account, root, "Gone");
  std::vector<Item> inside;
  for (const char* name : {"a", "b", "c"}) {
    inside.push_back(MakeFile(account, gone.id, name, name));
  }
  Item restored = MakeFile(account, root, "restored.txt", "twelve bytes");
  account.Trash(restored.id, nullptr);
  Item doomed = MakeFile(account, root, "doomed.txt", "doomed");
  feed.Load();
  // 1. A child listed before its new parent, a folder trashed with its three files (the files'
  // entries after it), a file back from the trash and a file deleted for good.
  Item parent = MakeFolder(account, root, "New");
  MakeFile(account, parent.id, "child.txt", "child");
  account.SetModified(parent.id, 1700000005000, nullptr);
  account.Trash(gone.id, nullptr);
  for (const Item& file : inside) {
    account.SetProperty(file.id, "touched", "1", nullptr);
  }
  account.Restore(restored.id, nullptr);
  account.Delete(doomed.id);
  // 2. One page.
  std::uint64_t free_before = feed.free;
  LoggerWrapper::Capture log;
  ASSERT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  EXPECT_EQ(ChangeLines(feed.changes, true),
            (Lines{"FOLDER_CREATE New", "PUBLIC_LINK New =0", "FOLDER_DELETE Gone",
                   "USED_SIZE_DECREASE restored.txt", "FILE_CREATE restored.txt",
                   "PUBLIC_LINK restored.txt =0"}));
  EXPECT_TRUE(feed.applied_all);
  EXPECT_EQ(feed.changes[3].size, 12u);
  EXPECT_EQ(log.Count("Skipping self-made trashing"), 3u);
  EXPECT_TRUE(log.Contains("Some parentless items exist while reading changes."));
  EXPECT_TRUE(log.Contains("Invalid change without a file entry."));
  // 3. The tree: the parked child is gone with its batch; the restore leaves the free space.
  EXPECT_NE(feed.root.GetFolder("New"), nullptr);
  EXPECT_EQ(feed.root.GetFolder("New")->FileCount(), 0u);
  EXPECT_EQ(feed.root.GetFolder("Gone"), nullptr);
  EXPECT_NE(feed.root.GetFile("restored.txt"), nullptr);
  EXPECT_EQ(feed.free, free_before);
  EXPECT_FALSE(feed.drive.fs->ShouldRenewTree());
}

TEST(GoogleFeedTest, EchoesOfTheAdaptersOwnWorkAreDropped) {
  struct Case {
    const char* name;
    std::function<FileSystem::Result(RemoteFileSystemGoogle&, FolderNode&)> operation;
    const char* log;
  };
  FileSystem::OverwriteControl none;
  const Case cases[] = {
      {"mkdir",
       [&](RemoteFileSystemGoogle& fs, FolderNode&) {
         return fs.CreateFolderImpl(none, "Docs/made");
       },
       "Skipping self-made folder creation"},
      {"rm",
       [&](RemoteFileSystemGoogle& fs, FolderNode&) {
         return fs.DeleteFileImpl(none, "Docs/readme.txt", 14, 0);
       },
       "Skipping self-made trashing"},
      {"rmdir of a subtree",
       [&](RemoteFileSystemGoogle& fs, FolderNode& root) {
         return fs.DeleteFolderImpl(*root.GetFolder("Jane's Åpfel"),
                                    FileSystem::Revision::RevisionNone(), "Jane's Åpfel");
       },
       "Skipping self-made trashing"},
      {"rename",
       [&](RemoteFileSystemGoogle& fs, FolderNode& root) {
         return fs.MoveFileImpl(*root.GetFolder("Docs")->GetFile("readme.txt"), none,
                                "Docs/readme.txt", none, "Docs/renamed.txt");
       },
       "Skipping self-made file upload"},
      {"file move",
       [&](RemoteFileSystemGoogle& fs, FolderNode& root) {
         return fs.MoveFileImpl(*root.GetFolder("Docs")->GetFile("readme.txt"), none,
                                "Docs/readme.txt", none, "Photos/readme.txt");
       },
       "Skipping self-made file upload"},
      {"folder move",
       [&](RemoteFileSystemGoogle& fs, FolderNode& root) {
         return fs.MoveFolderImpl(*root.GetFolder("Photos"), none, "Photos", none, "Docs/Photos");
       },
       "Skipping self-made folder creation"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    GoogleFeed feed;
    emulators::GoogleDialect::SeedDemoDrive(feed.drive.account());
    feed.Load();
    ASSERT_EQ(c.operation(*feed.drive.fs, feed.root), FileSystem::SUCCEEDED);
    LoggerWrapper::Capture log;
    feed.PollUntilIdle();
    EXPECT_EQ(ChangeLines(feed.changes), Lines{});
    EXPECT_TRUE(log.Contains(c.log)) << c.log;
    EXPECT_FALSE(feed.drive.fs->ShouldRenewTree());
  }
}

TEST(GoogleFeedTest, AnEchoIsUsedOnceAndTheSecondIdenticalEntryPasses) {
  auto ids = std::make_shared<RemoteFileIds>();
  ids->Init("root");
  ids->AddFileId("f", "f.txt", "root");
  GoogleDocs docs;
  GoogleSelfMadeChanges expected;
  expected.ExpectUpload({"f", HashGoogle(), 1, 7, "root", "f.txt"});
  std::vector<Change> changes;
  ChangesConstructor constructor(ids, true, "Shared", nullptr, &docs, &expected, "root", &changes);
  utils::json::json_tree entry;
  ASSERT_TRUE(
      utils::json::Parse(R"({"id":"f","name":"f.txt","parents":["root"],"size":"1","version":"7",)"
                         R"("md5Checksum":"0cc175b9c0f1b6a831c399e269772661","ownedByMe":true})",
                         &entry));
  LoggerWrapper::Capture log;
  ASSERT_TRUE(constructor.AddItem(entry, nullptr));
  EXPECT_TRUE(changes.empty());
  EXPECT_TRUE(log.Contains("Skipping self-made file upload: \"f.txt\" (f); ver=7"));
  ASSERT_TRUE(constructor.AddItem(entry, nullptr));
  EXPECT_EQ(ChangeLines(changes), Lines{"FILE_MODIFY f.txt"});
}

TEST(GoogleFeedTest, RefusedTokenRenewsTheTreeOtherRequestFailuresDoNot) {
  struct Case {
    const char* name;
    const char* error;
    bool renews;
  };
  const Case cases[] = {{"Invalid Value", "invalid", true}, {"other 400", "badRequest", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    GoogleFeed feed;
    feed.Load();
    std::int64_t tree_time = feed.drive.clock.NowMs();
    feed.drive.emulator->faults().Add(
        emulators::FaultRule::On("GET", "/drive/v3/changes").Status(400).Error(c.error));
    LoggerWrapper::Capture log;
    EXPECT_EQ(feed.Poll(), FileSystem::FAILED);
    EXPECT_EQ(log.Contains("Seems like invalid page token, requesting a new tree."), c.renews);
    // No new tree within 100 seconds of the last one.
    feed.drive.clock.Advance(99'000 - (feed.drive.clock.NowMs() - tree_time));
    EXPECT_FALSE(feed.drive.fs->ShouldRenewTree());
    feed.drive.clock.Advance(2'000);
    EXPECT_EQ(feed.drive.fs->ShouldRenewTree(), c.renews);
  }
}

TEST(GoogleFeedTest, QuotaIsAskedAtMostEveryTwoMinutesAndSetsTheSizes) {
  GoogleFeed feed;
  emulators::CloudAccount& account = feed.drive.account();
  feed.Load();
  int asked = feed.drive.CountRequests("/drive/v3/about");
  MakeFile(account, account.RootId(), "big", std::string(1000, 'x'));
  feed.drive.clock.Advance(100'000);
  ASSERT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  EXPECT_EQ(ChangeLines(feed.changes), Lines{"FILE_CREATE big"});
  EXPECT_EQ(feed.drive.CountRequests("/drive/v3/about"), asked);
  // 1. Two minutes on, the used space has grown.
  feed.drive.clock.Advance(21'000);
  ASSERT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  EXPECT_EQ(ChangeLines(feed.changes), Lines{"FREE_SIZE_SET "});
  EXPECT_EQ(feed.free, account.TotalSpace() - account.UsedSpace());
  // 2. A new total sets both.
  account.SetTotalSpace(20ull << 30);
  feed.drive.clock.Advance(121'000);
  ASSERT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  EXPECT_EQ(ChangeLines(feed.changes), (Lines{"TOTAL_SIZE_SET ", "FREE_SIZE_SET "}));
  EXPECT_EQ(feed.total, 20ull << 30);
  EXPECT_EQ(feed.free, (20ull << 30) - account.UsedSpace());
  EXPECT_EQ(feed.drive.CountRequests("/drive/v3/about"), asked + 2);
}

TEST(GoogleFeedTest, ChangeAboveTheMountedRootRenewsTheTree) {
  GoogleFeed feed("a/b");
  emulators::CloudAccount& account = feed.drive.account();
  Item a = MakeFolder(account, account.RootId(), "a");
  Item b = MakeFolder(account, a.id, "b");
  feed.Load();
  // Inside the root: applied.
  MakeFolder(account, b.id, "inside");
  feed.PollUntilIdle();
  EXPECT_EQ(ChangeLines(feed.changes), Lines{"FOLDER_CREATE inside"});
  // Above it: no path can be trusted any more.
  account.Rename(a.id, "a2", nullptr);
  LoggerWrapper::Capture log;
  EXPECT_EQ(feed.Poll(), FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("A folder above the remote root changed"));
  feed.drive.clock.Advance(101'000);
  EXPECT_TRUE(feed.drive.fs->ShouldRenewTree());
  // A restored tree finds the folders above the root again, or fails where they moved away.
  EXPECT_EQ(feed.drive.fs->PrepareAfterTreeDeserialized(), FileSystem::FAILED);
  account.Rename(a.id, "a", nullptr);
  EXPECT_EQ(feed.drive.fs->PrepareAfterTreeDeserialized(), FileSystem::SUCCEEDED);
  EXPECT_EQ(feed.drive.fs->RootAncestors(),
            (std::unordered_set<std::string>{account.RootId(), a.id, b.id}));
}

TEST(GoogleFeedTest, AnswerWithoutTokenRenewsAndAppliesNothing) {
  GoogleFeed feed;
  feed.Load();
  MakeFolder(feed.drive.account(), feed.drive.account().RootId(), "unseen");
  feed.drive.emulator->faults().Add(
      emulators::FaultRule::On("GET", "/drive/v3/changes").DropField("newStartPageToken"));
  LoggerWrapper::Capture log;
  EXPECT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  EXPECT_TRUE(feed.changes.empty());
  EXPECT_EQ(feed.root.GetFolder("unseen"), nullptr);
  EXPECT_TRUE(log.Contains("No next page token. Downloading new remote tree."));
  feed.drive.clock.Advance(101'000);
  EXPECT_TRUE(feed.drive.fs->ShouldRenewTree());
  // Without a token the feed waits for the new tree, asking nothing.
  int asked = feed.drive.CountRequests("/drive/v3/changes");
  EXPECT_EQ(feed.Poll(), FileSystem::SUCCEEDED);
  EXPECT_EQ(feed.drive.CountRequests("/drive/v3/changes"), asked);
  EXPECT_TRUE(log.Contains("No changes since token is not initialized."));
}

TEST(GoogleFeedTest, MalformedPagesGiveAClearResultAndNoCrash) {
  struct Case {
    const char* name;
    std::string body;
    FileSystem::Result result;
    const char* log;
  };
  const Case cases[] = {
      {"changes is text", R"({"changes":"x","newStartPageToken":"9"})", FileSystem::FAILED,
       "Invalid list of changes in response."},
      {"entry without id",
       R"({"changes":[{"file":{"name":"x","parents":["p"]}}],)"
       R"("newStartPageToken":"9"})",
       FileSystem::SUCCEEDED, "Skipping item without id."},
      {"file of wrong type", R"({"changes":[{"file":"text"}],"newStartPageToken":"9"})",
       FileSystem::SUCCEEDED, "Skipping item without id."},
      {"size not a number",
       R"({"changes":[{"file":{"id":"z","name":"z","parents":["x"],)"
       R"("size":"ten","ownedByMe":true}}],"newStartPageToken":"9"})",
       FileSystem::SUCCEEDED, "Skipping item with invalid size"},
      {"truncated", R"({"changes":[{"file":{"id":)", FileSystem::FAILED,
       "Failed to read response."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    GoogleFeed feed;
    feed.Load();
    AnswerChanges(feed, 200, c.body);
    LoggerWrapper::Capture log;
    EXPECT_EQ(feed.Poll(), c.result);
    EXPECT_TRUE(log.Contains(c.log)) << c.log;
    EXPECT_TRUE(feed.changes.empty());
  }
}

TEST(GoogleApplyTest, EachChangeTypeMovesTheTreeAndTheFreeSpaceAsDocumented) {
  struct Case {
    const char* name;
    Change change;
    bool answer;
    std::uint64_t free_after;
    Lines tree_after;  // files as "path size"
  };
  auto change = [](Change::Type type, const std::string& path, std::uint64_t size,
                   std::uint8_t hash_byte = 0, const std::string& old_path = std::string()) {
    Change made(type, path);
    made.size = size;
    made.old_path = old_path;
    HashGoogle hash;
    hash.data()[0] = hash_byte;
    made.hash = SomeHash(hash);
    return made;
  };
  const Case cases[] = {
      {"create", change(Change::FILE_CREATE, "d/new", 30), true, 970, {"d/f 100", "d/new 30"}},
      {"modify, same", change(Change::FILE_MODIFY, "d/f", 100, 1), true, 1000, {"d/f 100"}},
      {"modify, larger", change(Change::FILE_MODIFY, "d/f", 160, 2), true, 1060, {"d/f 160"}},
      {"delete", change(Change::FILE_DELETE, "d/f", 100), true, 1000, {}},
      {"rename", change(Change::FILE_RENAME, "g", 100, 1, "d/f"), true, 1000, {"g 100"}},
      {"restore", change(Change::USED_SIZE_DECREASE, "x", 5), true, 1005, {"d/f 100"}},
      {"used up", change(Change::USED_SIZE_INCREASE, "x", 5), true, 995, {"d/f 100"}},
      {"free set", change(Change::FREE_SIZE_SET, "", 77), true, 77, {"d/f 100"}},
      {"public link", change(Change::PUBLIC_LINK, "d/f", 1), true, 1000, {"d/f 100"}},
      {"collision", change(Change::FILE_CREATE, "d", 1), false, 1000, {"d/f 100"}},
      {"unsupported", change(Change::EXPORT, "d/f", 0), false, 1000, {"d/f 100"}},
      {"no parent", change(Change::FILE_CREATE, "nowhere/f", 1), true, 1000, {"d/f 100"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::GoogleDrive drive;
    FolderNode root;
    HashGoogle first;
    first.data()[0] = 1;
    root.CreateFolder("d")->CreateFileW("f", 100, SomeHash(first), 0);
    std::uint64_t free = 1000;
    std::uint64_t total = 5000;
    LoggerWrapper::Capture log;
    EXPECT_EQ(drive.fs->ApplyRemoteChange(c.change, &root, &free, &total), c.answer);
    EXPECT_EQ(free, c.free_after);
    Lines files;
    for (const auto& [path, line] : test::TreeLines(root)) {
      if (path.back() != '/') {
        files.push_back(path + " " + line.substr(0, line.find(' ')));
      }
    }
    EXPECT_EQ(files, c.tree_after);
  }
}

TEST(GoogleApplyTest, CollisionKeepsTheReasonAndSharedFolderIsLocked) {
  test::GoogleDrive drive;
  FolderNode root;
  root.CreateFolder("d");
  std::uint64_t free = 0;
  std::uint64_t total = 0;
  RadarsLogger::Capture metrics;
  EXPECT_FALSE(
      drive.fs->ApplyRemoteChange(Change(Change::FOLDER_CREATE, "d"), &root, &free, &total));
  EXPECT_EQ(drive.fs->GetTreeError().reason, TreeError::kDuplicate);
  EXPECT_EQ(metrics.Count("failed_google_apply_changes"), 1u);
  Change shared(Change::FOLDER_CREATE, RemoteFileSystemGoogle::kExternalItemsFolderName);
  shared.readonly = true;
  EXPECT_TRUE(drive.fs->ApplyRemoteChange(shared, &root, &free, &total));
  EXPECT_EQ(root.GetFolder(RemoteFileSystemGoogle::kExternalItemsFolderName)->GetReadonly(),
            FolderNode::kReadonlyLocked);
}

// 200 foreign changes of every kind, each followed by a poll: the tree follows the account item
// by item, and each change gives the change types it should.
TEST(GoogleFeedModelTest, TwoHundredForeignChangesKeepTheTreeEqualToTheAccount) {
  GoogleFeed feed;
  emulators::CloudAccount& account = feed.drive.account();
  const std::string root = account.RootId();
  MakeFolder(account, root, "base");
  feed.Load();
  std::mt19937 random(20261122);
  int made = 0;
  std::set<std::string> trashed_files;
  for (int step = 0; step < 200; ++step) {
    // 1. The live items as the account has them.
    std::vector<Item> files;
    std::vector<Item> folders{*account.Find(root)};
    for (const Item& item : account.AllItems()) {
      if (item.id == root || account.IsInTrash(item.id)) {
        continue;
      }
      (item.IsFolder() ? folders : files).push_back(item);
    }
    auto pick = [&random](const std::vector<Item>& items) {
      return items[std::uniform_int_distribution<std::size_t>(0, items.size() - 1)(random)];
    };
    // 2. One change, and what it must give.
    int op = std::uniform_int_distribution<int>(0, 8)(random);
    if (files.empty() && op != 6) {
      op = 0;
    }
    std::string name = "n" + std::to_string(++made);
    Lines expected_types;
    SCOPED_TRACE("step " + std::to_string(step) + " op " + std::to_string(op));
    switch (op) {
      case 0: {  // create
        MakeFile(account, pick(folders).id, name, name + " content");
        expected_types = {"FILE_CREATE"};
        break;
      }
      case 1: {  // modify
        Item file = pick(files);
        account.ReplaceContent(file.id, "new " + name, 1700000009000, nullptr);
        expected_types = {"FILE_MODIFY"};
        break;
      }
      case 2: {  // rename
        bool folder = folders.size() > 1 && random() % 2;
        Item item =
            folder ? pick(std::vector<Item>(folders.begin() + 1, folders.end())) : pick(files);
        account.Rename(item.id, name, nullptr);
        expected_types = {item.IsFolder() ? "FOLDER_RENAME" : "FILE_RENAME"};
        break;
      }
      case 3: {  // move a file
        Item file = pick(files);
        Item to = pick(folders);
        if (to.id == file.parents[0]) {
          continue;
        }
        account.Move(file.id, {to.id}, std::string(), nullptr);
        expected_types = {"FILE_RENAME"};
        break;
      }
      case 4: {  // trash a file
        Item file = pick(files);
        account.Trash(file.id, nullptr);
        trashed_files.insert(file.id);
        expected_types = {"FILE_DELETE"};
        break;
      }
      case 5: {  // restore a file trashed itself
        if (trashed_files.empty()) {
          continue;
        }
        std::string id = *trashed_files.begin();
        trashed_files.erase(trashed_files.begin());
        if (account.IsInTrash(account.Find(id)->parents[0])) {
          continue;
        }
        account.Restore(id, nullptr);
        expected_types = {"USED_SIZE_DECREASE", "FILE_CREATE"};
        break;
      }
      case 6: {  // make a folder
        MakeFolder(account, pick(folders).id, name);
        expected_types = {"FOLDER_CREATE"};
        break;
      }
      case 7: {  // share, or unshare
        Item file = pick(files);
        bool share = file.public_link.empty();
        account.SetPublicLink(file.id, share ? "https://link/" + name : std::string(), nullptr);
        expected_types = {"FILE_MODIFY"};
        break;
      }
      default: {  // trash a folder with what it holds
        if (folders.size() < 3) {
          continue;
        }
        account.Trash(pick(std::vector<Item>(folders.begin() + 1, folders.end())).id, nullptr);
        expected_types = {"FOLDER_DELETE"};
        break;
      }
    }
    // 3. The poll.
    feed.PollUntilIdle();
    EXPECT_TRUE(feed.applied_all);
    Lines types;
    for (const std::string& line : ChangeLines(feed.changes)) {
      std::string type = line.substr(0, line.find(' '));
      if (type != "FREE_SIZE_SET" && type != "TOTAL_SIZE_SET") {
        types.push_back(type);
      }
    }
    EXPECT_EQ(types, expected_types);
    ASSERT_EQ(test::TreeLines(feed.root), test::AccountLines(account));
  }
  feed.drive.clock.Advance(101'000);
  EXPECT_FALSE(feed.drive.fs->ShouldRenewTree());
}

}  // namespace

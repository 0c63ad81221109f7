// The Google adapter's item operations against the Drive emulator: the request each sends, the
// refusals that send none, how failures of the server map, public links through the feed, the
// sizes summed over pages and the recent files of the v2 listing.
#include <QJsonDocument>
#include <QJsonObject>

#include <functional>
#include <queue>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/LoggerWrapper.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileSystemGoogleSharedData.h"
#include "support/GoogleFeedTesting.h"

namespace {

using emulators::HttpRequest;
using emulators::Item;
using Lines = std::vector<std::string>;

const FileSystem::OverwriteControl kNone;

std::string IdOf(emulators::CloudAccount& account, const std::string& path) {
  std::optional<Item> item = account.FindByPath(path);
  return item ? item->id : std::string();
}

// The body as compact JSON with its keys sorted, for comparison.
std::string Json(const std::string& body) {
  return QJsonDocument::fromJson(QByteArray::fromStdString(body))
      .toJson(QJsonDocument::Compact)
      .toStdString();
}

class GoogleItemsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    emulators::GoogleDialect::SeedDemoDrive(feed.drive.account());
    feed.Load();
  }
  emulators::CloudAccount& account() { return feed.drive.account(); }
  RemoteFileSystemGoogle& fs() { return *feed.drive.fs; }
  std::vector<HttpRequest> RequestsSince(std::size_t count) {
    std::vector<HttpRequest> all = feed.drive.emulator->server().Requests();
    return std::vector<HttpRequest>(all.begin() + static_cast<std::ptrdiff_t>(count), all.end());
  }
  std::size_t RequestCount() { return feed.drive.emulator->server().Requests().size(); }

  test::GoogleFeed feed;
};

TEST_F(GoogleItemsTest, EachOperationSendsItsRequest) {
  struct Case {
    const char* name;
    std::function<FileSystem::Result()> operation;
    const char* verb;
    std::string path;
    std::string body;
    std::string remove_parents;  // empty: no parameter
    std::string add_parents;
    std::string key_header;
    const char* lands;  // the path in the account afterwards
  };
  const std::string root = account().RootId();
  const std::string docs = IdOf(account(), "Docs");
  const std::string photos = IdOf(account(), "Photos");
  const std::string readme = IdOf(account(), "Docs/readme.txt");
  const std::string keyed = IdOf(account(), "Docs/keyed.pdf");
  const std::string jane = IdOf(account(), "Jane's Åpfel");
  FolderNode& tree = feed.root;
  FolderNode holder;
  FileNode* file = holder.CreateFileW("f", 14, SomeHash(), 0);
  const Case cases[] = {
      {"mkdir", [&] { return fs().CreateFolderImpl(kNone, "Docs/new"); }, "POST", "/drive/v3/files",
       R"({"mimeType":"application/vnd.google-apps.folder","name":"new","parents":[")" + docs +
           R"("]})",
       "", "", "", "Docs/new"},
      {"rename in place",
       [&] {
         return fs().MoveFileImpl(*file, kNone, "Docs/readme.txt", kNone, "Docs/renamed.txt");
       },
       "PATCH", "/drive/v3/files/" + readme, R"({"name":"renamed.txt"})", "", "", "",
       "Docs/renamed.txt"},
      {"move under the same name",
       [&] {
         return fs().MoveFileImpl(*file, kNone, "Docs/renamed.txt", kNone, "Photos/renamed.txt");
       },
       "PATCH", "/drive/v3/files/" + readme, "{}", docs, photos, "", "Photos/renamed.txt"},
      {"folder moved and renamed",
       [&] {
         return fs().MoveFolderImpl(*tree.GetFolder("Photos"), kNone, "Photos", kNone, "Docs/Pics");
       },
       "PATCH", "/drive/v3/files/" + photos, R"({"name":"Pics"})", root, docs, "",
       "Docs/Pics/renamed.txt"},
      {"keyed file renamed",
       [&] { return fs().MoveFileImpl(*file, kNone, "Docs/keyed.pdf", kNone, "Docs/k.pdf"); },
       "PATCH", "/drive/v3/files/" + keyed, R"({"name":"k.pdf"})", "", "", keyed + "/0-keyOfKeyed",
       "Docs/k.pdf"},
      {"rm", [&] { return fs().DeleteFileImpl(kNone, "Docs/k.pdf", 14, 0); }, "PATCH",
       "/drive/v3/files/" + keyed, R"({"trashed":true})", "", "", keyed + "/0-keyOfKeyed", nullptr},
      {"rmdir",
       [&] {
         return fs().DeleteFolderImpl(*tree.GetFolder("Jane's Åpfel"),
                                      FileSystem::Revision::RevisionNone(), "Jane's Åpfel");
       },
       "PATCH", "/drive/v3/files/" + jane, R"({"trashed":true})", "", "", "", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::size_t before = RequestCount();
    ASSERT_EQ(c.operation(), FileSystem::SUCCEEDED);
    std::vector<HttpRequest> sent = RequestsSince(before);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].verb, c.verb);
    EXPECT_EQ(sent[0].path, c.path);
    EXPECT_EQ(Json(sent[0].body), Json(c.body));
    EXPECT_EQ(emulators::HasQueryParam(sent[0].query, "removeParents"), !c.remove_parents.empty());
    EXPECT_EQ(emulators::QueryParam(sent[0].query, "removeParents"), c.remove_parents);
    EXPECT_EQ(emulators::HasQueryParam(sent[0].query, "addParents"), !c.add_parents.empty());
    EXPECT_EQ(emulators::QueryParam(sent[0].query, "addParents"), c.add_parents);
    EXPECT_EQ(sent[0].Header("X-Goog-Drive-Resource-Keys"), c.key_header);
    if (std::string(c.verb) == "PATCH" &&
        std::string(c.body).find("trashed") == std::string::npos) {
      EXPECT_EQ(emulators::QueryParam(sent[0].query, "fields"), "id, version");
    }
    if (c.lands) {
      EXPECT_TRUE(account().FindByPath(c.lands)) << c.lands;
    }
  }
  // The id tree followed every step: the trashed items are out of it, the moved ones in place.
  RemoteFileIds& ids =
      *dynamic_cast<RemoteFileSystemGoogleSharedData*>(feed.drive.factory->GetSharedData().get())
           ->ids;
  EXPECT_EQ(ids.GetFileIdByPath("Docs/Pics/renamed.txt"), readme);
  EXPECT_TRUE(ids.GetFileIdByPath("Docs/k.pdf").empty());
  EXPECT_TRUE(ids.IsTrashed(keyed));
  EXPECT_TRUE(ids.GetFolderIdByPath("Jane's Åpfel/Ünder").empty());
  EXPECT_TRUE(account().IsInTrash(jane));
}

TEST_F(GoogleItemsTest, RefusalsSendNothing) {
  struct Case {
    const char* name;
    std::function<FileSystem::Result()> operation;
    FileSystem::Result result;
    const char* log;
  };
  const std::string shared = RemoteFileSystemGoogle::kExternalItemsFolderName;
  FolderNode holder;
  FileNode* file = holder.CreateFileW("f", 1, SomeHash(), 0);
  const Case cases[] = {
      {"mkdir among shared items", [&] { return fs().CreateFolderImpl(kNone, shared + "/x"); },
       FileSystem::ACCESS_DENIED, "Permission denied creating shared folder."},
      {"rmdir of the shared folder",
       [&] { return fs().DeleteFolderImpl(holder, FileSystem::Revision::RevisionNone(), shared); },
       FileSystem::ACCESS_DENIED, "Permission denied deleting emulated external items folder."},
      {"move into the shared folder",
       [&] { return fs().MoveFileImpl(*file, kNone, "Docs/readme.txt", kNone, shared + "/r"); },
       FileSystem::ACCESS_DENIED, "Permission denied moving to emulated shared folder."},
      {"move out of it",
       [&] { return fs().MoveFileImpl(*file, kNone, shared + "/gift.txt", kNone, "gift.txt"); },
       FileSystem::ACCESS_DENIED, "Permission denied moving to emulated shared folder."},
      {"move the shared folder",
       [&] { return fs().MoveFolderImpl(holder, kNone, shared, kNone, "Docs/s"); },
       FileSystem::ACCESS_DENIED, "Permission denied moving to emulated shared folder."},
      {"rename to itself",
       [&] { return fs().MoveFileImpl(*file, kNone, "Docs/readme.txt", kNone, "Docs/readme.txt"); },
       FileSystem::SUCCEEDED, "Moving to same path."},
      {"mkdir over a folder", [&] { return fs().CreateFolderImpl(kNone, "Docs"); },
       FileSystem::CONFLICT, "There is already folder with same path: "},
      {"mkdir under nothing", [&] { return fs().CreateFolderImpl(kNone, "none/x"); },
       FileSystem::ITEM_MISSED, "Parent not found by path: "},
      {"rm of nothing", [&] { return fs().DeleteFileImpl(kNone, "none.txt", 0, 0); },
       FileSystem::ITEM_MISSED, "Failed to get id by path."},
      {"link of nothing",
       [&] {
         std::string link;
         return fs().GetPublicLink("none.txt", false, &link);
       },
       FileSystem::ITEM_MISSED, "Failed to find none.txt"},
      {"link of no path",
       [&] {
         std::string link;
         return fs().GetPublicLink("", false, &link);
       },
       FileSystem::FAILED, "Empty path."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::size_t before = RequestCount();
    LoggerWrapper::Capture log;
    EXPECT_EQ(c.operation(), c.result);
    EXPECT_TRUE(log.Contains(c.log)) << c.log;
    EXPECT_EQ(RequestCount(), before);
  }
  EXPECT_TRUE(fs().IsItemInMountedDir(shared + "/gift.txt"));
  EXPECT_FALSE(fs().IsItemInMountedDir("Docs/readme.txt"));
}

TEST_F(GoogleItemsTest, AfterStopEveryOperationAnswersStoppedAndSendsNothing) {
  FolderNode holder;
  FileNode* file = holder.CreateFileW("f", 1, SomeHash(), 0);
  std::string link;
  std::queue<FileSystem::Change> changes;
  const std::vector<std::pair<const char*, std::function<FileSystem::Result()>>> operations = {
      {"mkdir", [&] { return fs().CreateFolderImpl(kNone, "Docs/x"); }},
      {"rm", [&] { return fs().DeleteFileImpl(kNone, "Docs/readme.txt", 14, 0); }},
      {"rmdir",
       [&] {
         return fs().DeleteFolderImpl(holder, FileSystem::Revision::RevisionNone(), "Photos");
       }},
      {"mv", [&] { return fs().MoveFileImpl(*file, kNone, "Docs/readme.txt", kNone, "r.txt"); }},
      {"link", [&] { return fs().GetPublicLink("Docs/readme.txt", false, &link); }},
      {"unlink", [&] { return fs().ClosePublicLink("Docs/readme.txt"); }},
      {"changes", [&] { return fs().GetChanges(&changes); }},
  };
  fs().Stop();
  std::size_t before = RequestCount();
  for (const auto& [name, operation] : operations) {
    EXPECT_EQ(operation(), FileSystem::STOPPED) << name;
  }
  EXPECT_EQ(RequestCount(), before);
  // Start makes the adapter usable again.
  fs().Start();
  EXPECT_EQ(fs().CreateFolderImpl(kNone, "Docs/x"), FileSystem::SUCCEEDED);
}

TEST_F(GoogleItemsTest, ServerFailuresMapToTheirResults) {
  // 1. Gone on the server: the tree is behind it.
  account().Delete(IdOf(account(), "Docs/readme.txt"));
  EXPECT_EQ(fs().DeleteFileImpl(kNone, "Docs/readme.txt", 14, 0), FileSystem::CONFLICT);
  // 2. Someone else's file that the account may only read.
  Item theirs;
  account().CreateFile(IdOf(account(), "Docs"), "theirs.txt", "x", 0, &theirs);
  account().SetSharedWithMe(theirs.id, true, nullptr);
  FolderNode root;
  ASSERT_EQ(feed.drive.GetFullTree(&root), FileSystem::SUCCEEDED);
  EXPECT_EQ(fs().DeleteFileImpl(kNone, "Docs/theirs.txt", 1, 0), FileSystem::ACCESS_DENIED);
  EXPECT_FALSE(account().IsInTrash(theirs.id));
  // 3. An answer about another item.
  feed.drive.emulator->server().Handle(
      "PATCH", "/drive/v3/files/",
      [](const HttpRequest&) {
        return emulators::HttpResponse::Status(200, R"({"id":"another","version":"9"})");
      },
      emulators::Match::kPrefix);
  FolderNode holder;
  LoggerWrapper::Capture log;
  EXPECT_EQ(fs().MoveFolderImpl(holder, kNone, "Photos", kNone, "Pics"), FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("File id has changed with update request: "));
  EXPECT_FALSE(root.GetFolder("Pics"));
}

TEST_F(GoogleItemsTest, LinkAndUnlinkReachTheFeedAsPublicLinkChanges) {
  const std::string id = IdOf(account(), "Docs/readme.txt");
  // 1. Published: a permission for anyone, then the page's link.
  std::size_t before = RequestCount();
  std::string link;
  ASSERT_EQ(fs().GetPublicLink("Docs/readme.txt", false, &link), FileSystem::SUCCEEDED);
  EXPECT_EQ(link, feed.drive.emulator->BaseUrl() + "/file/d/" + id + "/view?usp=drivesdk");
  std::vector<HttpRequest> sent = RequestsSince(before);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].verb + " " + sent[0].path, "POST /drive/v3/files/" + id + "/permissions");
  EXPECT_EQ(Json(sent[0].body), Json(R"({"role":"reader","type":"anyone"})"));
  EXPECT_EQ(emulators::QueryParam(sent[1].query, "fields"), "webViewLink");
  feed.PollUntilIdle();
  EXPECT_EQ(test::ChangeLines(feed.changes, true),
            (Lines{"FILE_MODIFY Docs/readme.txt", "PUBLIC_LINK Docs/readme.txt =1"}));
  // 2. Withdrawn: Drive answers 204.
  before = RequestCount();
  ASSERT_EQ(fs().ClosePublicLink("Docs/readme.txt"), FileSystem::SUCCEEDED);
  sent = RequestsSince(before);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].verb + " " + sent[0].path,
            "DELETE /drive/v3/files/" + id + "/permissions/anyoneWithLink");
  feed.PollUntilIdle();
  EXPECT_EQ(test::ChangeLines(feed.changes, true),
            (Lines{"FILE_MODIFY Docs/readme.txt", "PUBLIC_LINK Docs/readme.txt =0"}));
  // 3. Withdrawing it again finds no permission.
  EXPECT_EQ(fs().ClosePublicLink("Docs/readme.txt"), FileSystem::CONFLICT);
}

TEST(GoogleSizesTest, SharedAndTrashedSizesAreSummedOverEveryPage) {
  test::GoogleFeed feed;
  emulators::CloudAccount& account = feed.drive.account();
  feed.drive.dialect->SetMaxPageSize(2);
  std::uint64_t shared_sum = 0;
  std::uint64_t trashed_sum = 0;
  for (int i = 1; i <= 5; ++i) {
    Item shared;
    account.CreateFile(account.RootId(), "s" + std::to_string(i), std::string(10 * i, 's'), 0,
                       &shared);
    account.SetSharedWithMe(shared.id, true, nullptr);
    shared_sum += 10 * i;
    Item trashed;
    account.CreateFile(account.RootId(), "t" + std::to_string(i), std::string(i, 't'), 0, &trashed);
    account.Trash(trashed.id, nullptr);
    trashed_sum += i;
  }
  account.CreateFile(account.RootId(), "mine", "not counted", 0, nullptr);
  feed.Load();
  int asked = feed.drive.CountRequests("/drive/v3/files");
  EXPECT_EQ(feed.drive.fs->GetMountedDirSize(), shared_sum);
  EXPECT_EQ(feed.drive.fs->GetTrashedFilesSize(), trashed_sum);
  EXPECT_EQ(feed.drive.CountRequests("/drive/v3/files") - asked, 6);
  HttpRequest first = feed.drive.emulator->server().Requests()[0];
  for (const HttpRequest& request : feed.drive.emulator->server().Requests()) {
    if (emulators::QueryParam(request.query, "q").find("sharedWithMe") != std::string::npos) {
      first = request;
      break;
    }
  }
  EXPECT_EQ(emulators::QueryParam(first.query, "q"),
            "trashed=false and (not 'me' in owners or sharedWithMe=true)");
  EXPECT_EQ(emulators::QueryParam(first.query, "orderBy"), "folder");
}

TEST(GoogleRecentFilesTest, RecentFilesSkipFoldersAndTrashAndTakeOddSizes) {
  // 1. From the emulator's v2 listing, newest first.
  test::GoogleFeed feed;
  emulators::CloudAccount& account = feed.drive.account();
  Item old_file;
  Item new_file;
  Item trashed;
  account.CreateFile(account.RootId(), "old.txt", "old", 1700000000000, &old_file);
  account.CreateFolder(account.RootId(), "folder", nullptr);
  account.CreateFile(account.RootId(), "new.txt", "newer", 1700000100000, &new_file);
  account.CreateFile(account.RootId(), "trash.txt", "t", 1700000200000, &trashed);
  account.Trash(trashed.id, nullptr);
  feed.Load();
  auto files = feed.drive.fs->GetLastFiles(10);
  ASSERT_TRUE(files.HasValue());
  Lines names;
  for (const RemoteFileSystem::FileInfo& info : files.GetValue()) {
    names.push_back(info.name + " " + std::to_string(info.size) + " " + std::to_string(info.time));
  }
  EXPECT_EQ(names, (Lines{"new.txt 5 1700000100", "old.txt 3 1700000000"}));
  HttpRequest sent = feed.drive.emulator->server().Requests().back();
  EXPECT_EQ(sent.path, "/drive/v2/files");
  EXPECT_EQ(emulators::QueryParam(sent.query, "maxResults"), "10");
  EXPECT_EQ(emulators::QueryParam(sent.query, "orderBy"), "recency desc");
  // 2. A size that is no number is no size.
  feed.drive.emulator->server().Handle("GET", "/drive/v2/files", [](const HttpRequest&) {
    return emulators::HttpResponse::Status(
        200, R"({"items":[{"id":"x","title":"odd","fileSize":"lots","modifiedDate":"bad"},)"
             R"({"id":"y","title":"big","fileSize":"99999999999999999999999"}]})");
  });
  files = feed.drive.fs->GetLastFiles(10);
  ASSERT_TRUE(files.HasValue());
  ASSERT_EQ(files.GetValue().size(), 2u);
  EXPECT_EQ(files.GetValue()[0].size, 0u);
  EXPECT_EQ(files.GetValue()[0].time, 0u);
  EXPECT_EQ(files.GetValue()[1].size, 0u);
  // 3. A failed listing.
  feed.drive.emulator->server().Handle("GET", "/drive/v2/files", [](const HttpRequest&) {
    return emulators::HttpResponse::Status(500, "{}");
  });
  LoggerWrapper::Capture log;
  EXPECT_FALSE(feed.drive.fs->GetLastFiles(10).HasValue());
  EXPECT_TRUE(log.Contains("Failed GetLastFiles request from api"));
}

}  // namespace

// The OneDrive adapter against the Graph emulator: the failure table under the injectable clock,
// the snapshot of a generated account, the feed after each kind of change, renewal, quota, mounted
// folders, bad answers, and transfers with their echoes.
#include "services/RemoteFileSystemOneDrive.h"

#include <QByteArray>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <queue>

#include "core/Clock.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/HashCalculators.h"
#include "core/JsonWriter.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "emulators/ContentHashes.h"
#include "emulators/Emulator.h"
#include "emulators/OneDriveDialect.h"
#include "services/GraphDriveItem.h"
#include "support/HashOf.h"
#include "support/OneDriveTesting.h"
#include "support/StartEmulator.h"

namespace {

using Result = FileSystem::Result;
using Change = FileSystem::Change;
using emulators::Item;

// path -> "d" for a folder, else the size.
using Listing = std::map<std::string, std::string>;

void ListTree(const FolderNode& folder, const std::string& prefix, Listing* out) {
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    std::string path = prefix + it->GetName();
    (*out)[path] = "d";
    ListTree(**it, path + "/", out);
  }
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it)
    (*out)[prefix + it->GetName()] = std::to_string(it->size);
}

class OneDriveTest : public test::OneDriveEmulatorTest {
 protected:
  std::string AddFolder(const std::string& parent, const std::string& name) {
    Item item;
    EXPECT_EQ(account().CreateFolder(parent, name, &item), emulators::AccountError::kNone);
    return item.id;
  }
  std::string AddFile(const std::string& parent, const std::string& name,
                      const std::string& content) {
    Item item;
    EXPECT_EQ(account().CreateFile(parent, name, content, 1'700'000'000'000, &item),
              emulators::AccountError::kNone);
    return item.id;
  }

  // The account as the adapter should see it: everything but the content of shared folders.
  Listing Model() {
    Listing model;
    for (const Item& item : account().AllItems()) {
      if (item.id == account().RootId() || account().IsInTrash(item.id) || item.parents.empty())
        continue;
      model[account().PathOf(item.id)] = item.IsFolder() ? "d" : std::to_string(item.size);
    }
    return model;
  }
  Listing Tree() {
    Listing listing;
    ListTree(root_, "", &listing);
    return listing;
  }

  Result Snapshot(RemoteFileSystemOneDrive* drive) {
    root_.Clear();
    return drive->GetFullTree(&root_, &free_, &total_, &public_);
  }
  // One feed cycle, applied; the changes as they came.
  std::vector<Change> Feed(RemoteFileSystemOneDrive* drive, Result expected = Result::SUCCEEDED) {
    std::queue<Change> queue;
    EXPECT_EQ(drive->GetChanges(&queue), expected);
    std::vector<Change> applied;
    while (!queue.empty()) {
      Change change = queue.front();
      queue.pop();
      EXPECT_TRUE(drive->PrepareRemoteChange(&change));
      EXPECT_TRUE(drive->ApplyRemoteChange(change, &root_, &free_, &total_));
      applied.push_back(change);
    }
    return applied;
  }
  std::vector<emulators::HttpRequest> DeltaRequests() {
    std::vector<emulators::HttpRequest> deltas;
    for (const auto& request : emulator_->server().Requests()) {
      if (request.path.find("/delta") != std::string::npos)
        deltas.push_back(request);
    }
    return deltas;
  }

  FolderNode root_;
  std::uint64_t free_ = 0;
  std::uint64_t total_ = 0;
  tsl::htrie_set<char> public_;
};

TEST_F(OneDriveTest, HttpFailuresMapToResultsWaitsAndReasons) {
  struct Case {
    int status;
    int retry_after;  // -1: no header
    Result result;
    std::vector<std::int64_t> waits;
    FileSystem::FailReason reason;
    const char* line;
  };
  const Case cases[] = {
      {401, -1, Result::FORBIDDEN, {}, FileSystem::FAIL_REASON_NONE, "Last response code: 401."},
      {403, -1, Result::ACCESS_DENIED, {}, FileSystem::FAIL_REASON_NONE, "code: 403."},
      {400, -1, Result::CONFLICT, {}, FileSystem::FAIL_REASON_NONE, "code: 400."},
      {404, -1, Result::CONFLICT, {}, FileSystem::FAIL_REASON_NONE, "code: 404."},
      {409, -1, Result::CONFLICT, {}, FileSystem::FAIL_REASON_NONE, "code: 409."},
      {410, -1, Result::CONFLICT, {}, FileSystem::FAIL_REASON_NONE, "code: 410."},
      {412, -1, Result::CONFLICT, {}, FileSystem::FAIL_REASON_NONE, "code: 412."},
      {507, -1, Result::NO_SPACE, {}, FileSystem::FAIL_REASON_NONE, "code: 507."},
      {500, -1, Result::FAILED, {}, FileSystem::FAIL_REASON_NONE, "code: 500."},
      {429, -1, Result::FAILED, {}, FileSystem::FAIL_REASON_RATE_LIMIT, "retry-after = secs."},
      {429, 0, Result::FAILED, {}, FileSystem::FAIL_REASON_RATE_LIMIT, "retry-after = 0secs."},
      {429, 7, Result::FAILED, {7000}, FileSystem::FAIL_REASON_RATE_LIMIT, "err code =429"},
      {509, 300, Result::FAILED, {300000}, FileSystem::FAIL_REASON_RATE_LIMIT, "err code =509"},
      {429,
       301,
       Result::FATAL,
       {},
       FileSystem::FAIL_REASON_RATE_LIMIT,
       "Must wait 301seconds, but it`s too long."},
  };
  auto drive = OpenDrive();
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.status) + " retry-after " + std::to_string(c.retry_after));
    utils::ManualClock clock;
    utils::ScopedClock scoped(&clock);
    LoggerWrapper::Capture log;
    emulator_->faults().Add(emulators::FaultRule::On("GET", "/v1.0/me/drive")
                                .Status(c.status)
                                .RetryAfter(c.retry_after));
    std::uint64_t total = 0, used = 0;
    EXPECT_EQ(drive->GetCloudSize(&total, &used), c.result);
    EXPECT_EQ(clock.Waits(), c.waits);
    EXPECT_EQ(drive->GetFailReason(), c.reason);
    EXPECT_TRUE(log.Contains(c.line));
  }
}

TEST_F(OneDriveTest, NetworkFailureAndStopDuringRetryAfter) {
  // A host that refuses: FAILED with the network reason.
  auto drive = OpenDrive();
  {
    emulators::HttpServer closed;
    Endpoints::Override(Endpoints::kMicrosoftGraph, closed.BaseUrl() + "/v1.0");
  }
  std::uint64_t total = 0, used = 0;
  EXPECT_EQ(drive->GetCloudSize(&total, &used), Result::FAILED);
  EXPECT_EQ(drive->GetFailReason(), FileSystem::FAIL_REASON_NETWORK);
  // Stop while the service asks to wait: STOPPED, and every later operation too.
  Endpoints::Override(Endpoints::kMicrosoftGraph, emulator_->BaseUrl() + "/v1.0");
  emulator_->faults().Add(
      emulators::FaultRule::On("GET", "/v1.0/me/drive").Status(429).RetryAfter(120));
  clock_.SetOnWait([&drive](std::int64_t) { drive->Stop(); });
  EXPECT_EQ(drive->GetCloudSize(&total, &used), Result::STOPPED);
  EXPECT_EQ(drive->GetCloudSize(&total, &used), Result::STOPPED);
  std::queue<Change> changes;
  EXPECT_EQ(drive->GetChanges(&changes), Result::STOPPED);
}

TEST_F(OneDriveTest, GeneratedAccountComesDownEqualToTheModel) {
  // 1. Twenty levels, Unicode, names differing only in case in different folders, many files.
  std::string parent = account().RootId();
  std::vector<std::string> folders;
  for (int depth = 0; depth < 20; ++depth) {
    parent = AddFolder(
        parent, depth % 2 ? "Ebene " + std::to_string(depth) : "нива-" + std::to_string(depth));
    folders.push_back(parent);
  }
  for (int i = 0; i < 1200; ++i) {
    const std::string& folder = folders[i % folders.size()];
    AddFile(folder, (i % 3 ? "Datei-" : "datei-") + std::to_string(i / 3) + "-ü.bin",
            std::string(static_cast<std::size_t>(i % 7), 'x'));
  }
  AddFolder(account().RootId(), "日本語 フォルダ");
  // 2. The snapshot.
  auto drive = OpenDrive();
  LoggerWrapper::Capture log;
  ASSERT_EQ(Snapshot(drive.get()), Result::SUCCEEDED);
  EXPECT_EQ(Tree(), Model());
  EXPECT_TRUE(
      log.Contains("Getting snapshot finished. OneDrive contains 1200 files and 21 folders."));
  // 3. The ids: every item's path, through its id.
  for (const Item& item : account().AllItems()) {
    if (item.id != account().RootId()) {
      EXPECT_EQ(shared_->ids.GetPathById(item.id).value_or("?"), account().PathOf(item.id));
    }
  }
  // 4. Pages of 200, "$select" once per query; the next run starts at the kept link, verbatim.
  std::vector<emulators::HttpRequest> deltas = DeltaRequests();
  ASSERT_EQ(deltas.size(), 7u);
  for (const auto& request : deltas) {
    EXPECT_EQ(request.query.find("$select="), request.query.rfind("$select=")) << request.query;
    EXPECT_NE(request.query.find("$select="), std::string::npos) << request.query;
  }
  emulator_->server().ClearRequests();
  Feed(drive.get());
  deltas = DeltaRequests();
  ASSERT_EQ(deltas.size(), 1u);
  EXPECT_NE(deltas[0].query.find("token=D" + std::to_string(account().Sequence()) + "%21"),
            std::string::npos)
      << deltas[0].query;
  EXPECT_NE(deltas[0].query.find("deleted"), std::string::npos);
}

class OneDriveFeedTest : public OneDriveTest {
 protected:
  void SetUp() override {
    OneDriveTest::SetUp();
    docs_ = AddFolder(account().RootId(), "Docs");
    sub_ = AddFolder(docs_, "Sub");
    file_ = AddFile(docs_, "a.txt", "alpha");
    AddFile(sub_, "b.txt", "beta!");
    other_ = AddFolder(account().RootId(), "Other");
    drive_ = OpenDrive();
    ASSERT_EQ(Snapshot(drive_.get()), Result::SUCCEEDED);
    ASSERT_EQ(Tree(), Model());
  }
  std::string docs_, sub_, file_, other_;
  std::unique_ptr<RemoteFileSystemOneDrive> drive_;
};

TEST_F(OneDriveFeedTest, EachKindOfChangeLeavesTheTreeEqualToTheModel) {
  struct Case {
    const char* name;
    std::function<void()> change;
    Change::Type type;
  };
  Item out;
  const Case cases[] = {
      {"create", [&] { AddFile(sub_, "new.txt", "fresh"); }, Change::FILE_CREATE},
      {"content", [&] { account().ReplaceContent(file_, "alpha2", 1'700'000'100'000, &out); },
       Change::FILE_MODIFY},
      {"file rename", [&] { account().Rename(file_, "renamed.txt", &out); }, Change::FILE_RENAME},
      {"file move", [&] { account().Move(file_, {other_}, "", &out); }, Change::FILE_RENAME},
      {"folder rename", [&] { account().Rename(docs_, "Papers", &out); }, Change::FOLDER_RENAME},
      {"file delete", [&] { account().Delete(file_); }, Change::FILE_DELETE},
      {"folder delete", [&] { account().Delete(docs_); }, Change::FOLDER_DELETE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoggerWrapper::Capture log;
    c.change();
    std::vector<Change> applied = Feed(drive_.get());
    EXPECT_EQ(Tree(), Model());
    EXPECT_TRUE(std::any_of(applied.begin(), applied.end(),
                            [&](const Change& change) { return change.type == c.type; }));
    EXPECT_FALSE(log.Contains("not empty"));
  }
}

TEST_F(OneDriveFeedTest, FolderRenameWithAFileInsideInOnePageIsNoFileRename) {
  Item out;
  account().Rename(docs_, "Papers", &out);
  account().ReplaceContent(file_, "changed", 1'700'000'200'000, &out);
  std::vector<Change> applied = Feed(drive_.get());
  EXPECT_EQ(Tree(), Model());
  for (const Change& change : applied)
    EXPECT_NE(change.type, Change::FILE_RENAME) << change.path;
}

TEST_F(OneDriveFeedTest, DeletedFolderRunsASecondRoundInTheSameCall) {
  account().Delete(docs_);
  emulator_->server().ClearRequests();
  LoggerWrapper::Capture log;
  Feed(drive_.get());
  EXPECT_EQ(DeltaRequests().size(), 2u);
  EXPECT_EQ(Tree(), Model());
  EXPECT_FALSE(log.Contains("Failed deleting folder - it is not empty."));
}

TEST_F(OneDriveFeedTest, RenewalFollowsTheDeltaCodeAfterAMinute) {
  struct Case {
    int status;
    bool reset;
    bool renews;
  };
  const Case cases[] = {{410, false, true}, {400, false, true}, {0, true, false}};
  // A reset on a reused connection is tried again by the transport: the fault stays for both.
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    ASSERT_EQ(Snapshot(drive_.get()), Result::SUCCEEDED);
    emulator_->faults().Add(emulators::FaultRule::On("GET", "/v1.0/me/drive/root/delta")
                                .Status(c.status)
                                .Reset(c.reset)
                                .Times(c.reset ? 3 : 1));
    std::queue<Change> changes;
    EXPECT_NE(drive_->GetChanges(&changes), Result::SUCCEEDED);
    EXPECT_TRUE(changes.empty());
    EXPECT_FALSE(drive_->ShouldRenewTree());
    clock_.Advance(59'000);
    EXPECT_FALSE(drive_->ShouldRenewTree());
    clock_.Advance(1'000);
    EXPECT_EQ(drive_->ShouldRenewTree(), c.renews);
  }
  ASSERT_EQ(Snapshot(drive_.get()), Result::SUCCEEDED);
  clock_.Advance(120'000);
  EXPECT_FALSE(drive_->ShouldRenewTree());
}

TEST_F(OneDriveFeedTest, SuspiciousDeleteOnlyWhenTheClockWentBack) {
  Change missing(Change::FILE_DELETE, "nowhere.txt");
  missing.id = "no-such-id";
  for (bool set_back : {false, true}) {
    SCOPED_TRACE(set_back);
    LoggerWrapper::Capture log;
    EXPECT_TRUE(drive_->ApplyRemoteChange(missing, &root_, &free_, &total_));
    if (set_back)
      clock_.SetWallMs(clock_.NowMs() - 700'000);
    Feed(drive_.get());
    EXPECT_EQ(log.Contains("Renew tree because of suspicious delete event from remote."), set_back);
  }
}

TEST_F(OneDriveFeedTest, QuotaPushesAfter101Seconds) {
  auto types = [](const std::vector<Change>& changes) {
    std::vector<Change::Type> sizes;
    for (const Change& change : changes) {
      if (change.type == Change::FREE_SIZE_SET || change.type == Change::TOTAL_SIZE_SET)
        sizes.push_back(change.type);
    }
    return sizes;
  };
  AddFile(other_, "grow.bin", std::string(1000, 'g'));
  clock_.Advance(100'000);
  EXPECT_TRUE(types(Feed(drive_.get())).empty());
  clock_.Advance(101'000);
  EXPECT_EQ(types(Feed(drive_.get())), std::vector<Change::Type>{Change::FREE_SIZE_SET});
  EXPECT_EQ(free_, account().TotalSpace() - account().UsedSpace());
  account().SetTotalSpace(account().TotalSpace() * 2);
  clock_.Advance(101'000);
  EXPECT_EQ(types(Feed(drive_.get())),
            (std::vector<Change::Type>{Change::TOTAL_SIZE_SET, Change::FREE_SIZE_SET}));
  EXPECT_EQ(total_, account().TotalSpace());
}

TEST_F(OneDriveTest, SharedFolderOfASecondDriveMountsOnItsOwnDelta) {
  // 1. A folder of the second drive added to this one, with a file.
  std::string shared = AddFolder(account().RootId(), "From Ann");
  Item out;
  account().SetSharedWithMe(shared, true, &out);
  AddFile(shared, "plan.txt", "0123456789");
  auto drive = OpenDrive();
  ASSERT_EQ(Snapshot(drive.get()), Result::SUCCEEDED);
  Listing tree = Tree();
  EXPECT_EQ(tree["From Ann"], "d");
  EXPECT_EQ(tree["From Ann/plan.txt"], "10");
  EXPECT_TRUE(drive->IsItemInMountedDir("From Ann/plan.txt"));
  EXPECT_FALSE(drive->IsItemInMountedDir("From Annex"));
  EXPECT_EQ(drive->GetMountedDirSize(), 10u);
  // 2. A change inside: read on the folder's own link, the free bytes stay.
  AddFile(shared, "more.txt", std::string(500, 'm'));
  const std::uint64_t free = free_;
  emulator_->server().ClearRequests();
  Feed(drive.get());
  EXPECT_EQ(Tree()["From Ann/more.txt"], "500");
  EXPECT_EQ(free_, free);
  bool own_link = false;
  for (const auto& request : DeltaRequests()) {
    own_link |= request.path == "/v1.0/drives/" +
                                    std::string(emulators::OneDriveDialect::kSharedDriveId) +
                                    "/items/" + shared + "/delta" &&
                request.query.find("token=D") != std::string::npos;
  }
  EXPECT_TRUE(own_link);
  // 3. A file inside is read through its drive's path.
  emulator_->server().ClearRequests();
  const FileNode* plan = root_.GetFolder("From Ann")->GetFile("plan.txt");
  ASSERT_NE(plan, nullptr);
  ASSERT_EQ(drive->OpenForRead("From Ann/plan.txt", 0, 10, 10, plan->hash), Result::SUCCEEDED);
  std::uint8_t buffer[64];
  std::uint32_t done = 0;
  ASSERT_EQ(drive->ReadFile(buffer, sizeof(buffer), &done), Result::SUCCEEDED);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), done), "0123456789");
  EXPECT_EQ(drive->CloseFile(nullptr), Result::SUCCEEDED);
  const std::string content_path = emulator_->server().Requests().front().path;
  EXPECT_EQ(
      content_path.rfind(
          "/v1.0/drives/" + std::string(emulators::OneDriveDialect::kSharedDriveId) + "/items/", 0),
      0u)
      << content_path;
  EXPECT_NE(content_path.find(":/plan.txt:/content"), std::string::npos) << content_path;
  // 4. A failing listing of shared items answers 0.
  emulator_->faults().Add(
      emulators::FaultRule::On("GET", "/v1.0/me/drive/sharedWithMe").Status(500));
  EXPECT_EQ(drive->GetMountedDirSize(), 0u);
}

TEST_F(OneDriveTest, BadAnswersGiveTheirResultAndLine) {
  struct Case {
    const char* name;
    emulators::FaultRule fault;
    Result result;
    const char* line;
  };
  auto delta = [] { return emulators::FaultRule::On("GET", "/v1.0/me/drive/root/delta"); };
  AddFile(account().RootId(), "f.txt", "x");
  const Case cases[] = {
      {"403 on the root", emulators::FaultRule::On("GET", "/v1.0/me/drive/root").Status(403),
       Result::FATAL, "No access to root, it`s fatal err."},
      {"page without value", delta().DropField("value"), Result::FATAL, "No items in response."},
      {"last page without link", delta().DropField("@odata.deltaLink"), Result::FATAL,
       "Delta link is empty."},
      {"truncated page", delta().CutAfter(40), Result::FAILED, "Failed request: "},
      {"item without facet", delta().DropField("file"), Result::SUCCEEDED,
       "Unknown drive_item's resource facet type."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    emulator_->faults().Clear();
    LoggerWrapper::Capture log;
    emulator_->faults().Add(c.fault);
    auto drive = OpenDrive();
    EXPECT_EQ(Snapshot(drive.get()), c.result);
    EXPECT_TRUE(log.Contains(c.line));
  }
}

TEST(OneDriveDriveType, DocumentLibraryIsFatal) {
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  emulators::OneDriveOptions options;
  options.drive_type = "documentLibrary";
  auto emulator = test::StartEmulator(emulators::MakeOneDriveDialect(options));
  RemoteFileSystemOneDrive drive(std::make_shared<RemoteFileSystemOneDriveSharedData>(), "");
  drive.Open(std::make_shared<CurlURLProcessorFactory>(
      std::make_shared<core::cookie::CookieOAuth>("token")));
  LoggerWrapper::Capture log;
  FolderNode root;
  std::uint64_t free = 0, total = 0;
  EXPECT_EQ(drive.GetFullTree(&root, &free, &total, nullptr), Result::FATAL);
  EXPECT_TRUE(log.Contains("invalid drive_type value."));
  Endpoints::ResetOverrides();
}

TEST_F(OneDriveFeedTest, UploadsLandWithOurHashAndTheirEchoesAreDropped) {
  struct Case {
    const char* name;
    std::uint64_t size;
    std::size_t puts;  // requests that carried content
  };
  const Case cases[] = {{"empty", 0, 1}, {"one chunk", 1024 * 1024 + 3, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    emulator_->server().ClearRequests();
    const std::string path = std::string("Other/") + c.name + ".bin";
    std::string content = emulators::PatternString(0, c.size);
    SomeHash ours = test::HashOf<HashCalculatorOneDrive>(content);
    std::uint64_t offset = 1;
    ASSERT_EQ(drive_->OpenForCreate({}, path, ours, c.size, 1'600'000'000, &offset, false),
              Result::SUCCEEDED);
    EXPECT_EQ(offset, 0u);
    LoggerWrapper::Capture upload_log;
    for (std::size_t at = 0; at < content.size(); at += 65536) {
      std::size_t block = std::min<std::size_t>(65536, content.size() - at);
      ASSERT_EQ(drive_->WriteFile(reinterpret_cast<const std::uint8_t*>(content.data() + at),
                                  static_cast<std::uint32_t>(block)),
                Result::SUCCEEDED)
          << testing::PrintToString(upload_log.Lines());
    }
    FileSystem::FileProperties props;
    ASSERT_EQ(drive_->CloseFile(&props), Result::SUCCEEDED);
    std::optional<Item> item = account().FindByPath(path);
    ASSERT_TRUE(item);
    // A session's bytes are kept as digests: the service's own hash of them is the check.
    EXPECT_EQ(item->size, c.size);
    EXPECT_EQ(item->digests.quickxor, emulators::ContentHasher::Of(content).quickxor);
    EXPECT_EQ(item->modified_ms, 1'600'000'000'000);
    EXPECT_EQ(props.hash.GetHashOneDrive().quick_xor, ours.GetHashOneDrive().quick_xor);
    std::size_t puts = 0;
    for (const auto& request : emulator_->server().Requests()) {
      if (request.verb == "PUT") {
        ++puts;
        EXPECT_EQ(request.path.rfind("/_upload/", 0) == 0, !request.HasHeader("Authorization"));
      }
    }
    EXPECT_EQ(puts, c.puts);
    // The feed brings the upload and the PATCH of its time: both are ours.
    LoggerWrapper::Capture log;
    Feed(drive_.get());
    EXPECT_FALSE(Tree().count(path)) << "the echo reached the tree";
  }
}

TEST_F(OneDriveFeedTest, RangedAndWholeReadsAreByteExactWithoutTheTokenOnTheRedirect) {
  const std::string content = emulators::PatternString(0, 100000);
  std::string id = AddFile(other_, "r.bin", content);
  Feed(drive_.get());
  FileNode* node = root_.GetFolder("Other")->GetFile("r.bin");
  ASSERT_NE(node, nullptr);
  struct Case {
    std::uint64_t offset, limit;
  };
  for (const Case& c : {Case{0, 100000}, Case{1000, 5000}, Case{99990, 100000}}) {
    ASSERT_EQ(drive_->OpenForRead("Other/r.bin", c.offset, c.limit, node->size, node->hash),
              Result::SUCCEEDED);
    std::string got;
    std::uint8_t buffer[8192];
    std::uint32_t done = 0;
    do {
      ASSERT_EQ(drive_->ReadFile(buffer, sizeof(buffer), &done), Result::SUCCEEDED);
      got.append(reinterpret_cast<char*>(buffer), done);
    } while (done > 0);
    EXPECT_EQ(drive_->CloseFile(nullptr), Result::SUCCEEDED);
    EXPECT_EQ(got, content.substr(c.offset, c.limit - c.offset));
  }
  // A stale eTag on a whole read: the metric, and no bytes taken for good.
  RadarsLogger::Capture metrics;
  Item out;
  account().ReplaceContent(id, content, 1'700'000'300'000, &out);
  ASSERT_EQ(drive_->OpenForRead("Other/r.bin", 0, 100000, node->size, node->hash),
            Result::SUCCEEDED);
  std::uint8_t buffer[8192];
  std::uint32_t done = 0;
  EXPECT_EQ(drive_->ReadFile(buffer, sizeof(buffer), &done), Result::FAILED);
  EXPECT_EQ(metrics.Count("onedrive_remote_unexpected_hash"), 1u);
}

TEST_F(OneDriveFeedTest, FolderOperationsSendOneRequestAndDropTheirEchoes) {
  LoggerWrapper::Capture log;
  // 1. The same path sends nothing.
  emulator_->server().ClearRequests();
  const FileNode& a = *root_.GetFolder("Docs")->GetFile("a.txt");
  EXPECT_EQ(drive_->RenameFileImpl(a, {}, "Docs/a.txt", {}, "Docs/a.txt", nullptr),
            Result::SUCCEEDED);
  EXPECT_TRUE(emulator_->server().Requests().empty());
  // 2. A folder made, with its body as written.
  ASSERT_EQ(drive_->CreateFolderImpl({}, "Other/Made"), Result::SUCCEEDED);
  ASSERT_EQ(emulator_->server().Requests().size(), 1u);
  EXPECT_EQ(emulator_->server().Requests().back().body,
            R"({"folder":{},"name":"Made","@microsoft.graph.conflictBehavior":"replace"})");
  // 3. A folder deleted: every item below is recorded.
  ASSERT_EQ(drive_->DeleteFolderImpl(*root_.GetFolder("Docs"), FileSystem::Revision::RevisionNone(),
                                     "Docs"),
            Result::SUCCEEDED);
  EXPECT_EQ(log.Count("self made delete"), 4u);  // Docs, Sub, a.txt, b.txt
  // 4. The echoes are all dropped: the tree is left as the caller keeps it.
  Feed(drive_.get());
  EXPECT_EQ(log.Count("Skipping self made change: "), 5u);
  EXPECT_TRUE(root_.GetFolder("Docs"));
  EXPECT_EQ(Model().count("Docs"), 0u);
  EXPECT_EQ(Model().count("Other/Made"), 1u);
}

constexpr auto QuickXorOf = test::HashOf<HashCalculatorOneDrive>;

// The QuickXor digest as Graph writes it.
std::string Base64Of(const SomeHash& hash) {
  const HashOneDrive value = hash.GetHashOneDrive();
  return QByteArray(reinterpret_cast<const char*>(value.quick_xor.data()), 20)
      .toBase64()
      .toStdString();
}

// Writes `content` from `from` on in blocks of `block` bytes; the first failure.
Result WriteBlocks(RemoteFileSystemOneDrive* drive, const std::string& content, std::uint64_t from,
                   std::size_t block) {
  for (std::size_t at = from; at < content.size(); at += block) {
    const std::size_t size = std::min(block, content.size() - at);
    Result result = drive->WriteFile(reinterpret_cast<const std::uint8_t*>(content.data() + at),
                                     static_cast<std::uint32_t>(size));
    if (result != Result::SUCCEEDED)
      return result;
  }
  return Result::SUCCEEDED;
}

constexpr std::int64_t kMonthMs = 30LL * 24 * 3600 * 1000;

// The emulator dates its sessions by the system's clock.
std::int64_t SystemNowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

class OneDriveSessionTest : public OneDriveFeedTest {
 protected:
  // The content ranges of the pieces sent to upload URLs, none of which may carry the token.
  std::vector<std::string> PieceRanges() {
    std::vector<std::string> ranges;
    for (const auto& request : emulator_->server().Requests()) {
      if (request.verb == "PUT" && request.path.rfind("/_upload/", 0) == 0) {
        EXPECT_FALSE(request.HasHeader("Authorization"));
        ranges.push_back(request.Header("Content-Range"));
      }
    }
    return ranges;
  }
  std::size_t SessionsCreated() {
    std::size_t count = 0;
    for (const auto& request : emulator_->server().Requests())
      count += request.path.find("/createUploadSession") != std::string::npos;
    return count;
  }
};

TEST_F(OneDriveSessionTest, ChunksOfAtMost49152000BytesWithExactContentRanges) {
  account().SetKeepContentLimit(1 << 20);
  struct Case {
    std::uint64_t size;
    std::size_t block;
    std::vector<std::string> ranges;
  };
  const Case cases[] = {
      {49152000, 1 << 20, {"bytes 0-49151999/49152000"}},
      {49152001, 1 << 20, {"bytes 0-49151999/49152001", "bytes 49152000-49152000/49152001"}},
      {(100 << 20) + 3,
       999983,
       {"bytes 0-49151999/104857603", "bytes 49152000-98303999/104857603",
        "bytes 98304000-104857602/104857603"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    emulator_->server().ClearRequests();
    const std::string path = "Other/" + std::to_string(c.size) + ".bin";
    const std::string content = emulators::PatternString(0, c.size);
    const SomeHash ours = QuickXorOf(content);
    std::uint64_t offset = 1;
    ASSERT_EQ(drive_->OpenForCreate({}, path, ours, c.size, 0, &offset, false), Result::SUCCEEDED);
    ASSERT_EQ(WriteBlocks(drive_.get(), content, 0, c.block), Result::SUCCEEDED);
    FileSystem::FileProperties props;
    ASSERT_EQ(drive_->CloseFile(&props), Result::SUCCEEDED);
    EXPECT_EQ(PieceRanges(), c.ranges);
    std::optional<Item> item = account().FindByPath(path);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->size, c.size);
    EXPECT_EQ(item->digests.quickxor, Base64Of(ours));
    EXPECT_EQ(props.hash.GetHashOneDrive().quick_xor, ours.GetHashOneDrive().quick_xor);
  }
}

// Adapter A leaves a session behind; adapter B of the same factory data takes it up.
TEST_F(OneDriveSessionTest, AnInterruptedSessionResumesInAnotherAdapter) {
  enum class Cut { kShortPersist, kStopMidChunk, kResetInSecondChunk };
  enum class Then { kSameContent, kOtherBytes, kLonger };  // what B uploads
  enum class Meanwhile { kNothing, kClockPastExpiry, kServiceDropsSessions };
  struct Case {
    const char* name;
    Cut cut;
    Meanwhile meanwhile;
    Then then;
    std::uint64_t resume_at;
    const char* line;
    std::size_t sessions_created;
    std::uint64_t size = (1 << 20) + 3;
    std::size_t status_reads = 1;  // of the stored session, when it is resumed
  };
  const Case cases[] = {
      {"reset in the second chunk", Cut::kResetInSecondChunk, Meanwhile::kNothing,
       Then::kSameContent, 49152000 + 327680, "\" from 49479680 offset, size = 50200579.", 1,
       49152000 + (1 << 20) + 3, 2},  // A asks too, after the broken chunk
      {"short persist", Cut::kShortPersist, Meanwhile::kNothing, Then::kSameContent, 327680,
       "\" from 327680 offset, size = 1048579.", 1},
      {"stop mid-chunk", Cut::kStopMidChunk, Meanwhile::kNothing, Then::kSameContent, 0,
       "\" from 0 offset, size = 1048579.", 1},
      {"expired by its time", Cut::kShortPersist, Meanwhile::kClockPastExpiry, Then::kSameContent,
       0, "\" expired.", 2},
      {"dropped by the service", Cut::kShortPersist, Meanwhile::kServiceDropsSessions,
       Then::kSameContent, 0, "Last response code: 404", 2},
      {"other content", Cut::kShortPersist, Meanwhile::kNothing, Then::kOtherBytes, 0, "Hash of \"",
       2},
      // The content's hash covers its length: a longer file is told by the hash first.
      {"other size", Cut::kShortPersist, Meanwhile::kNothing, Then::kLonger, 0, "Hash of \"", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = std::string("Other/") + c.name + ".bin";
    clock_.SetWallMs(SystemNowMs());
    emulator_->server().ClearRequests();
    RadarsLogger::Capture metrics;
    account().SetKeepContentLimit(1 << 20);
    const std::uint64_t size = c.size;
    const std::string content = emulators::PatternString(0, size);
    const SomeHash hash = QuickXorOf(content);
    // 1. A stops short, leaving the session in the shared store.
    std::unique_ptr<RemoteFileSystemOneDrive> a = OpenDrive();
    std::uint64_t offset = 1;
    a->SetFileHashToResumeInterruptedUpload(hash);
    ASSERT_EQ(a->OpenForCreate({}, path, SomeHash(), size, 0, &offset, false), Result::SUCCEEDED);
    if (c.cut == Cut::kResetInSecondChunk) {
      // The service keeps 320 KiB of the second chunk, and the connection breaks before its answer.
      emulator_->faults().Add(
          emulators::FaultRule::On("PUT", "/_upload/").Nth(2).Reset().PersistLimit(327680));
      EXPECT_NE(WriteBlocks(a.get(), content, 0, 1 << 20), Result::SUCCEEDED);
    } else if (c.cut == Cut::kShortPersist) {
      emulator_->faults().Add(emulators::FaultRule::On("PUT", "/_upload/").PersistLimit(327680));
      EXPECT_EQ(WriteBlocks(a.get(), content, 0, 65536), Result::FAILED);
      EXPECT_EQ(metrics.Count("onedrive_offset_error"), 1u);
    } else {
      ASSERT_EQ(a->WriteFile(reinterpret_cast<const std::uint8_t*>(content.data()), 65536),
                Result::SUCCEEDED);
      a->Stop();
      EXPECT_EQ(WriteBlocks(a.get(), content, 65536, 65536), Result::STOPPED);
    }
    EXPECT_EQ(shared_->sessions.Count(), 1u);
    if (c.meanwhile == Meanwhile::kClockPastExpiry)
      clock_.SetWallMs(SystemNowMs() + kMonthMs);
    if (c.meanwhile == Meanwhile::kServiceDropsSessions)
      account().ExpireUploads();
    // 2. B goes on where the service stands, or starts again.
    LoggerWrapper::Capture log;
    std::unique_ptr<RemoteFileSystemOneDrive> b = OpenDrive();
    const std::string sent = c.then == Then::kOtherBytes ? emulators::PatternString(7, size)
                             : c.then == Then::kLonger   ? emulators::PatternString(0, size + 5)
                                                         : content;
    ASSERT_EQ(b->OpenForCreate({}, path, QuickXorOf(sent), sent.size(), 0, &offset, false),
              Result::SUCCEEDED)
        << testing::PrintToString(log.Lines());
    EXPECT_EQ(offset, c.resume_at);
    EXPECT_TRUE(log.Contains(c.line)) << testing::PrintToString(log.Lines());
    ASSERT_EQ(WriteBlocks(b.get(), sent, offset, 65536), Result::SUCCEEDED);
    FileSystem::FileProperties props;
    ASSERT_EQ(b->CloseFile(&props), Result::SUCCEEDED) << testing::PrintToString(log.Lines());
    EXPECT_EQ(metrics.Count("onedrive_upload_resumed"),
              c.sessions_created == 1 ? c.status_reads : 0u);
    EXPECT_EQ(SessionsCreated(), c.sessions_created);
    std::optional<Item> item = account().FindByPath(path);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->digests.quickxor, emulators::ContentHasher::Of(sent).quickxor);
    EXPECT_EQ(shared_->sessions.Count(), 0u);
  }
}

// The eTag of the caller's tree goes as "if-match": the current one works, a stale one is a
// conflict that leaves the file as it is, none sends no condition.
TEST_F(OneDriveFeedTest, ConditionsGoAsIfMatchAndAStaleETagIsAConflict) {
  enum class Op { kRewrite, kDelete };
  enum class ETag { kCurrent, kStale, kNone };
  struct Case {
    Op op;
    ETag etag;
    Result result;
  };
  const Case cases[] = {
      {Op::kRewrite, ETag::kCurrent, Result::SUCCEEDED},
      {Op::kRewrite, ETag::kStale, Result::CONFLICT},
      {Op::kDelete, ETag::kCurrent, Result::SUCCEEDED},
      {Op::kDelete, ETag::kStale, Result::CONFLICT},
      {Op::kDelete, ETag::kNone, Result::SUCCEEDED},
  };
  int round = 0;
  for (const Case& c : cases) {
    const std::string name = "c" + std::to_string(++round) + ".txt";
    SCOPED_TRACE(name);
    const std::string id = AddFile(other_, name, "first");
    Feed(drive_.get());
    const FileNode* node = root_.GetFolder("Other")->GetFile(name);
    ASSERT_NE(node, nullptr);
    SomeHash control = c.etag == ETag::kNone ? SomeHash() : node->hash;
    const std::string sent = control.GetHashOneDrive().etag;
    if (c.etag == ETag::kStale) {
      Item out;
      ASSERT_EQ(account().ReplaceContent(id, "other", 1'700'000'100'000, &out),
                emulators::AccountError::kNone);
    }
    emulator_->server().ClearRequests();
    const std::string path = "Other/" + name;
    if (c.op == Op::kRewrite) {
      const std::string content = "second";
      std::uint64_t offset = 0;
      Result result = drive_->OpenForRewrite(FileSystem::OverwriteControl(control), path,
                                             QuickXorOf(content), content.size(), 0, &offset);
      if (result == Result::SUCCEEDED)
        result = WriteBlocks(drive_.get(), content, 0, 4096);
      if (result == Result::SUCCEEDED)
        result = drive_->CloseFile(nullptr);
      EXPECT_EQ(result, c.result);
    } else {
      EXPECT_EQ(drive_->DeleteFileImpl(FileSystem::OverwriteControl(control), path, 5, 0),
                c.result);
    }
    // The condition went with the first request that touched the item.
    ASSERT_FALSE(emulator_->server().Requests().empty());
    const emulators::HttpRequest first = emulator_->server().Requests().front();
    EXPECT_EQ(first.Header("if-match"), sent);
    EXPECT_EQ(first.HasHeader("if-match"), c.etag != ETag::kNone);
    std::optional<Item> item = account().FindByPath(path);
    if (c.result != Result::SUCCEEDED) {
      ASSERT_TRUE(item);
      EXPECT_EQ(*item->content, "other");
    } else if (c.op == Op::kDelete) {
      EXPECT_FALSE(item && !account().IsInTrash(item->id));
    } else {
      ASSERT_TRUE(item);
      EXPECT_EQ(*item->content, "second");
    }
  }
}

TEST_F(OneDriveFeedTest, ClosePublicLinkDeletesOnlyTheItemsOwnLinks) {
  struct Case {
    const char* name;
    bool own;
    bool inherited;
    std::size_t deletes;
    const char* line;
  };
  const Case cases[] = {
      {"own and inherited", true, true, 1, "\" is closed."},
      {"inherited only", false, true, 0, "has no public links, nothig to close."},
  };
  Item out;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(account().SetPublicLink(docs_, c.inherited ? "https://1drv.ms/f/docs" : "", &out),
              emulators::AccountError::kNone);
    ASSERT_EQ(account().SetPublicLink(file_, c.own ? "https://1drv.ms/t/a" : "", &out),
              emulators::AccountError::kNone);
    emulator_->server().ClearRequests();
    LoggerWrapper::Capture log;
    EXPECT_EQ(drive_->ClosePublicLink("Docs/a.txt"), Result::SUCCEEDED);
    std::size_t deletes = 0;
    for (const auto& request : emulator_->server().Requests())
      deletes += request.verb == "DELETE";
    EXPECT_EQ(deletes, c.deletes);
    EXPECT_TRUE(log.Contains(c.line)) << testing::PrintToString(log.Lines());
    EXPECT_TRUE(account().Find(file_)->public_link.empty());
    EXPECT_FALSE(account().Find(docs_)->public_link.empty());
  }
}

TEST_F(OneDriveFeedTest, RenamesAndMovesSendOnePatchEachAndTheIdsFollow) {
  struct Case {
    bool folder;
    const char* from;
    const char* to;
    std::string body;
  };
  const Case cases[] = {
      {false, "Docs/a.txt", "Docs/a2.txt",
       R"({"@microsoft.graph.conflictBehavior":"replace","name":"a2.txt"})"},
      {false, "Docs/a2.txt", "Other/a2.txt",
       R"({"@microsoft.graph.conflictBehavior":"replace","name":"a2.txt","parentReference":{"id":")" +
           other_ + R"("}})"},
      {true, "Docs/Sub", "Docs/Sub2",
       R"({"@microsoft.graph.conflictBehavior":"replace","name":"Sub2"})"},
      {true, "Docs/Sub2", "Other/Sub3",
       R"({"@microsoft.graph.conflictBehavior":"replace","name":"Sub3","parentReference":{"id":")" +
           other_ + R"("}})"},
  };
  FolderNode holder;
  const FileNode* file = holder.CreateFileW("x", 5, SomeHash(), 0);
  ASSERT_NE(file, nullptr);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.to);
    const std::string id = account().FindByPath(c.from)->id;
    emulator_->server().ClearRequests();
    Result result = c.folder ? drive_->MoveFolderImpl(holder, {}, c.from, {}, c.to)
                             : drive_->RenameFileImpl(*file, {}, c.from, {}, c.to, nullptr);
    ASSERT_EQ(result, Result::SUCCEEDED);
    ASSERT_EQ(emulator_->server().Requests().size(), 1u);
    EXPECT_EQ(emulator_->server().Requests()[0].verb, "PATCH");
    EXPECT_EQ(emulator_->server().Requests()[0].body, c.body);
    EXPECT_EQ(account().PathOf(id), c.to);
    EXPECT_EQ(shared_->ids.GetPathById(id).value_or("?"), c.to);
  }
  // The file inside the moved folder is found by its new path too.
  EXPECT_EQ(shared_->ids.GetPathById(account().FindByPath("Other/Sub3/b.txt")->id).value_or("?"),
            "Other/Sub3/b.txt");
}

// The emulator's eTag of an item at a revision.
std::string ETagAt(const Item& item, std::uint64_t revision) {
  return "\"{" + item.id + "}," + std::to_string(revision) + "\"";
}

// A whole upload; the first failure, or the close's answer.
Result Upload(RemoteFileSystemOneDrive* drive, const std::string& path, const std::string& content,
              std::uint64_t time, FileSystem::FileProperties* props) {
  std::uint64_t offset = 0;
  Result result =
      drive->OpenForCreate({}, path, QuickXorOf(content), content.size(), time, &offset, false);
  if (result == Result::SUCCEEDED)
    result = WriteBlocks(drive, content, 0, 65536);
  if (result == Result::SUCCEEDED)
    result = drive->CloseFile(props);
  return result;
}

std::size_t CountRequests(emulators::Emulator& emulator, const std::string& verb,
                          const std::string& path_prefix) {
  std::size_t count = 0;
  for (const auto& request : emulator.server().Requests())
    count += request.verb == verb && request.path.rfind(path_prefix, 0) == 0;
  return count;
}

// The time goes on by a PATCH after the upload: retried once unless the service refused the
// condition; a time that can't be set leaves the upload standing.
TEST_F(OneDriveFeedTest, TimePatchRetriesOnceAndBothEchoesAreDropped) {
  struct Case {
    const char* name;
    int status;  // of the faulted PATCH answers; 0 for none
    int times;
    std::size_t patches;
    std::size_t metrics;
    bool timed;
  };
  const Case cases[] = {
      {"answered", 0, 0, 1, 0, true},
      {"500 once", 500, 1, 2, 0, true},
      {"500 twice", 500, 2, 2, 1, false},
      {"412", 412, 1, 1, 1, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = std::string("Other/") + c.name + ".bin";
    const std::string content = emulators::PatternString(3, 70000);
    if (c.status != 0) {
      emulator_->faults().Add(emulators::FaultRule::On("PATCH", "/v1.0/me/drive/items/")
                                  .Status(c.status)
                                  .Times(c.times));
    }
    emulator_->server().ClearRequests();
    RadarsLogger::Capture metrics;
    LoggerWrapper::Capture log;
    FileSystem::FileProperties props;
    ASSERT_EQ(Upload(drive_.get(), path, content, 1'650'000'000, &props), Result::SUCCEEDED);
    EXPECT_EQ(CountRequests(*emulator_, "PATCH", "/v1.0/me/drive/items/"), c.patches);
    EXPECT_EQ(metrics.Count("onedrive_failed_patch_mtime"), c.metrics);
    EXPECT_EQ(log.Contains("Can`t update last modified time for file"), !c.timed);
    std::optional<Item> item = account().FindByPath(path);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->modified_ms == 1'650'000'000'000, c.timed);
    // The caller's hash carries the eTag the item has now, after the PATCH.
    EXPECT_EQ(props.hash.GetHashOneDrive().etag, ETagAt(*item, item->revision));
    EXPECT_EQ(props.size, content.size());
    if (!c.timed)
      continue;
    // The feed may report the item as the upload left it and as the PATCH left it: both are ours.
    utils::json::Writer shape;
    shape.BeginObject().Key("eTag").String(ETagAt(*item, item->revision - 1));
    shape.Key("file").BeginObject().Key("hashes").BeginObject();
    shape.Key("quickXorHash").String(item->digests.quickxor).EndObject().EndObject().EndObject();
    utils::json::json_tree before;
    ASSERT_TRUE(utils::json::Parse(shape.Text(), &before));
    Change echo(Change::FILE_CREATE, path);
    echo.id = item->id;
    echo.size = content.size();
    echo.hash = SomeHash(GraphDriveItem::ParseHash(before));
    EXPECT_TRUE(drive_->ApplyRemoteChange(echo, &root_, &free_, &total_));
    Feed(drive_.get());
    EXPECT_EQ(log.Count("Change will be skipped"), 2u) << testing::PrintToString(log.Lines());
    EXPECT_FALSE(Tree().count(path)) << "an echo reached the tree";
  }
}

// Uploads that can't end well end with their result and line, and what is left of them is
// handled as the service's answer calls for.
TEST_F(OneDriveSessionTest, UploadFailuresGiveTheirResultAndLine) {
  account().SetKeepContentLimit(1 << 20);
  enum class After { kNothing, kSessionStored, kSessionDeleted };
  struct Case {
    const char* name;
    std::uint64_t size;
    int status;  // of the faulted piece; 0 for none
    std::uint64_t cut_after;
    std::uint64_t space;
    Result result;
    const char* line;
    const char* metric;
    After after;
    bool landed;  // the service made the file all the same
  };
  const Case cases[] = {
      {"507", 1 << 20, 0, UINT64_MAX, 1 << 19, Result::NO_SPACE, "code: 507.", nullptr,
       After::kSessionStored, false},
      {"201 before the last byte", 49152001, 201, UINT64_MAX, UINT64_MAX, Result::FAILED,
       "Size of written file is wrong, actual size is 0", nullptr, After::kNothing, false},
      {"unparsable final answer", 1 << 20, 0, 7, UINT64_MAX, Result::FAILED,
       "Failed to parse JSON from: ", nullptr, After::kSessionDeleted, true},
      {"416 re-reads the range", 1 << 20, 416, UINT64_MAX, UINT64_MAX, Result::FAILED,
       "Writing failed: ", "onedrive_offset_error", After::kSessionStored, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    account().SetTotalSpace(c.space);
    if (c.status != 0 || c.cut_after != UINT64_MAX) {
      emulator_->faults().Add(
          emulators::FaultRule::On("PUT", "/_upload/").Status(c.status).CutAfter(c.cut_after));
    }
    emulator_->server().ClearRequests();
    const std::size_t stored = shared_->sessions.Count();
    RadarsLogger::Capture metrics;
    LoggerWrapper::Capture log;
    const std::string path = std::string("Other/") + c.name + ".bin";
    EXPECT_EQ(Upload(drive_.get(), path, emulators::PatternString(0, c.size), 0, nullptr),
              c.result);
    EXPECT_TRUE(log.Contains(c.line)) << testing::PrintToString(log.Lines());
    if (c.metric) {
      EXPECT_EQ(metrics.Count(c.metric), 1u);
    }
    EXPECT_EQ(account().FindByPath(path).has_value(), c.landed);
    EXPECT_EQ(CountRequests(*emulator_, "DELETE", "/_upload/"),
              c.after == After::kSessionDeleted ? 1u : 0u);
    // A stored session was asked where it stands after the refused piece.
    EXPECT_EQ(shared_->sessions.Count() - stored, c.after == After::kSessionStored ? 1u : 0u);
    EXPECT_EQ(CountRequests(*emulator_, "GET", "/_upload/"),
              c.after == After::kSessionStored ? 1u : 0u);
    emulator_->faults().Clear();
  }
}

// What can be refused from the arguments alone sends nothing.
TEST_F(OneDriveFeedTest, RefusalsWithoutARequest) {
  struct Case {
    const char* name;
    std::string path;
    std::uint64_t size;
    Result result;
    const char* line;
  };
  const Case cases[] = {
      {"a name too long", "Other/" + std::string(401, 'n'), 5, Result::BADNAM, "Invalid name: "},
      {"over 100 GiB", "Other/huge.bin", RemoteFileSystemOneDrive::kMaxFileSize + 1,
       Result::TOO_LARGE, "File is too big, size = 107374182401."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    emulator_->server().ClearRequests();
    LoggerWrapper::Capture log;
    std::uint64_t offset = 0;
    EXPECT_EQ(drive_->OpenForCreate({}, c.path, SomeHash(), c.size, 0, &offset, false), c.result);
    EXPECT_EQ(drive_->OpenForRewrite({}, c.path, SomeHash(), c.size, 0, &offset), c.result);
    EXPECT_EQ(log.Count(c.line), 2u) << testing::PrintToString(log.Lines());
    EXPECT_TRUE(emulator_->server().Requests().empty());
  }
  // Past the announced size, nothing more is sent.
  std::uint64_t offset = 0;
  ASSERT_EQ(drive_->OpenForCreate({}, "Other/ten.bin", SomeHash(), 10, 0, &offset, false),
            Result::SUCCEEDED);
  LoggerWrapper::Capture log;
  const std::string eleven(11, 'x');
  EXPECT_EQ(drive_->WriteFile(reinterpret_cast<const std::uint8_t*>(eleven.data()), 11),
            Result::FATAL);
  EXPECT_TRUE(log.Contains("Write overflow; size=10, actual_offset=11."));
  EXPECT_EQ(CountRequests(*emulator_, "PUT", "/_upload/"), 0u);
}

// Some drives report only a SHA-1: our QuickXor can't be compared, which is said and not failed.
TEST_F(OneDriveTest, UploadToADriveWithOnlySha1IsNotCompared) {
  emulators::OneDriveOptions options;
  options.sha1_only = true;
  StartEmulator(options);
  const std::string folder = AddFolder(account().RootId(), "Docs");
  auto drive = OpenDrive();
  ASSERT_EQ(Snapshot(drive.get()), Result::SUCCEEDED);
  LoggerWrapper::Capture log;
  FileSystem::FileProperties props;
  const std::string content = emulators::PatternString(1, 5000);
  ASSERT_EQ(Upload(drive.get(), "Docs/s.bin", content, 0, &props), Result::SUCCEEDED);
  EXPECT_TRUE(log.Contains("\" is not comparable: ")) << testing::PrintToString(log.Lines());
  EXPECT_TRUE(props.hash.GetHashOneDrive().quick_xor.IsZero());
  EXPECT_FALSE(props.hash.GetHashOneDrive().sha1.IsZero());
  EXPECT_EQ(account().FindByPath("Docs/s.bin")->size, content.size());
}

TEST_F(OneDriveFeedTest, ReadOfAFileGoneFromTheServerIsAConflict) {
  const FileNode* a = root_.GetFolder("Docs")->GetFile("a.txt");
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(account().Delete(file_), emulators::AccountError::kNone);
  RadarsLogger::Capture metrics;
  LoggerWrapper::Capture log;
  ASSERT_EQ(drive_->OpenForRead("Docs/a.txt", 0, a->size, a->size, a->hash), Result::SUCCEEDED);
  std::uint8_t buffer[64];
  std::uint32_t done = 0;
  EXPECT_EQ(drive_->ReadFile(buffer, sizeof(buffer), &done), Result::CONFLICT);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(metrics.Count("one_drive_not_found"), 1u);
  EXPECT_TRUE(log.Contains("File not found; possible server side conflict."));
}

TEST_F(OneDriveFeedTest, LastFilesComeFromRecentInOneRequest) {
  Item out;
  for (int i = 0; i < 5; ++i) {
    account().CreateFile(other_, "r" + std::to_string(i) + ".txt", std::string(i + 1, 'r'),
                         1'700'000'000'000 + i * 1000, &out);
  }
  emulator_->server().ClearRequests();
  auto files = drive_->GetLastFiles(3);
  ASSERT_TRUE(files.HasValue());
  ASSERT_EQ(files.GetValue().size(), 3u);
  EXPECT_EQ(files.GetValue()[0].name, "r4.txt");
  EXPECT_EQ(files.GetValue()[0].size, 5u);
  EXPECT_EQ(files.GetValue()[0].time, 1'700'000'004u);
  EXPECT_EQ(files.GetValue()[0].id, account().FindByPath("Other/r4.txt")->id);
  EXPECT_EQ(files.GetValue()[2].name, "r2.txt");
  ASSERT_EQ(emulator_->server().Requests().size(), 1u);
  EXPECT_EQ(emulator_->server().Requests()[0].path, "/v1.0/me/drive/recent");
}

}  // namespace

// The Huawei Drive adapter against the Huawei emulator: tree, feed, item operations, sliced
// uploads, the code map, and bad input; judged by Results, the requests on the wire, the trees
// and the log lines.
#include "services/RemoteFileSystemHuawei.h"

#include <gtest/gtest.h>

#include <chrono>
#include <queue>
#include <set>
#include <typeinfo>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/Json.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/ContentHashes.h"
#include "emulators/Emulator.h"
#include "emulators/HuaweiDialect.h"
#include "services/BackupMetainfoRemoteReaderHuawei.h"
#include "services/BackupMetainfoRemoteWriterHuawei.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "services/RemoteFileSystemFactoryHuawei.h"
#include "services/RemoteFileSystemHuaweiSharedData.h"
#include "services/RemoteHuaweiUtils.h"
#include "support/HeapUsage.h"
#include "support/Processes.h"
#include "support/StartEmulator.h"
#include "support/StopOnceReady.h"

namespace {

using emulators::Item;
using FS = FileSystem;

class HuaweiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    emulator_ = test::StartEmulator(emulators::MakeDialect("huawei"));
    ASSERT_TRUE(emulator_);
    std::int64_t* clock = &clock_ms_;
    account().SetClock([clock] { return *clock += 1000; });
    factory_.reset(H6BA54F7D00(CloudServiceId::HUAWEI, root_path_));
    http_ = std::make_shared<CurlURLProcessorFactory>(
        std::make_shared<core::cookie::CookieOAuth>("token"));
    fs_ = Make();
  }
  void TearDown() override { Endpoints::ResetOverrides(); }

  std::unique_ptr<RemoteFileSystem> Make() {
    std::unique_ptr<RemoteFileSystem> fs(factory_->Create());
    EXPECT_TRUE(fs->Open(http_));
    return fs;
  }
  emulators::CloudAccount& account() { return emulator_->account(); }
  std::string Folder(const std::string& parent, const std::string& name) {
    Item made;
    EXPECT_EQ(account().CreateFolder(parent, name, &made), emulators::AccountError::kNone);
    return made.id;
  }
  std::string File(const std::string& parent, const std::string& name, const std::string& data) {
    Item made;
    EXPECT_EQ(account().CreateFile(parent, name, data, 0, &made), emulators::AccountError::kNone);
    return made.id;
  }
  RemoteFileIds& ids() {
    return std::static_pointer_cast<RemoteFileSystemHuaweiSharedData>(factory_->GetSharedData())
        ->ids;
  }
  FS::Result Tree(FolderNode* root) {
    std::uint64_t free = 0, total = 0;
    tsl::htrie_set<char> items;
    return fs_->GetFullTree(root, &free, &total, &items);
  }
  std::vector<std::string> Paths() {
    std::vector<std::string> paths;
    for (const auto& request : emulator_->server().Requests()) {
      paths.push_back(request.verb + " " + request.path);
    }
    return paths;
  }
  FS::Result Upload(RemoteFileSystem* fs, const std::string& path, const std::string& data,
                    FS::FileProperties* props, const FS::OverwriteControl* rewrite = nullptr) {
    std::uint64_t offset = 99;
    SomeHash hash(std::string("h") + std::to_string(data.size()));
    FS::Result opened = rewrite ? fs->OpenForRewrite(*rewrite, path, hash, data.size(), 1, &offset)
                                : fs->OpenForCreate(FS::OverwriteControl(), path, hash, data.size(),
                                                    1, &offset, false);
    if (opened != FS::SUCCEEDED) {
      return opened;
    }
    for (std::size_t at = offset; at < data.size(); at += 7000) {
      std::size_t n = std::min<std::size_t>(7000, data.size() - at);
      FS::Result written =
          fs->WriteFile(reinterpret_cast<const std::uint8_t*>(data.data()) + at, n);
      if (written != FS::SUCCEEDED) {
        return written;
      }
    }
    return fs->CloseFile(props);
  }
  const emulators::HuaweiDialect& dialect() {
    return static_cast<const emulators::HuaweiDialect&>(emulator_->dialect());
  }

  std::int64_t clock_ms_ = 1'700'000'000'000;
  std::string root_path_;
  std::unique_ptr<emulators::Emulator> emulator_;
  std::unique_ptr<RemoteFileSystemFactory> factory_;
  std::shared_ptr<URLProcessorFactory> http_;
  std::unique_ptr<RemoteFileSystem> fs_;
};

TEST_F(HuaweiTest, CapabilitiesAndLinksWithoutRequests) {
  EXPECT_EQ(fs_->GetServiceId(), CloudServiceId::HUAWEI);
  EXPECT_EQ(fs_->GetHashType(), SomeHash::GENERIC);
  EXPECT_EQ(fs_->GetMaxSupportedPathLength().first, 5000u);
  EXPECT_EQ(fs_->GetMaxSupportedNameLength().first, 250u);
  EXPECT_TRUE(fs_->IsCaseInsensitive());
  EXPECT_TRUE(fs_->SupportsResumingUpload());
  EXPECT_FALSE(fs_->SupportsChangesListening());
  EXPECT_FALSE(fs_->GetUnsupportedSymbolsMap().empty());
  std::string link;
  EXPECT_EQ(fs_->GetPublicLink("a", false, &link), FS::FAILED);
  EXPECT_EQ(fs_->ClosePublicLink("a"), FS::FAILED);
  EXPECT_TRUE(emulator_->server().Requests().empty());
  // The factory's row: its record, and Huawei's metainfo reader and writer.
  EXPECT_EQ(typeid(*factory_), typeid(RemoteFileSystemFactoryHuawei));
  EXPECT_NE(std::dynamic_pointer_cast<RemoteFileSystemHuaweiSharedData>(factory_->GetSharedData()),
            nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<BackupMetainfoRemoteReaderHuawei>(
                factory_->CreateMetainfoReader(http_)),
            nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<BackupMetainfoRemoteWriterHuawei>(
                factory_->CreateMetainfoWriter(http_, "/home/me", "Backups/me")),
            nullptr);
}

TEST_F(HuaweiTest, TreeEqualsTheAccountWhateverTheListingOrder) {
  // 1. Three levels, 250 files in one folder (pages of 100), a recycled file and folder, and an
  // old folder moved under a newer one.
  std::string a = Folder(account().RootId(), "A");
  std::string old = Folder(account().RootId(), "Old");
  File(old, "inside.txt", "old");
  std::string b = Folder(a, "B");
  std::string c = Folder(b, "C");
  File(c, "deep.txt", "deep");
  for (int i = 0; i < 250; ++i) {
    File(a, "f" + std::to_string(i), std::string(i % 7, 'x'));
  }
  std::string gone = File(a, "gone.txt", "gone");
  account().Trash(gone, nullptr);
  std::string newer = Folder(account().RootId(), "Newer");
  ASSERT_EQ(account().Move(old, {newer}, "", nullptr), emulators::AccountError::kNone);
  LoggerWrapper::Capture log;

  // 2. The tree.
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  EXPECT_EQ(root.GetFolder("A")->GetFolder("B")->GetFolder("C")->GetFile("deep.txt")->size, 4u);
  EXPECT_NE(root.GetFolder("Newer")->GetFolder("Old")->GetFile("inside.txt"), nullptr);
  EXPECT_EQ(root.GetFolder("A")->GetFile("gone.txt"), nullptr);
  int files = 0;
  for (auto it = root.GetFolder("A")->FilesBegin(); it != root.GetFolder("A")->FilesEnd(); ++it) {
    ++files;
  }
  EXPECT_EQ(files, 250);
  const Item f6 = *account().FindByPath("A/f6");
  EXPECT_EQ(root.GetFolder("A")->GetFile("f6")->hash, SomeHash(f6.digests.sha256.substr(0, 32)));
  EXPECT_EQ(ids().GetFolderIdByPath("Newer/Old"), old);
  EXPECT_EQ(ids().GetFileIdByPath("A/f6"), f6.id);
  EXPECT_EQ(ids().GetPathById(c), "A/B/C");

  // 3. About, root, folder pages, file pages, start cursor.
  std::vector<std::string> expected = {"GET /drive/v1/about",
                                       "GET /drive/v1/files/root",
                                       "GET /drive/v1/files",
                                       "GET /drive/v1/files",
                                       "GET /drive/v1/files",
                                       "GET /drive/v1/files",
                                       "GET /drive/v1/changes/getStartCursor"};
  EXPECT_EQ(Paths(), expected);
  auto requests = emulator_->server().Requests();
  const std::string folder_query = "mimeType='" + std::string(huawei::kFolderMime) + "'";
  const std::string file_query = "mimeType!='" + std::string(huawei::kFolderMime) + "'";
  // One page of folders, then three of files, each page after the first by its cursor.
  for (std::size_t i = 2; i <= 5; ++i) {
    const std::string query = emulators::QueryParam(requests[i].query, "queryParam");
    EXPECT_EQ(emulators::QueryParam(requests[i].query, "orderBy"), "createdTime") << i;
    EXPECT_NE(query.find(i == 2 ? folder_query : file_query), std::string::npos) << i << query;
    EXPECT_NE(query.find("recycled=false"), std::string::npos) << i << ": " << query;
    EXPECT_EQ(emulators::QueryParam(requests[i].query, "cursor").empty(), i <= 3) << i;
  }
}

TEST_F(HuaweiTest, RemoteRootSkipsRecycledTwinAndNamesAMissingComponent) {
  // 1. Names that the query language or the URL would take apart, each under a top folder with a
  // recycled twin of the same name before it and a live one elsewhere.
  // (Names are local ones: what Windows can't hold, such as '?' or '\\', is mapped first.)
  const std::string names[] = {"Back'ups & #1", "Sauvegardes d'\xc3\xa9t\xc3\xa9",
                               "\xe5\xa4\x87\xe4\xbb\xbd 100%+=;", "it''s"};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::string top = Folder(account().RootId(), "Top " + name);
    account().Trash(Folder(top, name), nullptr);
    const std::string real = Folder(top, name);
    File(real, "in.txt", "x");
    Folder(Folder(account().RootId(), "Other " + name), name);
    root_path_ = "Top " + name + "/" + name;
    factory_.reset(H6BA54F7D00(CloudServiceId::HUAWEI, root_path_));
    fs_ = Make();
    emulator_->server().ClearRequests();
    FolderNode root;
    ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
    EXPECT_NE(root.GetFile("in.txt"), nullptr);
    EXPECT_EQ(ids().GetRootId(), real);
    // 2. On the wire: the name is one quoted literal of the query with its apostrophes escaped,
    // and the whole query one percent-encoded URL value.
    std::string escaped;
    for (char c : name) {
      escaped += c == '\'' ? std::string("\\'") : std::string(1, c);
    }
    bool asked = false;
    for (const auto& request : emulator_->server().Requests()) {
      const std::string query = emulators::QueryParam(request.query, "queryParam");
      if (query.find(" in parentFolder") == std::string::npos ||
          query.find("fileName=") == std::string::npos) {
        continue;
      }
      asked = asked || query.find("fileName='" + escaped + "' and") == 0;
      EXPECT_EQ(request.query.find_first_of("# '\x80\xc3\xe5"), std::string::npos) << request.query;
    }
    EXPECT_TRUE(asked);
  }

  // 3. A component that isn't there gives its line.
  root_path_ = "Nowhere";
  factory_.reset(H6BA54F7D00(CloudServiceId::HUAWEI, root_path_));
  fs_ = Make();
  LoggerWrapper::Capture log;
  FolderNode root;
  EXPECT_EQ(Tree(&root), FS::ITEM_MISSED);
  EXPECT_TRUE(log.Contains("No \"Nowhere\" dir in cloud."));
}

TEST_F(HuaweiTest, FeedFollowsForeignChangesAndItsCursor) {
  std::string docs = Folder(account().RootId(), "docs");
  File(docs, "a.txt", "a");
  Folder(account().RootId(), "dst");
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  struct Step {
    emulators::ForeignChange change;
    FS::Change::Type type;
    std::string path;
    std::string old_path;
  };
  const Step steps[] = {
      {{"create", "docs/new.txt", "", "n"}, FS::Change::FILE_CREATE, "docs/new.txt", ""},
      {{"rename", "docs/new.txt", "renamed.txt", ""},
       FS::Change::FILE_RENAME,
       "docs/renamed.txt",
       "docs/new.txt"},
      {{"move", "docs/a.txt", "dst", ""}, FS::Change::FILE_RENAME, "dst/a.txt", "docs/a.txt"},
      {{"modify", "dst/a.txt", "", "longer"}, FS::Change::FILE_MODIFY, "dst/a.txt", ""},
      {{"mkdir", "dst/sub", "", ""}, FS::Change::FOLDER_CREATE, "dst/sub", ""},
      {{"trash", "docs", "", ""}, FS::Change::FOLDER_DELETE, "docs", ""},
  };
  for (const Step& step : steps) {
    std::string error;
    ASSERT_TRUE(emulators::ApplyForeignChange(account(), step.change, &error)) << error;
    std::queue<FS::Change> changes;
    ASSERT_EQ(fs_->GetChanges(&changes), FS::SUCCEEDED) << step.path;
    ASSERT_EQ(changes.size(), 1u) << step.path;
    EXPECT_EQ(changes.front().type, step.type) << step.path;
    EXPECT_EQ(changes.front().path, step.path);
    EXPECT_EQ(changes.front().old_path, step.old_path);
  }
  EXPECT_EQ(ids().GetFolderIdByPath("docs"), "");
  EXPECT_NE(ids().GetFileIdByPath("dst/a.txt"), "");
  // The cursor given is the one the last page named.
  auto requests = emulator_->server().Requests();
  EXPECT_EQ(emulators::QueryParam(requests.back().query, "cursor"),
            "c" + std::to_string(account().Sequence() - 1));
}

TEST_F(HuaweiTest, FeedGoesOnFromNextCursorThenFromNewStartCursor) {
  // 1. More changes than one page holds.
  const std::string docs = Folder(account().RootId(), "docs");
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  constexpr std::size_t kChanges = emulators::HuaweiDialect::kPageSize + 50;
  for (std::size_t i = 0; i < kChanges; ++i) {
    File(docs, "n" + std::to_string(i), "x");
  }
  // 2. A full page, the rest from where it ended, then nothing new: each change once.
  std::set<std::string> seen;
  std::vector<std::size_t> pages;
  for (int call = 0; call < 3; ++call) {
    std::queue<FS::Change> changes;
    ASSERT_EQ(fs_->GetChanges(&changes), FS::SUCCEEDED);
    pages.push_back(changes.size());
    for (; !changes.empty(); changes.pop()) {
      EXPECT_EQ(changes.front().type, FS::Change::FILE_CREATE);
      EXPECT_TRUE(seen.insert(changes.front().path).second) << changes.front().path;
    }
  }
  EXPECT_EQ(pages, (std::vector<std::size_t>{emulators::HuaweiDialect::kPageSize, 50, 0}));
  EXPECT_EQ(seen.size(), kChanges);
  EXPECT_FALSE(ids().GetFileIdByPath("docs/n149").empty());
}

TEST_F(HuaweiTest, FeedRefusesAPageWithoutCursorAndExpiredCursor) {
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  emulator_->faults().Add(
      emulators::FaultRule::On("", "/drive/v1/changes").DropField("newStartCursor"));
  LoggerWrapper::Capture log;
  std::queue<FS::Change> changes;
  EXPECT_EQ(fs_->GetChanges(&changes), FS::FAILED);
  EXPECT_TRUE(log.Contains("Change page without"));
  File(account().RootId(), "x", "x");
  account().ForgetJournal();
  EXPECT_EQ(fs_->GetChanges(&changes), FS::CONFLICT);
}

TEST_F(HuaweiTest, ItemOperations) {
  std::string docs = Folder(account().RootId(), "docs");
  std::string content = "0123456789abcdef";
  File(docs, "a.txt", content);
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  emulator_->server().ClearRequests();
  // 1. A folder: a typed body, the id kept; a second time no request.
  ASSERT_EQ(fs_->CreateFolderImpl(FS::OverwriteControl(), "docs/new"), FS::SUCCEEDED);
  auto created = emulator_->server().Requests().back();
  utils::json::json_tree body;
  ASSERT_TRUE(utils::json::Parse(created.body, &body));
  EXPECT_EQ(body.get("mimeType", ""), huawei::kFolderMime);
  EXPECT_EQ(utils::json::Child(body, "parentFolder")->front().second.data(), docs);
  EXPECT_EQ(ids().GetFolderIdByPath("docs/new"), account().FindByPath("docs/new")->id);
  LoggerWrapper::Capture log;
  std::size_t before = emulator_->server().Requests().size();
  EXPECT_EQ(fs_->CreateFolderImpl(FS::OverwriteControl(), "docs/new"), FS::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Folder already exists."));
  // 2. Refusals and unknown paths: no request.
  FileNode* file = root.GetFolder("docs")->GetFile("a.txt");
  EXPECT_EQ(fs_->MoveFileImpl(*file, {}, "docs/a.txt", {}, "docs/" + std::string(300, 'n')),
            FS::NAME_TOO_LONG);
  EXPECT_EQ(fs_->OpenForRead("docs/none.txt", 0, 1, 1, SomeHash()), FS::ITEM_MISSED);
  EXPECT_EQ(fs_->DeleteFileImpl(FS::OverwriteControl(), "nowhere/x", 0, 0), FS::ITEM_MISSED);
  EXPECT_EQ(fs_->CreateFolderImpl(FS::OverwriteControl(), "../x"), FS::FATAL);
  EXPECT_EQ(emulator_->server().Requests().size(), before);
  // 3. A ranged read, byte for byte.
  ASSERT_EQ(fs_->OpenForRead("docs/a.txt", 3, 9, content.size(), SomeHash()), FS::SUCCEEDED);
  std::string read(32, '\0');
  std::uint32_t done = 0, total = 0;
  while (fs_->ReadFile(reinterpret_cast<std::uint8_t*>(&read[total]), 32 - total, &done) ==
             FS::SUCCEEDED &&
         done > 0) {
    total += done;
  }
  EXPECT_EQ(read.substr(0, total), content.substr(3, 6));
  EXPECT_EQ(emulator_->server().Requests().back().Header("Range"), "bytes=3-8");
  fs_->CloseFile(nullptr);
  // 4. Rename, move, recycle.
  ASSERT_EQ(fs_->RenameFileImpl(*file, {}, "docs/a.txt", {}, "docs/b.txt", nullptr), FS::SUCCEEDED);
  ASSERT_EQ(fs_->MoveFileImpl(*file, {}, "docs/b.txt", {}, "docs/new/b.txt"), FS::SUCCEEDED);
  EXPECT_TRUE(account().FindByPath("docs/new/b.txt"));
  EXPECT_EQ(ids().GetPathById(account().FindByPath("docs/new/b.txt")->id), "docs/new/b.txt");
  ASSERT_EQ(fs_->DeleteFolderImpl(root, FS::Revision::RevisionNone(), "docs/new"), FS::SUCCEEDED);
  EXPECT_FALSE(account().FindByPath("docs/new"));
  EXPECT_EQ(emulator_->server().Requests().back().body, "{\"recycled\":true}");
  EXPECT_EQ(ids().GetFolderIdByPath("docs/new"), "");
}

TEST_F(HuaweiTest, UploadInSlicesLandsInItsFolder) {
  std::string docs = Folder(account().RootId(), "docs");
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  dialect().SetSliceSize(16 * 1024);
  std::string data(70000, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<char>(i * 31 + 7);
  }
  emulator_->server().ClearRequests();
  FS::FileProperties props;
  ASSERT_EQ(Upload(fs_.get(), "docs/big.bin", data, &props), FS::SUCCEEDED);
  // 1. The session: POST, size announced, no renaming, the parent named.
  auto requests = emulator_->server().Requests();
  ASSERT_EQ(requests.size(), 6u);
  EXPECT_EQ(requests[0].verb, "POST");
  EXPECT_EQ(requests[0].Header("X-Upload-Content-Length"), "70000");
  EXPECT_EQ(emulators::QueryParam(requests[0].query, "autoRename"), "false");
  EXPECT_NE(requests[0].body.find(docs), std::string::npos);
  // 2. Slices of sliceSize, the last shorter.
  for (int i = 1; i <= 4; ++i) {
    EXPECT_EQ(requests[i].body_size, 16384u);
  }
  EXPECT_EQ(requests[5].Header("Content-Range"), "bytes 65536-69999/70000");
  const Item made = *account().FindByPath("docs/big.bin");
  EXPECT_EQ(*made.content, data);
  EXPECT_EQ(props.hash, SomeHash(made.digests.sha256.substr(0, 32)));
  EXPECT_EQ(ids().GetFileIdByPath("docs/big.bin"), made.id);
  // 3. A new version goes through a PATCH session, once the file's version is read and found
  // to be the one the control names.
  const FS::OverwriteControl control(props.hash);
  ASSERT_EQ(Upload(fs_.get(), "docs/big.bin", "short", &props, &control), FS::SUCCEEDED);
  EXPECT_EQ(Paths()[6], "GET /drive/v1/files/" + made.id);
  EXPECT_EQ(Paths()[7], "PATCH /upload/drive/v1/files/" + made.id);
  EXPECT_EQ(*account().FindByPath("docs/big.bin")->content, "short");
}

TEST_F(HuaweiTest, OverwriteAndDeleteHonourTheirControl) {
  enum Control { kRight, kStale, kEmpty };
  struct Row {
    std::string name;
    std::string foreign;  // what someone else does to the file after the tree: "modify", "trash"
    bool rewrite;
    Control control;
    FS::Result result;
    const char* content;  // the file's bytes afterwards; null: recycled
    std::string line;
  };
  const std::vector<Row> rows = {
      {"right-rewrite", "", true, kRight, FS::SUCCEEDED, "new", "Finished."},
      {"stale-rewrite", "", true, kStale, FS::CONFLICT, "old", "changed in the cloud"},
      {"empty-rewrite", "", true, kEmpty, FS::CONFLICT, "old", "changed in the cloud"},
      {"modified-rewrite", "modify", true, kRight, FS::CONFLICT, "theirs", "changed in the cloud"},
      {"recycled-rewrite", "trash", true, kRight, FS::CONFLICT, nullptr, "no longer in the cloud"},
      {"right-delete", "", false, kRight, FS::SUCCEEDED, nullptr, "deleted succesfully."},
      {"stale-delete", "", false, kStale, FS::CONFLICT, "old", "not deleted."},
      {"modified-delete", "modify", false, kRight, FS::CONFLICT, "theirs", "changed in the cloud"},
      {"empty-delete", "", false, kEmpty, FS::SUCCEEDED, nullptr,
       "Hash is not set in overwrite control: docs/empty-delete"},
  };
  // 1. Every file in the tree, then what others did since.
  std::string docs = Folder(account().RootId(), "docs");
  for (const Row& row : rows) {
    File(docs, row.name, "old");
  }
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  for (const Row& row : rows) {
    std::string error;
    if (!row.foreign.empty()) {
      ASSERT_TRUE(emulators::ApplyForeignChange(
          account(), {row.foreign, "docs/" + row.name, "", "theirs"}, &error))
          << error;
    }
  }
  // 2. Each operation with its control, judged by the account, the wire and the log.
  for (const Row& row : rows) {
    const std::string path = "docs/" + row.name;
    const FileNode* node = root.GetFolder("docs")->GetFile(row.name);
    const SomeHash hashes[] = {node->hash, SomeHash(std::string("stale")), SomeHash()};
    const FS::OverwriteControl control(hashes[row.control]);
    const std::string id = ids().GetFileIdByPath(path);
    emulator_->server().ClearRequests();
    LoggerWrapper::Capture log;
    FS::FileProperties props;
    const FS::Result result = row.rewrite ? Upload(fs_.get(), path, "new", &props, &control)
                                          : fs_->DeleteFileImpl(control, path, 3, 0);
    EXPECT_EQ(result, row.result) << row.name;
    EXPECT_TRUE(log.Contains(row.line)) << row.name;
    const std::optional<Item> now = account().FindByPath(path);
    ASSERT_EQ(now.has_value(), row.content != nullptr) << row.name;
    if (now) {
      EXPECT_EQ(*now->content, row.content) << row.name;
    }
    // The version is read before anything may change, and a conflict changes nothing.
    const std::vector<std::string> wire = Paths();
    ASSERT_FALSE(wire.empty()) << row.name;
    const bool unconditional = !row.rewrite && row.control == kEmpty;
    EXPECT_EQ(wire.front(),
              (unconditional ? "PATCH" : "GET") + std::string(" /drive/v1/files/") + id)
        << row.name;
    if (row.result == FS::CONFLICT) {
      EXPECT_EQ(wire.size(), 1u) << row.name;
    }
  }
}

TEST_F(HuaweiTest, ALargeUploadHoldsAtMostOneSlice) {
  // 1. Eight slices; the emulator keeps digests only, so the heap that grows is the adapter's.
  constexpr std::size_t kSlice = 2 << 20;
  const std::string data = test::RandomBytes(8 * kSlice, 9);
  Folder(account().RootId(), "docs");
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  dialect().SetSliceSize(kSlice);
  account().SetKeepContentLimit(kSlice / 4);
  std::uint64_t offset = 0;
  ASSERT_EQ(fs_->OpenForCreate({}, "docs/large", SomeHash(std::string("h")), data.size(), 1,
                               &offset, false),
            FS::SUCCEEDED);
  // 2. The heap between blocks, each slice sent on the way.
  emulator_->server().ClearRequests();
  const std::size_t before = test::HeapInUse();
  std::size_t peak = before;
  for (std::size_t at = 0; at < data.size(); at += 64 * 1024) {
    ASSERT_EQ(fs_->WriteFile(reinterpret_cast<const std::uint8_t*>(data.data()) + at, 64 * 1024),
              FS::SUCCEEDED);
    emulator_->server().ClearRequests();  // the server's log of bodies is not the adapter's
    peak = std::max(peak, test::HeapInUse());
  }
  FS::FileProperties props;
  ASSERT_EQ(fs_->CloseFile(&props), FS::SUCCEEDED);
  // One slice and the transport's own buffers; a second slice would pass the bound.
  EXPECT_LT(peak - before, 2 * kSlice);
  EXPECT_EQ(account().FindByPath("docs/large")->digests.sha256,
            emulators::ContentHasher::Of(data).sha256);
}

TEST_F(HuaweiTest, SliceSizeIsTheServersElseTheDefault) {
  constexpr std::uint64_t kDefault = HuaweiUpload::kDefaultSliceSize;
  struct Row {
    const char* name;
    std::uint64_t named;  // by the session's answer; 0: left out
    std::uint64_t used;
  } rows[] = {{"named", 1 << 20, 1 << 20},
              {"left out", 0, kDefault},
              {"unusable", HuaweiUpload::kMaxSliceSize + 1, kDefault}};
  Folder(account().RootId(), "docs");
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  const std::string data = test::RandomBytes(kDefault + 5000, 12);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    dialect().SetSliceSize(row.named);
    emulator_->faults().Clear();
    if (row.named == 0) {
      emulator_->faults().Add(emulators::FaultRule::On("POST").DropField("sliceSize"));
    }
    emulator_->server().ClearRequests();
    FS::FileProperties props;
    ASSERT_EQ(Upload(fs_.get(), "docs/" + std::string(row.name), data, &props), FS::SUCCEEDED);
    std::vector<std::uint64_t> slices;
    for (const auto& request : emulator_->server().Requests()) {
      if (request.verb == "PUT") {
        slices.push_back(request.body_size);
      }
    }
    ASSERT_EQ(slices.size(), (data.size() + row.used - 1) / row.used);
    EXPECT_EQ(slices.front(), row.used);
    EXPECT_EQ(slices.back(), data.size() - (slices.size() - 1) * row.used);
    EXPECT_EQ(account().FindByPath("docs/" + std::string(row.name))->digests.sha256,
              emulators::ContentHasher::Of(data).sha256);
  }
}

TEST_F(HuaweiTest, UploadFaults) {
  Folder(account().RootId(), "docs");
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  dialect().SetSliceSize(16 * 1024);
  const std::string data(40000, 'q');
  FS::FileProperties props;
  // 1. A session gone before its first slice: a new one.
  emulator_->faults().Add(emulators::FaultRule::On("PUT").ExpireSessions());
  LoggerWrapper::Capture log;
  ASSERT_EQ(Upload(fs_.get(), "docs/a", data, &props), FS::SUCCEEDED);
  EXPECT_TRUE(log.Contains("will start again."));
  // 2. A slice persisted in part is sent on from where the server stands.
  emulator_->faults().Add(emulators::FaultRule::On("PUT").PersistLimit(1000));
  ASSERT_EQ(Upload(fs_.get(), "docs/b", data, &props), FS::SUCCEEDED);
  EXPECT_EQ(account().FindByPath("docs/b")->size, data.size());
  // 3. An answer whose size is dropped fails the comparison.
  emulator_->faults().Add(emulators::FaultRule::On("PUT").Nth(3).DropField("size"));
  EXPECT_EQ(Upload(fs_.get(), "docs/c", data, &props), FS::FAILED);
  EXPECT_TRUE(log.Contains("Wrong uploaded size for \"docs/c\""));
  // 4. A reset mid-slice keeps the session; another adapter of the factory resumes it.
  emulator_->faults().Add(emulators::FaultRule::On("PUT").Nth(2).Reset());
  EXPECT_EQ(Upload(fs_.get(), "docs/d", data, &props), FS::FAILED);
  auto second = Make();
  emulator_->server().ClearRequests();
  log.Clear();
  ASSERT_EQ(Upload(second.get(), "docs/d", data, &props), FS::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Resuming upload session for \"docs/d\" (h40000) from 16384."));
  EXPECT_EQ(emulator_->server().Requests()[0].Header("Content-Range"), "bytes */40000");
  EXPECT_EQ(*account().FindByPath("docs/d")->content, data);
  // 5. A changed size starts anew, with the store's line.
  EXPECT_EQ(Upload(fs_.get(), "docs/e", data, &props), FS::SUCCEEDED);
  emulator_->faults().Add(emulators::FaultRule::On("PUT").Nth(2).Reset());
  EXPECT_EQ(Upload(fs_.get(), "docs/f", data, &props), FS::FAILED);
  EXPECT_EQ(Upload(fs_.get(), "docs/f", data + "+", &props), FS::SUCCEEDED);
  EXPECT_TRUE(log.Contains("\"docs/f\" changed between uploads"));
}

TEST_F(HuaweiTest, RefusalsOfUploadsWithoutRequests) {
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  emulator_->server().ClearRequests();
  std::uint64_t offset = 0;
  SomeHash hash(std::string("h"));
  EXPECT_EQ(fs_->OpenForCreate({}, "a/" + std::string(10000, 'n'), hash, 1, 1, &offset, false),
            FS::NAME_TOO_LONG);
  EXPECT_EQ(fs_->OpenForCreate({}, "big", hash, 1ull << 62, 1, &offset, false), FS::TOO_LARGE);
  EXPECT_EQ(fs_->OpenForCreate({}, "no/such/x", hash, 1, 1, &offset, false), FS::ITEM_MISSED);
  EXPECT_EQ(fs_->OpenForRewrite({}, "none", hash, 1, 1, &offset), FS::ITEM_MISSED);
  EXPECT_EQ(fs_->CloseFile(nullptr), FS::FAILED);
  EXPECT_TRUE(emulator_->server().Requests().empty());
}

TEST(HuaweiCodeMap, EveryRow) {
  struct Row {
    int code;
    const char* error;
    FS::Result result;
  } rows[] = {
      {400, "21004004", FS::CONFLICT},
      {400, "21004009", FS::CONFLICT},
      {400, "21004906", FS::CONFLICT},
      {400, "21004008", FS::NAME_TOO_LONG},
      {400, "21004006", FS::BADNAM},
      {400, "21004007", FS::BADNAM},
      {400, "21004002", FS::FAILED},
      {400, "", FS::FAILED},
      {401, "21004011", FS::AUTH_INVALID},
      {401, "", FS::AUTH_INVALID},
      {402, "", FS::ACCESS_DENIED},
      {403, "21004039", FS::NO_SPACE},
      {403, "21004037", FS::FAILED},
      {403, "21004035", FS::FORBIDDEN},
      {404, "", FS::ITEM_MISSED},
      {409, "", FS::CONFLICT},
      {410, "", FS::CONFLICT},
      {412, "", FS::CONFLICT},
      {413, "", FS::TOO_LARGE},
      {429, "21004290", FS::FAILED},
      {451, "", FS::BLOCKED},
      {500, "", FS::FAILED},
      {502, "", FS::FAILED},
      {503, "", FS::FAILED},
      {504, "", FS::FAILED},
      {418, "", FS::FAILED},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(huawei::ResultFromHttp(row.code, row.error), row.result) << row.code << row.error;
  }
}

TEST_F(HuaweiTest, ServiceErrorsThroughTheMap) {
  Folder(account().RootId(), "docs");
  FolderNode root;
  ASSERT_EQ(Tree(&root), FS::SUCCEEDED);
  struct Case {
    int status;
    std::string error;
    FS::Result result;
  } cases[] = {{429, "", FS::FAILED}, {401, "", FS::AUTH_INVALID}, {403, "4039", FS::NO_SPACE}};
  for (const Case& each : cases) {
    emulator_->faults().Add(
        emulators::FaultRule::On("POST").Status(each.status).Error(each.error).RetryAfter(3));
    LoggerWrapper::Capture log;
    EXPECT_EQ(fs_->CreateFolderImpl({}, "docs/x"), each.result) << each.status;
    EXPECT_TRUE(log.Contains("Last response code: " + std::to_string(each.status)));
  }
}

TEST_F(HuaweiTest, BadAnswersGiveTheirLines) {
  FolderNode root;
  struct Case {
    emulators::FaultRule rule;
    const char* line;
  } cases[] = {
      {emulators::FaultRule::On("", "/drive/v1/files").Nth(2).CutAfter(10),
       "Failed read listing response."},
      {emulators::FaultRule::On("", "/drive/v1/changes").DropField("startCursor"),
       "Failed get cursor to get changes."},
  };
  for (const Case& c : cases) {
    emulator_->faults().Clear();
    emulator_->faults().Add(c.rule);
    LoggerWrapper::Capture log;
    EXPECT_NE(Tree(&root), FS::SUCCEEDED) << c.line;
    EXPECT_TRUE(log.Contains(c.line)) << c.line;
  }
}

TEST(HuaweiItems, ParseRefusesBadItems) {
  struct Case {
    const char* json;
    bool ok;
  } cases[] = {
      {R"({"id":"1","fileName":"a","parentFolder":["p"],"editedTime":"2024-05-01T10:20:30.123Z"})",
       true},
      {R"({"id":"1","fileName":"a","parentFolder":["p"],"editedTime":"2024-05-01T10:20:30Z"})",
       true},
      {R"({"id":"1","fileName":"a","editedTime":"2024-05-01T10:20:30.123Z"})", false},
      {R"({"id":"1","fileName":"..","parentFolder":["p"],"editedTime":"2024-05-01T10:20:30Z"})",
       false},
      {R"({"id":"1","fileName":"a/b","parentFolder":["p"],"editedTime":"2024-05-01T10:20:30Z"})",
       false},
      {R"({"id":"1","fileName":"a","parentFolder":["p"],"recycled":"yes","editedTime":"2024-05-01T10:20:30Z"})",
       false},
      {R"({"id":"1","fileName":"a","parentFolder":["p"],"size":"-5","editedTime":"2024-05-01T10:20:30Z"})",
       false},
      {R"({"id":"1","fileName":"a","parentFolder":["p"],"editedTime":"yesterday"})", false},
  };
  for (const Case& each : cases) {
    utils::json::json_tree json;
    ASSERT_TRUE(utils::json::Parse(each.json, &json));
    huawei::Item item;
    std::string error;
    EXPECT_EQ(huawei::ParseItem(json, &item, &error), each.ok) << each.json;
    EXPECT_EQ(error.empty(), each.ok);
  }
  utils::json::json_tree json;
  utils::json::Parse(cases[1].json, &json);
  huawei::Item item;
  std::string error;
  huawei::ParseItem(json, &item, &error);
  EXPECT_EQ(item.time, 1714558830u);
  EXPECT_EQ(huawei::QuoteLiteral("it's \\"), "'it\\'s \\\\'");
}

TEST_F(HuaweiTest, MetainfoRecordPerBackup) {
  std::string backups = Folder(account().RootId(), RemoteFileSystem::kRemoteBackupRootFolder);
  Folder(backups, "laptop");
  const std::string remote = RemoteFileSystem::kRemoteBackupRootFolder + "/laptop";
  auto writer = factory_->CreateMetainfoWriter(http_, "/home/me", remote);
  ASSERT_EQ(writer->Create(), FS::SUCCEEDED);
  LoggerWrapper::Capture log;
  ASSERT_EQ(writer->Create(), FS::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Metainfo already exists"));
  ASSERT_EQ(writer->Update(123, 1700000000), FS::SUCCEEDED);
  auto records = factory_->CreateMetainfoReader(http_)->ReadAll();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].local_path, "/home/me");
  EXPECT_EQ(records[0].cloud_path, remote);
  EXPECT_EQ(records[0].last_update_time, 1700000000);
  writer->Stop();
  EXPECT_EQ(writer->Update(1, 1), FS::STOPPED);
}

TEST_F(HuaweiTest, MetainfoInertAndStopRules) {
  // 1. Objects whose client could not open answer at once and ask nothing.
  class NoClientFactory : public URLProcessorFactory {
   public:
    std::shared_ptr<URLProcessor> Create() override { return nullptr; }
  };
  const std::string remote = RemoteFileSystem::kRemoteBackupRootFolder + "/laptop";
  for (std::shared_ptr<URLProcessorFactory> inert :
       {std::shared_ptr<URLProcessorFactory>(),
        std::shared_ptr<URLProcessorFactory>(std::make_shared<NoClientFactory>())}) {
    auto writer = factory_->CreateMetainfoWriter(inert, "/home/me", remote);
    EXPECT_EQ(writer->Create(), FS::FAILED);
    EXPECT_EQ(writer->Update(1, 1), FS::FAILED);
    EXPECT_TRUE(factory_->CreateMetainfoReader(inert)->ReadAll().empty());
  }
  EXPECT_TRUE(emulator_->server().Requests().empty());

  // 2. Backups past one page of the listing, whose second page is slow to come.
  const std::string backups = Folder(account().RootId(), RemoteFileSystem::kRemoteBackupRootFolder);
  constexpr std::size_t kBackups = emulators::HuaweiDialect::kPageSize + 20;
  for (std::size_t i = 0; i < kBackups; ++i) {
    const std::string id = Folder(backups, "pc" + std::to_string(i));
    account().SetProperty(id, "cloudPath", remote + std::to_string(i), nullptr);
    account().SetProperty(id, "localPath", "/home/" + std::to_string(i), nullptr);
  }
  // The fourth: the drive's root, the backups' folder, the first page, then this.
  emulator_->faults().Add(emulators::FaultRule::On("", "/drive/v1/files").Nth(4).DelayMs(20000));

  // 3. Stop once that page is asked for: the first page's records, within a second.
  auto reader = factory_->CreateMetainfoReader(http_);
  LoggerWrapper::Capture log;
  const auto read = test::StopOnceReady(
      [&reader] { return reader->ReadAll(); },
      [this] { return emulator_->server().Requests().size() >= 4; }, [&reader] { reader->Stop(); });
  EXPECT_LT(read.took, std::chrono::seconds(2));
  EXPECT_EQ(read.value.size(), emulators::HuaweiDialect::kPageSize);
  EXPECT_TRUE(log.Contains("MetainfoReader is stopped."));
  EXPECT_TRUE(reader->ReadAll().empty());

  // 4. Started again, it reads them all; a stopped writer changes nothing.
  emulator_->faults().Clear();
  reader->Start();
  EXPECT_EQ(reader->ReadAll().size(), kBackups);
  auto writer = factory_->CreateMetainfoWriter(http_, "/home/me", remote + "0");
  writer->Stop();
  emulator_->server().ClearRequests();
  EXPECT_EQ(writer->Create(), FS::STOPPED);
  EXPECT_EQ(writer->Update(5, 5), FS::STOPPED);
  EXPECT_TRUE(emulator_->server().Requests().empty());
  EXPECT_TRUE(log.Contains("MetainfoWriter is stopped."));
}

}  // namespace

// The Yandex adapter against the Yandex emulator: a seeded disk of ten thousand entries through
// the JSON snapshot (the whole disk) and the binary snapshot (a mounted folder) into the model's
// tree, and the delta feed following changes made on the disk meanwhile.
#include <gtest/gtest.h>

#include <algorithm>

#include "core/Clock.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/Emulator.h"
#include "emulators/YandexDialect.h"
#include "emulators/YandexSnapshot.h"
#include "services/RemoteFileSystemYandex.h"
#include "support/StartEmulator.h"
#include "support/YandexTesting.h"

namespace {

using emulators::AccountError;
using emulators::Item;
using Result = FileSystem::Result;

constexpr int kEntries = 10000;
constexpr int kDepth = 6;
constexpr std::int64_t kBaseMs = 1700000000000;

std::string NameOf(int i, bool folder) {
  static const char* kStems[] = {"Папка", "with space", "emoji 😀", "file", "Отчёт за год"};
  return std::string(kStems[i % 5]) + " " + std::to_string(i) + (folder ? "" : ".txt");
}

class YandexEmulatorTest : public testing::Test {
 protected:
  void SetUp() override { Start(emulators::YandexOptions()); }
  void Start(emulators::YandexOptions options) {
    options.snapshot_page = 700;
    options.deltas_page = 3;
    emulator_ = test::StartEmulator(emulators::MakeYandexDialect(options));
    ASSERT_TRUE(emulator_);
    Seed();
  }
  void TearDown() override { Endpoints::ResetOverrides(); }

  // Folders on six levels, files among them; every seventh file empty.
  void Seed() {
    emulators::CloudAccount& account = emulator_->account();
    std::vector<std::pair<std::string, int>> folders = {{account.RootId(), 0}};
    for (int i = 0; i < kEntries; ++i) {
      const auto& [parent, depth] = folders[(i * 7919) % folders.size()];
      Item made;
      if (i % 10 == 0 && depth < kDepth) {
        ASSERT_EQ(account.CreateFolder(parent, NameOf(i, true), &made), AccountError::kNone);
        folders.emplace_back(made.id, depth + 1);
      } else {
        const std::string content = i % 7 == 0 ? std::string() : "content " + std::to_string(i);
        ASSERT_EQ(account.CreateFile(parent, NameOf(i, false), content, kBaseMs + i * 1000, &made),
                  AccountError::kNone);
      }
    }
  }
  // The model below `path`, as test::TreeLines writes a tree.
  std::vector<std::string> Model(const std::string& path, bool withTime) {
    const emulators::CloudAccount& account = emulator_->account();
    const Item folder = path.empty() ? *account.Find(account.RootId()) : *account.FindByPath(path);
    std::vector<std::string> lines;
    emulators::WalkTree(account, folder, "", [&](const Item& item, const std::string& itemPath) {
      const std::string relative = itemPath.substr(itemPath.front() == '/' ? 1 : 0);
      if (item.IsFolder()) {
        lines.push_back("d " + relative);
        return;
      }
      std::string line = "f " + relative + " " + std::to_string(item.size) + " " +
                         item.digests.md5 + item.digests.sha256;
      if (withTime) {
        line += " " + std::to_string(item.modified_ms / 1000);
      }
      lines.push_back(line);
    });
    std::sort(lines.begin(), lines.end());
    return lines;
  }
  static std::vector<std::string> Sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
  }
  Result Tree(RemoteFileSystemYandex* fs, FolderNode* root) {
    std::uint64_t free = 0;
    tsl::htrie_set<char> items;
    return fs->GetFullTree(root, &free, &total_, &items);
  }

  std::unique_ptr<emulators::Emulator> emulator_;
  std::unique_ptr<RemoteFileSystemFactory> factory_;
  std::uint64_t total_ = 0;
};

TEST_F(YandexEmulatorTest, WholeDiskLoadsThroughTheJsonSnapshot) {
  auto fs = test::OpenYandex("", &factory_);
  ASSERT_NE(fs, nullptr);
  RadarsLogger::Capture metrics;
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);
  const std::vector<std::string> model = Model("", true);
  ASSERT_GT(model.size(), static_cast<std::size_t>(kEntries - 1));
  EXPECT_EQ(Sorted(test::TreeLines(root, true)), model);
  const auto files = std::count_if(model.begin(), model.end(),
                                   [](const std::string& line) { return line[0] == 'f'; });
  for (const auto& metric : metrics.Metrics()) {
    if (metric.name == "yandex_snapshot_count_files") {
      EXPECT_EQ(metric.value, std::to_string(files));
    }
    if (metric.name == "yandex_snapshot_count_folders") {
      EXPECT_EQ(metric.value, std::to_string(model.size() - files));
    }
  }
  EXPECT_EQ(metrics.Count("yandex_snapshot_count_files"), 1u);
  EXPECT_DOUBLE_EQ(fs->GetFirstSnapshotProgress(), 1.0);
}

TEST_F(YandexEmulatorTest, MountedFolderLoadsThroughTheBinarySnapshot) {
  const std::string mount = NameOf(0, true);
  auto fs = test::OpenYandex(mount, &factory_);
  ASSERT_NE(fs, nullptr);
  RadarsLogger::Capture metrics;
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);
  const std::vector<std::string> model = Model(mount, false);
  ASSERT_GT(model.size(), 100u);
  EXPECT_EQ(Sorted(test::TreeLines(root)), model);
  EXPECT_EQ(metrics.Count("yandex_disk_fallback_snapshot"), 0u);
  bool binary = false;
  for (const auto& request : emulator_->server().Requests()) {
    binary = binary || (request.query == "index&v=3" && request.verb == "GET");
  }
  EXPECT_TRUE(binary);
  EXPECT_DOUBLE_EQ(fs->GetFirstSnapshotProgress(), 1.0);

  // The feed of the mount follows from the disk's revision, and only what lies inside it.
  emulators::CloudAccount& account = emulator_->account();
  const std::string mountId = account.FindByPath(mount)->id;
  ASSERT_EQ(account.CreateFile(mountId, "inside.txt", "in", kBaseMs, nullptr), AccountError::kNone);
  ASSERT_EQ(account.CreateFile(account.RootId(), "outside.txt", "out", kBaseMs, nullptr),
            AccountError::kNone);
  std::queue<FileSystem::Change> changes;
  ASSERT_EQ(fs->GetChanges(&changes), Result::SUCCEEDED);
  std::vector<std::string> paths;
  for (; !changes.empty(); changes.pop()) {
    paths.push_back(changes.front().path);
  }
  EXPECT_EQ(paths, (std::vector<std::string>{"inside.txt", "", ""}));
}

TEST_F(YandexEmulatorTest, ABrokenBinarySnapshotFallsBackOnTheWalk) {
  emulators::YandexOptions options;
  options.edit_snapshot = [](std::string* body) { (*body)[0] = '\x07'; };
  Start(options);
  const std::string mount = NameOf(0, true);
  auto fs = test::OpenYandex(mount, &factory_);
  ASSERT_NE(fs, nullptr);
  RadarsLogger::Capture metrics;
  LoggerWrapper::Capture log;
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Unknown entry type: 7 at 0"));
  EXPECT_EQ(metrics.Count("yandex_disk_fallback_snapshot"), 1u);
  EXPECT_EQ(Sorted(test::TreeLines(root)), Model(mount, false));
}

TEST_F(YandexEmulatorTest, AMountedFolderThatIsNotThereIsAConflictAtOnce) {
  auto fs = test::OpenYandex("Nowhere", &factory_);
  ASSERT_NE(fs, nullptr);
  RadarsLogger::Capture metrics;
  FolderNode root;
  EXPECT_EQ(Tree(fs.get(), &root), Result::CONFLICT);
  std::size_t snapshots = 0;
  for (const auto& request : emulator_->server().Requests()) {
    snapshots += request.query == "index&v=3";
  }
  EXPECT_EQ(snapshots, 1u);
  EXPECT_EQ(metrics.Count("yandex_disk_fallback_snapshot"), 0u);
}

TEST_F(YandexEmulatorTest, DeltasBringTheDisksChanges) {
  // 1. A tree of the whole disk, then changes made by someone else.
  emulators::CloudAccount& account = emulator_->account();
  Item docs;
  Item keep;
  Item gone;
  Item sub;
  Item old;
  ASSERT_EQ(account.CreateFolder(account.RootId(), "Docs", &docs), AccountError::kNone);
  ASSERT_EQ(account.CreateFile(docs.id, "keep.txt", "1", kBaseMs, &keep), AccountError::kNone);
  ASSERT_EQ(account.CreateFile(docs.id, "gone.txt", "2", kBaseMs, &gone), AccountError::kNone);
  ASSERT_EQ(account.CreateFolder(docs.id, "sub", &sub), AccountError::kNone);
  ASSERT_EQ(account.CreateFile(sub.id, "in sub.txt", "3", kBaseMs, nullptr), AccountError::kNone);
  ASSERT_EQ(account.CreateFolder(account.RootId(), "old", &old), AccountError::kNone);
  auto fs = test::OpenYandex("", &factory_);
  ASSERT_NE(fs, nullptr);
  FolderNode root;
  ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);

  Item made;
  ASSERT_EQ(account.CreateFolder(account.RootId(), "Новая папка", &made), AccountError::kNone);
  ASSERT_EQ(account.CreateFile(made.id, "a b 😀.txt", "fresh", kBaseMs, nullptr),
            AccountError::kNone);
  ASSERT_EQ(account.ReplaceContent(keep.id, "changed!", kBaseMs + 5000, nullptr),
            AccountError::kNone);
  ASSERT_EQ(account.Delete(gone.id), AccountError::kNone);
  ASSERT_EQ(account.Move(sub.id, {made.id}, "moved", nullptr), AccountError::kNone);
  ASSERT_EQ(account.Delete(old.id), AccountError::kNone);

  // 2. The feed brings them, and the tree follows.
  std::queue<FileSystem::Change> changes;
  ASSERT_EQ(fs->GetChanges(&changes), Result::SUCCEEDED);
  ASSERT_FALSE(changes.empty());
  std::uint64_t free = 0;
  for (; !changes.empty(); changes.pop()) {
    EXPECT_TRUE(fs->ApplyRemoteChange(changes.front(), &root, &free, &total_))
        << changes.front().ToString();
  }
  EXPECT_EQ(Sorted(test::TreeLines(root)), Model("", false));

  // 3. Nothing more since.
  ASSERT_EQ(fs->GetChanges(&changes), Result::SUCCEEDED);
  EXPECT_TRUE(changes.empty());
}

TEST_F(YandexEmulatorTest, AFileStillBeingHashedIsAskedForUntilItsHashComes) {
  struct Case {
    int unhashed;
    Result result;
    std::size_t noHash;
    bool renew;
  };
  const Case cases[] = {{2, Result::SUCCEEDED, 2, false}, {20, Result::FAILED, 10, true}};
  for (const Case& c : cases) {
    emulators::YandexOptions options;
    options.unhashed_answers = c.unhashed;
    Start(options);
    auto fs = test::OpenYandex("", &factory_);
    ASSERT_NE(fs, nullptr);
    FolderNode root;
    ASSERT_EQ(Tree(fs.get(), &root), Result::SUCCEEDED);
    emulators::CloudAccount& account = emulator_->account();
    ASSERT_EQ(account.CreateFile(account.RootId(), "fresh.txt", "abc", kBaseMs, nullptr),
              AccountError::kNone);
    utils::ManualClock clock;
    utils::ScopedClock scoped(&clock);
    RadarsLogger::Capture metrics;
    std::queue<FileSystem::Change> changes;
    EXPECT_EQ(fs->GetChanges(&changes), c.result) << c.unhashed;
    EXPECT_EQ(metrics.Count("yandex_no_hash"), c.noHash) << c.unhashed;
    EXPECT_EQ(metrics.Count("yandex_no_hash_get_tree"), c.renew ? 1u : 0u) << c.unhashed;
    EXPECT_EQ(fs->ShouldRenewTree(), c.renew) << c.unhashed;
    std::uint64_t free = 0;
    for (; !changes.empty(); changes.pop()) {
      EXPECT_TRUE(fs->ApplyRemoteChange(changes.front(), &root, &free, &total_));
    }
    if (!c.renew) {
      EXPECT_EQ(Sorted(test::TreeLines(root)), Model("", false)) << c.unhashed;
    }
  }
}

}  // namespace

// The contract of RemoteFileSystem, the same cases for every service: the tree equals the account,
// uploads and reads are byte-exact with the service's hash equal to ours, overwrites honour their
// control, folder operations land where asked, hostile names stay outside, Stop ends any
// operation within a second, and a change feed brings others' changes but not the adapter's own.
// Each row (tests/contract/targets/) is one service on a real server
// or on its emulator.
#include <chrono>
#include <future>
#include <iostream>
#include <queue>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "contract/ContractTarget.h"
#include "core/Clock.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "support/Processes.h"
#include "support/Transfers.h"

namespace contract {

std::vector<ContractRow>& ContractRows() {
  static std::vector<ContractRow> rows;
  return rows;
}

std::unique_ptr<RemoteFileSystem> ContractTarget::Connect() {
  if (!factory_)
    factory_ = MakeFactory();
  if (!factory_)
    return nullptr;
  std::unique_ptr<RemoteFileSystem> fs(factory_->Create());
  if (!fs || !fs->Open(std::make_shared<CurlURLProcessorFactory>(Credentials())))
    return nullptr;
  return fs;
}

Registration::Registration(std::string name, TargetMaker make) {
  ContractRows().push_back(ContractRow{std::move(name), std::move(make)});
}

namespace {

using Result = FileSystem::Result;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kBlock = 64 * 1024;

// The adapter's tree as paths, the way Remote() tells the account.
void Flatten(const FolderNode& folder, const std::string& prefix, RemoteTree* tree) {
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    std::string path = prefix + it->GetName();
    (*tree)[path] = RemoteItem{true, 0, it->GetTime(), SomeHash()};
    Flatten(**it, path + "/", tree);
  }
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it) {
    (*tree)[prefix + it->GetName()] = RemoteItem{false, it->size, it->GetTime(), it->hash};
  }
}

class ContractTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    for (const ContractRow& row : ContractRows()) {
      if (row.name == GetParam())
        target_ = row.make();
    }
    ASSERT_TRUE(target_);
    std::string error;
    ASSERT_TRUE(target_->Start(&error)) << error;
    fs_ = target_->Connect();
    ASSERT_TRUE(fs_);
    // The core learns the account before it touches an item: the shared id tree is filled.
    Tree();
  }
  void TearDown() override {
    fs_.reset();
    // A failed case shows what the adapter said.
    if (HasFailure()) {
      for (const std::string& line : log_.Lines())
        std::cout << line << "\n";
    }
  }

  // The whole tree as a fresh adapter of the account downloads it, the quota first as the core
  // asks it.
  RemoteTree Tree(Result* result = nullptr) {
    std::unique_ptr<RemoteFileSystem> fresh = target_->Connect();
    FolderNode root;
    std::uint64_t free = 0, total = 0, used = 0;
    tsl::htrie_set<char> service_items;
    Result got = fresh->GetCloudSize(&total, &used);
    if (got == FileSystem::SUCCEEDED) {
      got = fresh->GetFullTree(&root, &free, &total, &service_items);
    }
    if (result)
      *result = got;
    EXPECT_EQ(got, FileSystem::SUCCEEDED);
    RemoteTree tree;
    Flatten(root, "", &tree);
    return tree;
  }

  SomeHash HashOf(const std::string& content) {
    std::unique_ptr<HashCalculator> calculator = MakeHashCalculator(fs_->GetHashType());
    if (!calculator)
      return SomeHash();
    calculator->Feed(reinterpret_cast<const std::uint8_t*>(content.data()),
                     static_cast<std::uint32_t>(content.size()));
    return calculator->Finish();
  }

  // Open (create or rewrite), blocks, close; the first failure of the three.
  Result Upload(const std::string& path, const std::string& content,
                const FileSystem::OverwriteControl* rewrite, FileSystem::FileProperties* props) {
    std::uint64_t resume = 0;
    SomeHash hash = HashOf(content);
    fs_->SetFileHashToResumeInterruptedUpload(hash);
    Result opened =
        rewrite ? fs_->OpenForRewrite(*rewrite, path, hash, content.size(), 1700000000, &resume)
                : fs_->OpenForCreate(FileSystem::OverwriteControl(), path, hash, content.size(),
                                     1700000000, &resume, false);
    if (opened != FileSystem::SUCCEEDED)
      return opened;
    Result written = test::WriteFrom(*fs_, content, resume, kBlock);
    if (written != FileSystem::SUCCEEDED)
      return written;
    // The core always asks for the hash of what it uploaded.
    FileSystem::FileProperties ignored;
    return fs_->CloseFile(props ? props : &ignored);
  }

  // As the core reads: exactly the bytes asked for, then the close.
  Result Read(const std::string& path, std::uint64_t offset, std::uint64_t limit,
              const RemoteItem& item, std::string* bytes) {
    Result opened = fs_->OpenForRead(path, offset, limit, item.size, item.hash);
    if (opened != FileSystem::SUCCEEDED)
      return opened;
    std::vector<std::uint8_t> block(kBlock);
    while (bytes->size() < limit - offset) {
      std::uint32_t want = static_cast<std::uint32_t>(
          std::min<std::uint64_t>(kBlock, limit - offset - bytes->size()));
      std::uint32_t done = 0;
      Result read = fs_->ReadFile(block.data(), want, &done);
      if (read != FileSystem::SUCCEEDED || done == 0) {
        fs_->CloseFile(nullptr);
        return read == FileSystem::SUCCEEDED ? FileSystem::FAILED : read;
      }
      bytes->append(reinterpret_cast<char*>(block.data()), done);
    }
    return fs_->CloseFile(nullptr);
  }

  LoggerWrapper::Capture log_;
  std::unique_ptr<ContractTarget> target_;
  std::unique_ptr<RemoteFileSystem> fs_;
};

TEST_P(ContractTest, TheTreeEqualsTheAccountItemByItem) {
  target_->PutFile("a.txt", "alpha");
  target_->PutFile("docs/b.bin", test::RandomBytes(70000, 1));
  target_->PutFile("docs/deep/er/c", "");
  target_->PutFile("Ünïcödé 日本 #%&+.txt", "unicode");
  RemoteTree expected = target_->Remote();
  RemoteTree tree = Tree();
  ASSERT_EQ(tree.size(), expected.size());
  for (const auto& [path, want] : expected) {
    ASSERT_TRUE(tree.count(path)) << path;
    const RemoteItem& got = tree[path];
    EXPECT_EQ(got.folder, want.folder) << path;
    EXPECT_EQ(got.size, want.size) << path;
    if (!want.folder && target_->TreeHasFileTimes()) {
      EXPECT_EQ(got.time, want.time) << path;
    }
    if (!want.hash.IsEmpty()) {
      EXPECT_EQ(got.hash, want.hash) << path;
    }
  }
}

TEST_P(ContractTest, UploadsLandByteExactWithTheServicesHashEqualToOurs) {
  if (!target_->ServesItemOperations() || !target_->ServesTransfers())
    GTEST_SKIP() << GetParam() << " reads and writes no file content so far";
  const std::vector<std::pair<std::string, std::string>> files = {
      {"empty", ""}, {"one", "x"}, {"five MiB and one", test::RandomBytes((5 << 20) + 1, 2)}};
  for (const auto& [name, content] : files) {
    FileSystem::FileProperties props;
    ASSERT_EQ(Upload(name, content, nullptr, &props), FileSystem::SUCCEEDED) << name;
    EXPECT_EQ(target_->ReadRemote(name), content) << name;
    RemoteItem remote = target_->Remote()[name];
    EXPECT_EQ(remote.size, content.size()) << name;
    if (!remote.hash.IsEmpty()) {
      EXPECT_EQ(props.hash, remote.hash) << name;
      if (target_->HashIsContentDigest()) {
        EXPECT_EQ(remote.hash, HashOf(content)) << name;
      }
    }
  }
  // A second create of the same name doesn't replace the file.
  if (!target_->ChecksOverwriteControl()) {
    return;
  }
  EXPECT_NE(Upload("one", "y", nullptr, nullptr), FileSystem::SUCCEEDED);
  EXPECT_EQ(target_->ReadRemote("one"), "x");
}

TEST_P(ContractTest, OverwriteHonoursItsControl) {
  if (!target_->ServesItemOperations() || !target_->ServesTransfers())
    GTEST_SKIP() << GetParam() << " reads and writes no file content so far";
  target_->PutFile("f", "first");
  RemoteItem current = Tree()["f"];
  FileSystem::OverwriteControl right(current.hash);
  ASSERT_EQ(Upload("f", "second", &right, nullptr), FileSystem::SUCCEEDED);
  EXPECT_EQ(target_->ReadRemote("f"), "second");
  if (!target_->ChecksOverwriteControl()) {
    GTEST_SKIP() << GetParam() << " ignores conditional writes";
  }
  // The control still names the first content: the tree is behind the server.
  EXPECT_EQ(Upload("f", "third", &right, nullptr), FileSystem::CONFLICT);
  EXPECT_EQ(target_->ReadRemote("f"), "second");
}

TEST_P(ContractTest, RangedAndWholeReadsAreByteExact) {
  if (!target_->ServesItemOperations() || !target_->ServesTransfers())
    GTEST_SKIP() << GetParam() << " reads and writes no file content so far";
  const std::string content = test::RandomBytes(300000, 3);
  target_->PutFile("r.bin", content);
  RemoteItem item = Tree()["r.bin"];
  struct Case {
    std::uint64_t offset, limit;
  } cases[] = {{0, content.size()},      {0, 1},           {1, 2},
               {kBlock - 1, kBlock + 1}, {299999, 300000}, {12345, 200000}};
  for (const Case& c : cases) {
    std::string bytes;
    ASSERT_EQ(Read("r.bin", c.offset, c.limit, item, &bytes), FileSystem::SUCCEEDED)
        << c.offset << "-" << c.limit;
    EXPECT_EQ(bytes, content.substr(c.offset, c.limit - c.offset)) << c.offset << "-" << c.limit;
  }
}

TEST_P(ContractTest, FolderOperationsLandWhereAsked) {
  if (!target_->ServesItemOperations())
    GTEST_SKIP() << GetParam() << " only lists the account so far";
  ASSERT_EQ(fs_->CreateFolderImpl(FileSystem::OverwriteControl(), "one"), FileSystem::SUCCEEDED);
  ASSERT_EQ(fs_->CreateFolderImpl(FileSystem::OverwriteControl(), "one/two"),
            FileSystem::SUCCEEDED);
  ASSERT_EQ(fs_->CreateFolderImpl(FileSystem::OverwriteControl(), "other"), FileSystem::SUCCEEDED);
  target_->PutFile("one/two/f", "content");
  RemoteTree tree = Tree();
  FileSystem::OverwriteControl none;
  // Rename, then move into another folder.
  FolderNode root;
  ASSERT_EQ(fs_->MoveFolderImpl(root, none, "one", none, "renamed"), FileSystem::SUCCEEDED);
  ASSERT_EQ(fs_->MoveFolderImpl(root, none, "renamed/two", none, "other/two"),
            FileSystem::SUCCEEDED);
  RemoteTree remote = target_->Remote();
  EXPECT_TRUE(remote.count("renamed"));
  EXPECT_FALSE(remote.count("one"));
  EXPECT_EQ(target_->ReadRemote("other/two/f"), "content");
  // A file moves and renames too.
  FileNode* file = nullptr;
  FolderNode holder;
  file = holder.CreateFileW("f", 7, tree["one/two/f"].hash, tree["one/two/f"].time);
  FileSystem::OverwriteControl file_control(tree["one/two/f"].hash);
  SomeHash hash = tree["one/two/f"].hash;
  Result moved =
      target_->MovesByRename()
          ? fs_->RenameFileImpl(*file, file_control, "other/two/f", none, "renamed/g", &hash)
          : fs_->MoveFileImpl(*file, file_control, "other/two/f", none, "renamed/g");
  ASSERT_EQ(moved, FileSystem::SUCCEEDED);
  EXPECT_EQ(target_->ReadRemote("renamed/g"), "content");
  // Delete with contents.
  FolderNode* other = root.CreateFolder("other");
  ASSERT_EQ(fs_->DeleteFolderImpl(*other, FileSystem::Revision::RevisionNone(), "other"),
            FileSystem::SUCCEEDED);
  remote = target_->Remote();
  EXPECT_FALSE(remote.count("other"));
  EXPECT_FALSE(remote.count("other/two"));
  EXPECT_TRUE(remote.count("renamed/g"));
}

TEST_P(ContractTest, HostileNamesInAnAnswerStayOutside) {
  target_->PutFile("kept", "k");
  const std::string hostile[] = {
      "..", ".", "a/b", std::string("nul\0byte", 8), "a%2Fb/..", std::string(10000, 'n')};
  int planted = 0;
  for (const std::string& name : hostile)
    planted += target_->PlantName(name) ? 1 : 0;
  if (planted == 0)
    GTEST_SKIP() << GetParam() << " can't hold hostile names";
  Result result = FileSystem::SUCCEEDED;
  std::unique_ptr<RemoteFileSystem> fresh = target_->Connect();
  FolderNode root;
  std::uint64_t free = 0, total = 0;
  tsl::htrie_set<char> service_items;
  result = fresh->GetFullTree(&root, &free, &total, &service_items);
  // Either the tree comes without them, or the download fails with a clear Result.
  if (result == FileSystem::SUCCEEDED) {
    RemoteTree tree;
    Flatten(root, "", &tree);
    EXPECT_TRUE(tree.count("kept"));
    for (const auto& entry : tree) {
      EXPECT_EQ(entry.first.find(".."), std::string::npos) << entry.first;
      EXPECT_EQ(entry.first.find('\0'), std::string::npos);
      EXPECT_LT(entry.first.size(), 10000u);
    }
  } else {
    EXPECT_NE(result, FileSystem::STOPPED);
  }
}

TEST_P(ContractTest, StopFromAnotherThreadEndsAReadAndAnUploadAtOnce) {
  if (!target_->ServesItemOperations() || !target_->ServesTransfers())
    GTEST_SKIP() << GetParam() << " reads and writes no file content so far";
  // A read: the next block after the Stop answers STOPPED, and Start makes the adapter usable.
  const std::string content = test::RandomBytes(4 << 20, 4);
  target_->PutFile("big", content);
  RemoteItem item = Tree()["big"];
  ASSERT_EQ(fs_->OpenForRead("big", 0, content.size(), item.size, item.hash),
            FileSystem::SUCCEEDED);
  std::vector<std::uint8_t> block(kBlock);
  std::uint32_t done = 0;
  ASSERT_EQ(fs_->ReadFile(block.data(), kBlock, &done), FileSystem::SUCCEEDED);
  std::thread([&] { fs_->Stop(); }).join();
  Result read = FileSystem::SUCCEEDED;
  for (int i = 0; i < 100 && read == FileSystem::SUCCEEDED && done > 0; ++i) {
    read = fs_->ReadFile(block.data(), kBlock, &done);
  }
  EXPECT_EQ(read, FileSystem::STOPPED);
  fs_->CloseFile(nullptr);
  fs_->Start();

  // An upload.
  std::uint64_t resume = 0;
  const std::string upload = test::RandomBytes(2 << 20, 5);
  ASSERT_EQ(fs_->OpenForCreate(FileSystem::OverwriteControl(), "up", HashOf(upload), upload.size(),
                               1700000000, &resume, false),
            FileSystem::SUCCEEDED);
  ASSERT_EQ(fs_->WriteFile(reinterpret_cast<const std::uint8_t*>(upload.data()), kBlock),
            FileSystem::SUCCEEDED);
  std::thread([&] { fs_->Stop(); }).join();
  Result written = FileSystem::SUCCEEDED;
  for (std::size_t off = kBlock; off < upload.size() && written == FileSystem::SUCCEEDED;
       off += kBlock) {
    written = fs_->WriteFile(reinterpret_cast<const std::uint8_t*>(upload.data()) + off, kBlock);
  }
  if (written == FileSystem::SUCCEEDED)
    written = fs_->CloseFile(nullptr);
  EXPECT_EQ(written, FileSystem::STOPPED);
  fs_->CloseFile(nullptr);
  fs_->Start();
  std::string bytes;
  EXPECT_EQ(Read("big", 0, 10, item, &bytes), FileSystem::SUCCEEDED);
}

TEST_P(ContractTest, StopFromAnotherThreadEndsASlowTreeWithinASecond) {
  target_->PutFile("a", "a");
  if (!target_->SlowDown())
    GTEST_SKIP() << GetParam() << " can't be slowed down";
  FolderNode root;
  std::uint64_t free = 0, total = 0;
  tsl::htrie_set<char> service_items;
  auto tree = std::async(std::launch::async,
                         [&] { return fs_->GetFullTree(&root, &free, &total, &service_items); });
  // Long enough for the first request to be under way; the server holds every answer longer.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  Clock::time_point stopped = Clock::now();
  fs_->Stop();
  EXPECT_EQ(tree.get(), FileSystem::STOPPED);
  EXPECT_LT(Clock::now() - stopped, std::chrono::seconds(1));
}

// The feed tells what others did and keeps quiet about what this adapter did itself: its own
// upload and folder don't come back to be applied a second time, a foreign file does.
TEST_P(ContractTest, TheFeedBringsForeignChangesAndDropsItsOwnEchoes) {
  if (!fs_->SupportsChangesListening())
    GTEST_SKIP() << GetParam() << " has no change feed";
  // Paces and long-poll backoffs pass on a clock of the test's own.
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  // 1. The feed starts from the tree this adapter loaded, as the core's does.
  FolderNode root;
  std::uint64_t free = 0, total = 0, used = 0;
  tsl::htrie_set<char> service_items;
  ASSERT_EQ(fs_->GetCloudSize(&total, &used), FileSystem::SUCCEEDED);
  ASSERT_EQ(fs_->GetFullTree(&root, &free, &total, &service_items), FileSystem::SUCCEEDED);
  // 2. Our own changes first (those the adapter makes yet), then a foreign one: once the foreign
  //    one has arrived, the echoes of ours, older in the account's history, have come too.
  const bool uploads = target_->ServesItemOperations() && target_->ServesTransfers();
  const bool changesItems = target_->ServesItemOperations();
  if (uploads) {
    ASSERT_EQ(Upload("mine.bin", "made here", nullptr, nullptr), FileSystem::SUCCEEDED);
  }
  if (changesItems) {
    ASSERT_EQ(fs_->CreateFolderImpl(FileSystem::OverwriteControl(), "my folder"),
              FileSystem::SUCCEEDED);
  }
  target_->PutFile("theirs.txt", "made elsewhere");
  // 3. The feed, applied to the tree the way the core applies it.
  bool arrived = false;
  for (int call = 0; call < 8 && !arrived; ++call) {
    std::queue<FileSystem::Change> changes;
    ASSERT_EQ(fs_->GetChanges(&changes), FileSystem::SUCCEEDED) << "call " << call;
    for (; !changes.empty(); changes.pop()) {
      FileSystem::Change& change = changes.front();
      if (!fs_->PrepareRemoteChange(&change)) {
        fs_->SkipRemoteChange(change, &root);
        continue;
      }
      ASSERT_TRUE(fs_->ApplyRemoteChange(change, &root, &free, &total)) << change.ToString();
    }
    arrived = root.GetFile("theirs.txt") != nullptr;
  }
  // 4. The foreign file is in the tree with its size; our own items were never applied.
  ASSERT_TRUE(arrived);
  EXPECT_EQ(root.GetFile("theirs.txt")->size, std::string("made elsewhere").size());
  if (fs_->SupportsSelfChangeFiltering()) {
    EXPECT_EQ(root.GetFile("mine.bin"), nullptr);
    EXPECT_EQ(root.GetFolder("my folder") == nullptr, target_->FiltersOwnFolderEchoes());
  }
}

// What a broken answer may cost: a clear failure, or (after the adapter's own retry) the exact
// result. Never a short read, a partial tree or a lost upload reported as success.
TEST_P(ContractTest, BrokenAnswersNeverPassAsWhole) {
  const std::string content = test::RandomBytes(300000, 6);
  target_->PutFile("docs/r.bin", content);
  target_->PutFile("docs/s.txt", "s");
  RemoteItem item = Tree()["docs/r.bin"];
  if (!target_->TakesFaults())
    GTEST_SKIP() << GetParam() << " takes no fault instructions";
  // Retry waits pass on a clock of the test's own.
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  using emulators::FaultRule;
  struct Case {
    const char* what;
    FaultRule rule;
  };
  const Case cases[] = {
      {"body cut after 1000 bytes", FaultRule::On().CutAfter(1000)},
      {"reset after 1000 bytes", FaultRule::On().CutAfter(1000).Reset()},
      {"reset instead of an answer", FaultRule::On().Reset()},
      {"503 with Retry-After", FaultRule::On().Status(503).RetryAfter(3)},
      {"429 with Retry-After", FaultRule::On().Status(429).RetryAfter(2)},
  };
  int round = 0;
  for (const Case& c : cases) {
    for (int nth = 1; nth <= 2; ++nth) {
      SCOPED_TRACE(std::string(c.what) + ", request " + std::to_string(nth));
      const FaultRule rule = FaultRule(c.rule).Nth(nth);
      // 1. A read.
      target_->ClearFaults();
      target_->AddFault(rule);
      std::string bytes;
      if (Read("docs/r.bin", 0, content.size(), item, &bytes) == FileSystem::SUCCEEDED) {
        EXPECT_EQ(bytes, content);
      }
      // 2. A tree.
      target_->ClearFaults();
      target_->AddFault(rule);
      std::unique_ptr<RemoteFileSystem> fresh = target_->Connect();
      FolderNode root;
      std::uint64_t free = 0, total = 0;
      tsl::htrie_set<char> service_items;
      if (fresh->GetFullTree(&root, &free, &total, &service_items) == FileSystem::SUCCEEDED) {
        RemoteTree tree;
        Flatten(root, "", &tree);
        EXPECT_EQ(tree.size(), target_->Remote().size());
      }
      // 3. An upload.
      target_->ClearFaults();
      target_->AddFault(rule);
      const std::string name = "docs/up" + std::to_string(++round);
      const std::string upload = test::RandomBytes(100000, round);
      if (Upload(name, upload, nullptr, nullptr) == FileSystem::SUCCEEDED) {
        EXPECT_EQ(target_->ReadRemote(name), upload);
      }
      // A fault may leave an adapter in any state but a wrong one; the next case starts afresh.
      target_->ClearFaults();
      fs_ = target_->Connect();
    }
  }
}

std::vector<std::string> RowNames() {
  std::vector<std::string> names;
  for (const ContractRow& row : ContractRows())
    names.push_back(row.name);
  return names;
}

INSTANTIATE_TEST_SUITE_P(Services, ContractTest, ::testing::ValuesIn(RowNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           return info.param;
                         });

}  // namespace
}  // namespace contract

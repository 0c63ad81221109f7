#include <gtest/gtest.h>

#include <QThreadPool>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>
#include <typeinfo>

#include "core/Clock.h"
#include "core/HashCalculators.h"
#include "core/LoggerWrapper.h"
#include "emulators/Faults.h"
#include "services/BackupMetainfoRemoteReaderBox.h"
#include "services/BoxTesting.h"
#include "services/RemoteBoxUtils.h"
#include "services/RemoteFileSystemFactoryBox.h"
#include "support/HashOf.h"
#include "support/HeapUsage.h"

namespace {

using FS = FileSystem;

constexpr auto BoxHashOf = test::HashOf<HashCalculatorBox>;

// Uploads `data` in blocks of 1 MiB; stops writing after `cut` bytes when given.
FS::Result Upload(RemoteFileSystem& fs, const std::string& path, const std::string& data,
                  SomeHash* out = nullptr, std::uint64_t cut = UINT64_MAX,
                  std::uint64_t* resumed_at = nullptr) {
  std::uint64_t offset = 0;
  FS::Result result = fs.OpenForCreate(FS::OverwriteControl(), path, BoxHashOf(data), data.size(),
                                       1700000000, &offset, false);
  if (resumed_at)
    *resumed_at = offset;
  if (result != FS::SUCCEEDED)
    return result;
  for (std::uint64_t at = offset; at < data.size() && at < cut; at += 1 << 20) {
    std::uint32_t n =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(1 << 20, data.size() - at));
    result = fs.WriteFile(reinterpret_cast<const std::uint8_t*>(data.data()) + at, n);
    if (result != FS::SUCCEEDED)
      return result;
  }
  FS::FileProperties props;
  result = fs.CloseFile(&props);
  if (out)
    *out = props.hash;
  return result;
}

std::string Read(RemoteFileSystem& fs, const std::string& path, std::uint64_t offset,
                 std::uint64_t limit, std::uint64_t size, FS::Result* result) {
  std::string got;
  *result = fs.OpenForRead(path, offset, limit, size, SomeHash());
  std::uint8_t buffer[65536];
  std::uint32_t done = 0;
  while (*result == FS::SUCCEEDED &&
         (*result = fs.ReadFile(buffer, sizeof(buffer), &done)) == FS::SUCCEEDED && done > 0)
    got.append(reinterpret_cast<char*>(buffer), done);
  if (*result == FS::SUCCEEDED)
    *result = fs.CloseFile(nullptr);
  return got;
}

std::string Bytes(std::size_t size, char seed) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    data[i] = static_cast<char>(seed + i * 131 + (i >> 12));
  return data;
}

TEST(RemoteFileSystemBoxRestApi, EntryMakesTheRestClassWithItsCapabilities) {
  test::BoxAccount box;
  auto fs = box.Open();
  ASSERT_NE(dynamic_cast<rest_api::RemoteFileSystemBox*>(fs.get()), nullptr);
  EXPECT_EQ(fs->GetServiceId(), CloudServiceId::BOX);
  EXPECT_EQ(fs->GetHashType(), SomeHash::BOX);
  EXPECT_TRUE(fs->IsCaseInsensitive());
  EXPECT_FALSE(fs->SupportsChangesListening());
  EXPECT_TRUE(fs->SupportsResumingUpload());
  EXPECT_FALSE(fs->GetMaxSupportedNameLength().first || fs->GetMaxSupportedPathLength().second);
  std::string link;
  EXPECT_EQ(fs->GetPublicLink("a", false, &link), FS::FAILED);
  EXPECT_EQ(fs->ClosePublicLink("a"), FS::FAILED);
  EXPECT_TRUE(box.emulator->server().Requests().empty());
  // The factory's row: its record, the reader of Box's metainfo, and no writer.
  EXPECT_EQ(typeid(*box.factory), typeid(RemoteFileSystemFactoryBox));
  EXPECT_NE(std::dynamic_pointer_cast<rest_api::RemoteFileSystemBoxSharedData>(
                box.factory->GetSharedData()),
            nullptr);
  auto reader = box.factory->CreateMetainfoReader(box.url_factory);
  EXPECT_NE(std::dynamic_pointer_cast<BackupMetainfoRemoteReaderBox>(reader), nullptr);
  EXPECT_EQ(box.factory->CreateMetainfoWriter(box.url_factory, "C:/a", "Backups/a"), nullptr);
  // Another factory of the same id shares nothing.
  std::unique_ptr<RemoteFileSystemFactory> other(H6BA54F7D00(CloudServiceId::BOX, ""));
  EXPECT_NE(other->GetSharedData(), box.factory->GetSharedData());
}

TEST(RemoteFileSystemBoxRestApi, ThreeLevelTreeEqualsTheAccountAndRestoresThePool) {
  test::BoxAccount box;
  // 1. 5 000 items on three levels, the root's folder past one page of 1000.
  std::map<std::string, std::pair<std::uint64_t, std::string>> expected;
  int made = 0;
  for (int a = 0; a < 10; ++a) {
    std::string fa = box.Folder("0", "A" + std::to_string(a));
    expected["A" + std::to_string(a) + "/"] = {0, ""};
    for (int b = 0; b < 9; ++b) {
      std::string fb = box.Folder(fa, "B" + std::to_string(b));
      std::string pb = "A" + std::to_string(a) + "/B" + std::to_string(b) + "/";
      expected[pb] = {0, ""};
      made += 2;
      for (int c = 0; c < 54 && made < 5000; ++c, ++made) {
        std::string data = "f" + std::to_string(made);
        box.File(fb, "f" + std::to_string(c), data);
        expected[pb + "f" + std::to_string(c)] = {data.size(), BoxHashOf(data).GetHashBox().sha1};
      }
    }
  }
  for (int i = 0; i < 1100 - 10; ++i) {
    std::string data = "r" + std::to_string(i);
    box.File("0", "r" + std::to_string(i), data);
    expected["r" + std::to_string(i)] = {data.size(), BoxHashOf(data).GetHashBox().sha1};
  }
  QThreadPool::globalInstance()->setMaxThreadCount(7);
  // 2. The download.
  auto fs = box.Open();
  FolderNode root;
  std::uint64_t free = 0, total = 0;
  ASSERT_EQ(fs->GetFullTree(&root, &free, &total, nullptr), FS::SUCCEEDED);
  std::map<std::string, std::pair<std::uint64_t, std::string>> got;
  test::CollectFiles(root, "", &got);
  EXPECT_EQ(got, expected);
  EXPECT_EQ(total, box.account().TotalSpace());
  EXPECT_EQ(free, total - box.account().UsedSpace());
  EXPECT_EQ(QThreadPool::globalInstance()->maxThreadCount(), 7);
  // 3. The id tree, the etag and the time from its offset.
  RemoteFileIds& ids = box.Shared().ids;
  EXPECT_EQ(ids.GetItemsCount(), expected.size() + 1);
  std::string id = ids.GetFileIdByPath("A3/B4/f5");
  ASSERT_FALSE(id.empty());
  EXPECT_EQ(box.account().PathOf(id), "A3/B4/f5");
  FileNode* file = root.GetFolderAtPath("A3/B4")->GetFile("f5");
  EXPECT_EQ(file->GetTime(), 1700000000u);
  EXPECT_EQ(file->hash.GetHashBox().etag, std::to_string(box.account().Find(id)->revision));
  // 4. The root's listing went in pages of Box's cap, with the marker given back.
  EXPECT_GE(box.Count("GET", "/2.0/folders/0/items"), 2u);
  bool marker_seen = false;
  for (const auto& request : box.emulator->server().Requests())
    marker_seen = marker_seen || request.query.find("&marker=") != std::string::npos;
  EXPECT_TRUE(marker_seen);
}

TEST(RemoteFileSystemBoxRestApi, AfterOne429EveryLaterQueryPausesOnTheClock) {
  // 1. Two levels of six folders: the 429 comes on the first level, so every query of the second
  // starts after it, however the first level's queries met on the threads.
  constexpr int kFolders = 6;
  test::BoxAccount box;
  for (int i = 0; i < kFolders; ++i) {
    std::string top = box.Folder("0", "d" + std::to_string(i));
    box.File(box.Folder(top, "s"), "x", "y");
  }
  // The second: the root's listing first, then one of the first level.
  box.emulator->faults().Add(
      emulators::FaultRule::On("", "/2.0/folders/").Nth(2).Status(429).RetryAfter(3));
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  LoggerWrapper::Capture log;
  auto fs = box.Open();
  FolderNode root;
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  EXPECT_EQ(root.GetFolderAtPath("d5/s")->GetFile("x")->size, 1u);
  // 2. The limited URL went again after a pause, and so did each query of the second level (the
  // first level's queries already on their way when the 429 came don't pause).
  std::vector<std::int64_t> waits = clock.Waits();
  EXPECT_GE(waits.size(), 1u + kFolders);
  EXPECT_LE(waits.size(), 1u + 2 * kFolders);
  for (std::int64_t wait : waits) {
    EXPECT_GE(wait, 1000);
    EXPECT_LE(wait, 2499);
  }
  EXPECT_EQ(log.Count("Rate limit, has to sleep before run query."), waits.size());
  EXPECT_EQ(log.Count("Rate limit."), 1u);
  // 3. The throttle belongs to that download: the next one runs without pauses.
  box.emulator->faults().Clear();
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  EXPECT_EQ(clock.Waits().size(), waits.size());
}

TEST(RemoteFileSystemBoxRestApi, RemoteRootIsFoundPastTheFirstPageAndAFileOfItsNameIgnored) {
  test::BoxAccount box("Backups/PC 1");
  std::string backups = box.Folder("0", "Backups");
  // A file named like the root, in another case, comes first on the first page (Box itself would
  // refuse it beside the folder; the account is seeded past that rule); the folder is on a later
  // page.
  box.File(backups, "pc 1", "not a folder");
  for (int i = 0; i < 150; ++i)
    box.Folder(backups, "other" + std::to_string(i));
  box.File(backups, "PC 1x", "");
  std::string pc = box.Folder(backups, "PC 1");
  box.File(pc, "inside", "abc");
  auto fs = box.Open();
  FolderNode root;
  LoggerWrapper::Capture found_log;
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  EXPECT_EQ(root.GetFile("inside")->size, 3u);
  EXPECT_EQ(box.Shared().ids.GetRootId(), pc);
  EXPECT_GE(box.Count("GET", "/2.0/folders/" + backups + "/items"), 2u);
  // The files met on the way (asked without their sizes) are no bad answers.
  EXPECT_TRUE(found_log.LinesAtLevel(LogType::kWarning).empty());

  test::BoxAccount missing("Backups/PC 2");
  missing.Folder("0", "Backups");
  LoggerWrapper::Capture log;
  auto other = missing.Open();
  EXPECT_EQ(test::ReadTree(*other, &root), FS::ITEM_MISSED);
  EXPECT_TRUE(log.Contains("Remote root folder not found: \"PC 2\""));
}

TEST(RemoteFileSystemBoxRestApi, ErrorMapCoversEveryRow) {
  struct Row {
    int status;
    std::string body;
    FS::Result result;
  };
  auto error = [](int status, const char* code) {
    return std::string("{\"type\":\"error\",\"status\":") + std::to_string(status) +
           ",\"code\":\"" + code + "\"}";
  };
  const Row rows[] = {
      {400, error(400, "item_name_too_long"), FS::NAME_TOO_LONG},
      {400, error(400, "item_name_invalid"), FS::BADNAM},
      {400, error(400, "bad_request"), FS::FAILED},
      {401, error(401, "unauthorized"), FS::AUTH_INVALID},
      {401, "", FS::AUTH_INVALID},
      {403, error(403, "storage_limit_exceeded"), FS::NO_SPACE},
      {403, error(403, "access_denied_insufficient_permissions"), FS::ACCESS_DENIED},
      {404, error(404, "not_found"), FS::CONFLICT},
      {404, error(404, "trashed"), FS::FAILED},
      {409, error(409, "item_name_in_use"), FS::CONFLICT},
      {409, error(409, "operation_blocked_temporary"), FS::CONFLICT},
      {409, error(409, "tuple_already_exists"), FS::CONFLICT},
      {409, error(409, "conflict"), FS::FAILED},
      {412, error(412, "precondition_failed"), FS::CONFLICT},
      {412, "", FS::CONFLICT},
      {500, error(500, "internal_server_error"), FS::FAILED},
      {502, "<html>bad gateway</html>", FS::FAILED},
      {200, "{}", FS::SUCCEEDED},
  };
  for (const Row& row : rows) {
    rest_api::BoxAnswer answer;
    answer.transfer = URLProcessorResult::HTTP_FAILED;
    answer.code = row.status;
    utils::json::json_tree tree;
    if (utils::json::Parse(row.body, &tree))
      answer.json = tree;
    LoggerWrapper::Capture log;
    EXPECT_EQ(rest_api::GetResultFromBoxAnswer(answer), row.result) << row.status << row.body;
    EXPECT_EQ(log.Contains("Failed to read JSON."), !answer.json && row.status != 200) << row.body;
  }
  rest_api::BoxAnswer stopped;
  stopped.transfer = URLProcessorResult::STOPPED;
  EXPECT_EQ(rest_api::GetResultFromBoxAnswer(stopped), FS::STOPPED);
}

TEST(RemoteFileSystemBoxRestApi, ErrorsOfTheEmulatorReachTheOperations) {
  test::BoxAccount box;
  box.account().SetTotalSpace(10);
  auto fs = box.Open();
  FolderNode root;
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  EXPECT_EQ(fs->CreateFolderImpl(FS::OverwriteControl(), std::string(300, 'n')), FS::NAME_TOO_LONG);
  EXPECT_EQ(fs->CreateFolderImpl(FS::OverwriteControl(), "trailing "), FS::BADNAM);
  EXPECT_EQ(Upload(*fs, "big.bin", std::string(100, 'x')), FS::NO_SPACE);
  box.emulator->faults().Add(emulators::FaultRule::On().Status(401));
  EXPECT_EQ(fs->CheckConnection(), FS::AUTH_INVALID);
}

TEST(RemoteFileSystemBoxRestApi, ItemOperationsOnTheEmulator) {
  test::BoxAccount box;
  std::string docs = box.Folder("0", "docs");
  std::string a = box.File(docs, "a.txt", "alpha");
  box.File(box.Folder(docs, "sub"), "s.txt", "s");
  auto fs = box.Open();
  FolderNode root;
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  RemoteFileIds& ids = box.Shared().ids;
  // 1. mkdir: the body as Box takes it, the id in the tree.
  ASSERT_EQ(fs->CreateFolderImpl(FS::OverwriteControl(), "docs/new"), FS::SUCCEEDED);
  const emulators::HttpRequest post = box.emulator->server().Requests().back();
  EXPECT_EQ(post.verb, "POST");
  EXPECT_EQ(post.query, "fields=name,id");
  EXPECT_EQ(post.body, "{\"name\":\"new\",\"parent\":{\"id\":\"" + docs + "\"}}");
  EXPECT_EQ(ids.GetFolderIdByPath("docs/new"), box.account().FindByPath("docs/new")->id);
  EXPECT_EQ(fs->CreateFolderImpl(FS::OverwriteControl(), "docs/NEW"), FS::CONFLICT);
  // 2. rename and move by PUT: new etag and SHA-1 come back, the id tree follows.
  FileNode* node = root.GetFolderAtPath("docs")->GetFile("a.txt");
  SomeHash hash;
  ASSERT_EQ(fs->RenameFileImpl(*node, FS::OverwriteControl(node->hash), "docs/a.txt",
                               FS::OverwriteControl(), "docs/new/b.txt", &hash),
            FS::SUCCEEDED);
  EXPECT_EQ(box.emulator->server().Requests().back().Header("if-match"),
            node->hash.GetHashBox().etag);
  EXPECT_EQ(box.account().PathOf(a), "docs/new/b.txt");
  EXPECT_EQ(hash.GetHashBox().sha1, BoxHashOf("alpha").GetHashBox().sha1);
  EXPECT_EQ(hash.GetHashBox().etag, std::to_string(box.account().Find(a)->revision));
  EXPECT_EQ(ids.GetFileIdByPath("docs/new/b.txt"), a);
  ASSERT_EQ(fs->MoveFolderImpl(*root.GetFolderAtPath("docs/sub"), FS::OverwriteControl(),
                               "docs/sub", FS::OverwriteControl(), "sub2"),
            FS::SUCCEEDED);
  EXPECT_TRUE(box.account().FindByPath("sub2/s.txt"));
  EXPECT_FALSE(ids.GetFileIdByPath("sub2/s.txt").empty());
  // 3. delete with a stale etag: 412 keeps the id; with the right one it goes.
  FS::OverwriteControl stale(SomeHash(HashBox{"x", "1"}));
  EXPECT_EQ(fs->DeleteFileImpl(stale, "docs/new/b.txt", 0, 0), FS::CONFLICT);
  EXPECT_EQ(ids.GetFileIdByPath("docs/new/b.txt"), a);
  EXPECT_EQ(fs->DeleteFileImpl(FS::OverwriteControl(hash), "docs/new/b.txt", 0, 0), FS::SUCCEEDED);
  EXPECT_TRUE(ids.GetFileIdByPath("docs/new/b.txt").empty());
  EXPECT_TRUE(box.account().IsInTrash(a));
  // 4. recursive folder delete; an unknown item costs no request.
  ASSERT_EQ(fs->DeleteFolderImpl(root, FS::Revision::RevisionNone(), "docs"), FS::SUCCEEDED);
  EXPECT_EQ(box.emulator->server().Requests().back().query, "recursive=true");
  EXPECT_FALSE(box.account().FindByPath("docs"));
  std::size_t before = box.emulator->server().Requests().size();
  EXPECT_EQ(fs->DeleteFileImpl(FS::OverwriteControl(), "nothing/here", 0, 0), FS::ITEM_MISSED);
  RemoteFileSystem::FolderListing listing;
  EXPECT_EQ(fs->GetFolderListing("nothing", &listing), FS::ITEM_MISSED);
  EXPECT_EQ(box.emulator->server().Requests().size(), before);
  // 5. A listing of what stays.
  ASSERT_EQ(fs->GetFolderListing("sub2", &listing), FS::SUCCEEDED);
  ASSERT_EQ(listing.files.size(), 1u);
  EXPECT_EQ(listing.files[0].first, "s.txt");
}

TEST(RemoteFileSystemBoxRestApi, ReadsFollowTheRedirectWithARange) {
  test::BoxAccount box;
  std::string data = Bytes(300000, 'r');
  box.File("0", "f.bin", data);
  auto fs = box.Open();
  FolderNode root;
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  FS::Result result;
  EXPECT_EQ(Read(*fs, "f.bin", 0, data.size(), data.size(), &result), data);
  EXPECT_EQ(result, FS::SUCCEEDED);
  EXPECT_EQ(Read(*fs, "f.bin", 1000, 2000, data.size(), &result), data.substr(1000, 1000));
  EXPECT_EQ(box.emulator->server().Requests().back().Header("Range"), "bytes=1000-1999");
  EXPECT_EQ(box.emulator->server().Requests().back().path.rfind("/dl/", 0), 0u);
  // A body cut short is a failure, not a short file.
  box.emulator->faults().Add(emulators::FaultRule::On("", "/dl/").CutAfter(5000));
  Read(*fs, "f.bin", 0, data.size(), data.size(), &result);
  EXPECT_EQ(result, FS::FAILED);
}

TEST(RemoteFileSystemBoxRestApi, PlainUploadBelowTwentyMiBAndSessionFromThere) {
  test::BoxAccount box;
  box.account().SetKeepContentLimit(0);
  auto fs = box.Open();
  FolderNode root;
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  for (std::uint64_t size : {rest_api::RemoteFileSystemBox::kSessionUploadFrom - 1,
                             rest_api::RemoteFileSystemBox::kSessionUploadFrom}) {
    box.emulator->server().ClearRequests();
    std::string data = Bytes(size, static_cast<char>(size));
    SomeHash hash;
    const std::string name = "f" + std::to_string(size);
    ASSERT_EQ(Upload(*fs, name, data, &hash), FS::SUCCEEDED) << size;
    const bool plain = size < rest_api::RemoteFileSystemBox::kSessionUploadFrom;
    EXPECT_EQ(box.Count("POST", "/upload/2.0/files/content"), plain ? 1u : 0u);
    EXPECT_EQ(box.Count("PUT", "/upload/2.0/files/upload_sessions/"), plain ? 0u : 3u);
    EXPECT_EQ(box.Count("POST", "/upload/2.0/files/upload_sessions"), plain ? 0u : 3u);  // +commits
    std::optional<emulators::Item> item = box.account().FindByPath(name);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->size, size);
    EXPECT_EQ(item->digests.sha1, BoxHashOf(data).GetHashBox().sha1);
    EXPECT_EQ(hash.GetHashBox().sha1, item->digests.sha1);
    EXPECT_EQ(box.Shared().ids.GetFileIdByPath(name), item->id);
  }
  // A rewrite with a stale etag: 412 is a conflict.
  std::uint64_t offset = 0;
  FS::OverwriteControl stale(SomeHash(HashBox{"x", "99"}));
  ASSERT_EQ(fs->OpenForRewrite(stale, "f20971519", BoxHashOf("abc"), 3, 0, &offset), FS::SUCCEEDED);
  ASSERT_EQ(fs->WriteFile(reinterpret_cast<const std::uint8_t*>("abc"), 3), FS::SUCCEEDED);
  EXPECT_EQ(fs->CloseFile(nullptr), FS::CONFLICT);
}

TEST(RemoteFileSystemBoxRestApi, HundredMiBUploadHoldsAtMostOnePartBetweenWrites) {
  constexpr std::uint64_t kSize = 100ull << 20;
  constexpr std::uint32_t kBlock = 1 << 20;
  test::BoxAccount box;
  box.account().SetKeepContentLimit(0);
  utils::ManualClock clock;  // the commit's Retry-After
  utils::ScopedClock scoped(&clock);
  auto fs = box.Open();
  FolderNode root;
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  // 1. The content is made block by block, so that the test holds none of it either.
  std::vector<std::uint8_t> block(kBlock);
  HashCalculatorBox whole;
  whole.Begin();
  for (std::uint64_t at = 0; at < kSize; at += kBlock) {
    emulators::PatternBytes(at, block.data(), kBlock);
    whole.Feed(block.data(), kBlock);
  }
  const SomeHash hash = whole.Finish();
  // 2. The upload, with the heap looked at whenever the adapter has the core's thread back.
  const std::size_t before = test::HeapInUse();
  std::size_t peak = before;
  std::uint64_t offset = 0;
  ASSERT_EQ(fs->OpenForCreate(FS::OverwriteControl(), "big.bin", hash, kSize, 0, &offset, false),
            FS::SUCCEEDED);
  for (std::uint64_t at = 0; at < kSize; at += kBlock) {
    emulators::PatternBytes(at, block.data(), kBlock);
    ASSERT_EQ(fs->WriteFile(block.data(), kBlock), FS::SUCCEEDED);
    peak = std::max(peak, test::HeapInUse());
  }
  FS::FileProperties props;
  ASSERT_EQ(fs->CloseFile(&props), FS::SUCCEEDED);
  // 3. One part of the session's size (8 MiB here) and the bookkeeping of the transfer, far from
  // two parts; and the file whole on the server.
  const std::uint64_t part = 8ull << 20;
  EXPECT_LE(peak - before, part + (1u << 20));
  EXPECT_EQ(box.Count("PUT", "/upload/2.0/files/upload_sessions/"), kSize / part + 1);
  std::optional<emulators::Item> item = box.account().FindByPath("big.bin");
  ASSERT_TRUE(item);
  EXPECT_EQ(item->size, kSize);
  EXPECT_EQ(item->digests.sha1, hash.GetHashBox().sha1);
  EXPECT_EQ(props.hash.GetHashBox().sha1, hash.GetHashBox().sha1);
}

TEST(RemoteFileSystemBoxRestApi, InterruptedSessionsResumeInAnotherAdapter) {
  const std::uint64_t part = 8ull << 20;
  const std::uint64_t size = 4 * part + 12345;
  const std::string data = Bytes(size, 'q');
  // A stop lands wherever the transfer stands: the server holds one part or two.
  const std::uint64_t kWhateverLanded = UINT64_MAX;
  auto session_put = [](int nth) {
    return emulators::FaultRule::On("PUT", "/upload/2.0/files/upload_sessions/").Nth(nth);
  };
  struct Case {
    const char* name;
    std::function<void(test::BoxAccount&, rest_api::RemoteFileSystemBox&)> interrupt;
    std::uint64_t expected_offset;
  };
  const Case cases[] = {
      {"InterruptFile after 2 parts",
       [&](test::BoxAccount&, rest_api::RemoteFileSystemBox& fs) {
         std::uint64_t offset = 0;
         ASSERT_EQ(fs.OpenForCreate(FS::OverwriteControl(), "f", BoxHashOf(data), size, 0, &offset,
                                    false),
                   FS::SUCCEEDED);
         ASSERT_EQ(fs.WriteFile(reinterpret_cast<const std::uint8_t*>(data.data()),
                                static_cast<std::uint32_t>(2 * part + 100)),
                   FS::SUCCEEDED);
         EXPECT_EQ(fs.InterruptFile(), FS::FAILED);
       },
       2 * part},
      {"reset after 3 parts",
       [&](test::BoxAccount& box, rest_api::RemoteFileSystemBox& fs) {
         box.emulator->faults().Add(session_put(4).Reset());
         EXPECT_EQ(Upload(fs, "f", data), FS::FAILED);
       },
       // The fourth part landed; only its answer was lost, and the listing of parts tells.
       4 * part},
      {"Stop during part 2",
       [&](test::BoxAccount& box, rest_api::RemoteFileSystemBox& fs) {
         box.emulator->faults().Add(session_put(2).DelayMs(400));
         // The Stop comes while the service holds its answer to part 2, whatever the load.
         std::thread stopper([&fs, &box] {
           for (int i = 0; i < 1000 && box.Count("PUT", "/upload/2.0/files/upload_sessions/") < 2;
                ++i) {
             std::this_thread::sleep_for(std::chrono::milliseconds(10));
           }
           fs.Stop();
         });
         EXPECT_EQ(Upload(fs, "f", data), FS::STOPPED);
         stopper.join();
       },
       kWhateverLanded},
      {"persist limit loses part 2",
       [&](test::BoxAccount& box, rest_api::RemoteFileSystemBox& fs) {
         box.emulator->faults().Add(session_put(2).PersistLimit(1000));
         EXPECT_EQ(Upload(fs, "f", data), FS::FAILED);
       },
       1 * part},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::BoxAccount box;
    box.account().SetKeepContentLimit(0);
    auto first = box.Open();
    FolderNode root;
    ASSERT_EQ(test::ReadTree(*first, &root), FS::SUCCEEDED);
    c.interrupt(box, *first);
    EXPECT_EQ(box.Shared().sessions.Count(), 1u);
    box.emulator->server().ClearRequests();
    auto second = box.Open();
    std::uint64_t resumed_at = 0;
    SomeHash hash;
    LoggerWrapper::Capture log;
    ASSERT_EQ(Upload(*second, "f", data, &hash, UINT64_MAX, &resumed_at), FS::SUCCEEDED);
    if (c.expected_offset == kWhateverLanded) {
      EXPECT_EQ(resumed_at % part, 0u);
      EXPECT_LE(resumed_at, 2 * part);
    } else {
      EXPECT_EQ(resumed_at, c.expected_offset);
      EXPECT_EQ(box.Count("PUT", "/upload/2.0/files/upload_sessions/"),
                (size - c.expected_offset + part - 1) / part);
    }
    EXPECT_EQ(box.Count("POST", "/upload/2.0/files/upload_sessions"), 2u);  // two commit tries
    EXPECT_EQ(box.account().FindByPath("f")->digests.sha1, BoxHashOf(data).GetHashBox().sha1);
    EXPECT_TRUE(log.Contains("Resuming upload session for \"f\""));
    EXPECT_EQ(box.Shared().sessions.Count(), 0u);
  }
}

TEST(RemoteFileSystemBoxRestApi, StoredSessionsThatCantResumeTakeTheRoadOfANewOne) {
  const std::uint64_t size = 3 * (8ull << 20);
  const std::string data = Bytes(size, 'e');
  enum Kind { kExpiredOnServer, kExpiredByTime, kOtherHash, kOtherSize, kEmptyParts };
  for (Kind kind : {kExpiredOnServer, kExpiredByTime, kOtherHash, kOtherSize, kEmptyParts}) {
    SCOPED_TRACE(kind);
    test::BoxAccount box;
    box.account().SetKeepContentLimit(0);
    auto first = box.Open();
    FolderNode root;
    ASSERT_EQ(test::ReadTree(*first, &root), FS::SUCCEEDED);
    ASSERT_EQ(Upload(*first, "f", data, nullptr, kind == kEmptyParts ? 100 : (8ull << 20) + 1),
              FS::FAILED);
    utils::ManualClock clock(kind == kExpiredByTime ? 4'000'000'000'000
                                                    : utils::GetClock().NowMs());
    utils::ScopedClock scoped(&clock);
    if (kind == kExpiredOnServer)
      box.account().ExpireUploads();
    std::string upload = kind == kOtherHash   ? Bytes(size, 'z')
                         : kind == kOtherSize ? data + "tail"
                                              : data;
    LoggerWrapper::Capture log;
    std::uint64_t resumed_at = 7;
    ASSERT_EQ(Upload(*box.Open(), "f", upload, nullptr, UINT64_MAX, &resumed_at), FS::SUCCEEDED);
    EXPECT_EQ(resumed_at, 0u);
    EXPECT_EQ(box.account().FindByPath("f")->digests.sha1, BoxHashOf(upload).GetHashBox().sha1);
    const char* line = kind == kExpiredOnServer ? "can't be resumed"
                       : kind == kExpiredByTime ? "expired."
                       : kind == kOtherHash || kind == kOtherSize
                           ? "changed between uploads"
                           : "Empty parts list, upload from the beggining.";
    EXPECT_TRUE(log.Contains(line));
  }
}

TEST(RemoteFileSystemBoxRestApi, BadAnswersAreLoggedAndSkippedNeverACrash) {
  const std::string good =
      R"({"type":"file","id":"9","name":"ok","parent":{"id":"0"},"size":1,"sha1":"aa","etag":"1"})";
  struct Entry {
    std::string json;
    const char* log;
  };
  const Entry entries[] = {
      {R"({"type":"web_link","id":"1","name":"w","parent":{"id":"0"}})",
       "Unknown item type: web_link"},
      {R"({"type":"file","name":"noid","parent":{"id":"0"},"size":1})", "Item without id"},
      {R"({"type":"file","id":"2","name":"p","parent":null,"size":1})",
       "Item without id or parent"},
      {R"({"type":"file","id":"3","name":"..","parent":{"id":"0"},"size":1})",
       "Unusable item name"},
      {R"({"type":"file","id":"4","name":"a/b","parent":{"id":"0"},"size":1})",
       "Unusable item name"},
      {R"({"type":"file","id":"5","name":")" + std::string(10000, 'n') +
           R"(","parent":{"id":"0"},"size":1})",
       "Unusable item name"},
      {R"({"type":"file","id":"6","name":"big","parent":{"id":"0"},"size":"-5"})", "Invalid size"},
      {R"({"type":"file","id":"7","name":"huge","parent":{"id":"0"},"size":1e30})", "Invalid size"},
      {R"({"type":"file","id":"8","name":"obj","parent":{"id":"0"},"size":{"a":1}})",
       "Invalid size"},
  };
  for (const Entry& entry : entries) {
    utils::json::json_tree tree;
    ASSERT_TRUE(utils::json::Parse("{\"entries\":[" + entry.json + "," + good + "]}", &tree));
    rest_api::BoxItemsPage page;
    LoggerWrapper::Capture log;
    ASSERT_TRUE(rest_api::ParseBoxItemsPage(tree, &page));
    EXPECT_EQ(page.entries, 2u);
    ASSERT_EQ(page.items.size(), 1u) << entry.json.substr(0, 80);
    EXPECT_EQ(page.items[0].name, "ok");
    EXPECT_TRUE(log.Contains(entry.log)) << entry.log;
  }
  // Whole answers through the adapter.
  test::BoxAccount box;
  std::string d = box.Folder("0", "d");
  box.File(d, "Same.txt", "1");
  box.File(d, "same.TXT", "2");  // seeded past Box's own rule
  auto fs = box.Open();
  FolderNode root;
  LoggerWrapper::Capture log;
  ASSERT_EQ(test::ReadTree(*fs, &root), FS::SUCCEEDED);
  EXPECT_EQ(std::distance(root.GetFolder("d")->FilesBegin(), root.GetFolder("d")->FilesEnd()), 1);
  EXPECT_TRUE(log.Contains("Failed to create file \"d/same.TXT\"."));
  auto listing = [&d] { return emulators::FaultRule::On("", "/2.0/folders/" + d); };
  for (const emulators::FaultRule& rule :
       {listing().CutAfter(10), listing().DropField("entries"), listing().Status(503)}) {
    box.emulator->faults().Clear();
    box.emulator->faults().Add(rule);
    EXPECT_EQ(test::ReadTree(*fs, &root), FS::FAILED);
  }
  // A 200 without a body is no listing.
  box.emulator->faults().Clear();
  box.emulator->server().Handle(
      "GET", "/2.0/folders/" + d + "/items",
      [](const emulators::HttpRequest&) { return emulators::HttpResponse::Status(200); });
  LoggerWrapper::Capture empty_log;
  EXPECT_EQ(test::ReadTree(*fs, &root), FS::FAILED);
  EXPECT_TRUE(empty_log.Contains("Failed parse answer: "));
  // A session answer without part_size fails the open.
  box.emulator->faults().Clear();
  box.emulator->faults().Add(
      emulators::FaultRule::On("", "/upload/2.0/files/upload_sessions").DropField("part_size"));
  std::uint64_t offset = 0;
  LoggerWrapper::Capture session_log;
  EXPECT_EQ(fs->OpenForCreate(FS::OverwriteControl(), "s.bin", BoxHashOf("x"), 30 << 20, 0, &offset,
                              false),
            FS::FAILED);
  EXPECT_TRUE(session_log.Contains("Invalid upload session params."));
}

}  // namespace

// The WebDAV adapter against the real servers of the system (apache mod_dav_fs, rclone, lighttpd
// mod_webdav): a generated account comes down whole and exact, agrees with an independent client's
// listing, and takes uploads, reads and folder operations as each server answers them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>

#include "core/HashCalculators.h"
#include "core/Json.h"
#include "core/Nodes.h"
#include "core/TimeUtils.h"
#include "emulators/HttpServer.h"
#include "services/RemoteFileSystemWebDAV.h"
#include "support/DavServer.h"
#include "support/HashOf.h"
#include "support/WebDavTesting.h"

namespace {

namespace fs = std::filesystem;
using Result = FileSystem::Result;
using test::DavServerKind;

// Path -> folder or file, size, modification time.
using Listing = std::map<std::string, std::tuple<bool, std::uint64_t, std::int64_t>>;

constexpr int kTopFolders = 20;
constexpr int kSubFolders = 9;       // 20 + 180 = 200 folders
constexpr int kFilesPerFolder = 10;  // 2000 files
const char* const kNames[] = {
    "plain",     "with spaces", "Ünïcödé",    "日本語の名前", "Ελληνικά", "кириллица",
    "100% sure", "a#b",         "what?",      "c+d",          "x&y",      "it's \"quoted\"",
    ".leading",  "عربي",        "emoji 🙂", "[brackets]",
};

std::string NameOf(int i) {
  return std::string(kNames[i % (sizeof(kNames) / sizeof(kNames[0]))]) + " " + std::to_string(i);
}

void GiveToServer(const fs::path& root) {
  // Apache's workers run as www-data and must be able to write where the test wrote.
  if (::getuid() != 0) {
    return;
  }
  if (passwd* user = ::getpwnam("www-data")) {
    ::chown(root.c_str(), user->pw_uid, user->pw_gid);
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      ::chown(entry.path().c_str(), user->pw_uid, user->pw_gid);
    }
  }
}

void WriteFile(const fs::path& path, const std::string& content, std::int64_t mtime) {
  std::ofstream(path, std::ios::binary) << content;
  const timespec times[2] = {{mtime, 0}, {mtime, 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

void GenerateAccount(const fs::path& root) {
  int file = 0;
  int folder = 0;
  auto fill = [&](const fs::path& dir) {
    for (int i = 0; i < kFilesPerFolder; ++i, ++file) {
      WriteFile(dir / (NameOf(file) + ".txt"), emulators::PatternString(file, file % 97),
                1600000000 + file * 37);
    }
  };
  for (int top = 0; top < kTopFolders; ++top) {
    const fs::path topDir = root / NameOf(folder++);
    fs::create_directory(topDir);
    fill(topDir);
    for (int sub = 0; sub < kSubFolders; ++sub) {
      const fs::path subDir = topDir / NameOf(folder++);
      fs::create_directory(subDir);
      fill(subDir);
    }
  }
  GiveToServer(root);
}

Listing ListDisk(const fs::path& root) {
  Listing listing;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string path = fs::relative(entry.path(), root).string();
    const bool folder = entry.is_directory();
    struct stat info {};
    ::stat(entry.path().c_str(), &info);
    const std::int64_t mtime = info.st_mtime;
    listing[path] =
        std::make_tuple(folder, folder ? std::uint64_t{0} : std::uint64_t{entry.file_size()},
                        folder ? std::int64_t{0} : std::int64_t{mtime});
  }
  return listing;
}

void ListTree(const FolderNode& folder, const std::string& prefix, Listing* listing) {
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it) {
    (*listing)[prefix + it->GetName()] =
        std::make_tuple(false, it->size, static_cast<std::int64_t>(it->GetTime()));
  }
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    (*listing)[prefix + it->GetName()] = std::make_tuple(true, std::uint64_t{0}, std::int64_t{0});
    ListTree(**it, prefix + it->GetName() + "/", listing);
  }
}

// The same server as rclone's WebDAV client sees it.
Listing ListWithRclone(const std::string& url) {
  const std::string command = "rclone lsjson -R \":webdav,url='" + url + "/':\" 2>/dev/null";
  std::string output;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[65536];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
      output.append(buffer, n);
    }
    ::pclose(pipe);
  }
  utils::json::json_tree tree;
  Listing listing;
  if (!utils::json::Parse(output, &tree)) {
    return listing;
  }
  for (const auto& [key, item] : tree) {
    const bool folder = item.get<std::string>("IsDir") == "true";
    listing[item.get<std::string>("Path")] = std::make_tuple(
        folder, folder ? std::uint64_t{0} : item.get<std::uint64_t>("Size"),
        folder ? std::int64_t{0} : utils::ParseISODateTime(item.get<std::string>("ModTime")));
  }
  return listing;
}

constexpr auto HashOf = test::HashOf<HashCalculatorInternal>;

class WebDavServersTest : public testing::TestWithParam<DavServerKind> {
 protected:
  void SetUp() override {
    server_ = std::make_unique<test::DavServer>(GetParam());
    if (!server_->Start()) {
      GTEST_SKIP() << test::DavServer::Name(GetParam()) << " doesn't serve: " << server_->Error();
    }
    dav_ = test::OpenWebDav(server_->BaseUrl());
    ASSERT_NE(dav_, nullptr);
  }

  Result Upload(const std::string& path, const std::string& content, const SomeHash& control,
                SomeHash* etag) {
    std::uint64_t offset = 0;
    const Result opened = dav_->OpenForCreate(FileSystem::OverwriteControl(control), path,
                                              HashOf(content), content.size(), 0, &offset, false);
    if (opened != Result::SUCCEEDED) {
      return opened;
    }
    for (std::size_t at = 0; at < content.size(); at += 4096) {
      const Result written = dav_->WriteFile(
          reinterpret_cast<const std::uint8_t*>(content.data()) + at,
          static_cast<std::uint32_t>(std::min<std::size_t>(4096, content.size() - at)));
      if (written != Result::SUCCEEDED) {
        dav_->CloseFile(nullptr);
        return written;
      }
    }
    FileSystem::FileProperties props;
    const Result closed = dav_->CloseFile(&props);
    *etag = props.hash;
    return closed;
  }

  Result Read(const std::string& path, std::uint64_t offset, std::uint64_t limit,
              std::uint64_t size, const SomeHash& hash, std::string* content) {
    content->clear();
    const Result opened = dav_->OpenForRead(path, offset, limit, size, hash);
    if (opened != Result::SUCCEEDED) {
      return opened;
    }
    std::uint8_t buffer[1000];
    while (content->size() < limit - offset) {
      std::uint32_t done = 0;
      const Result read = dav_->ReadFile(buffer, sizeof(buffer), &done);
      if (read != Result::SUCCEEDED) {
        return read;
      }
      content->append(reinterpret_cast<char*>(buffer), done);
    }
    return dav_->CloseFile(nullptr);
  }

  std::unique_ptr<test::DavServer> server_;
  std::unique_ptr<RemoteFileSystemWebDAV> dav_;
};

TEST_P(WebDavServersTest, TheWholeTreeComesDownExactAndAsAnotherClientSeesIt) {
  GenerateAccount(server_->Root());
  FolderNode root;
  std::uint64_t free = 0, total = 0;
  ASSERT_EQ(dav_->GetFullTree(&root, &free, &total, nullptr), Result::SUCCEEDED);
  Listing tree;
  ListTree(root, "", &tree);
  const Listing disk = ListDisk(server_->Root());
  EXPECT_EQ(tree.size(), std::size_t{2200});
  EXPECT_EQ(tree, disk);
  EXPECT_EQ(tree, ListWithRclone(server_->BaseUrl()));

  // One level of it, as GetFolderListing gives it.
  const std::string top = NameOf(0);
  RemoteFileSystem::FolderListing listing;
  ASSERT_EQ(dav_->GetFolderListing(top, &listing), Result::SUCCEEDED);
  EXPECT_EQ(listing.folders.size(), std::size_t{kSubFolders});
  ASSERT_EQ(listing.files.size(), std::size_t{kFilesPerFolder});
  for (const auto& [name, props] : listing.files) {
    const FileNode* file = root.GetFolder(top)->GetFile(name);
    ASSERT_NE(file, nullptr) << name;
    EXPECT_EQ(props.size, file->size);
    EXPECT_EQ(props.hash, file->hash);
  }

  // A whole read of a file of the tree, checked against its etag, and a range of it.
  const FileNode* file = root.GetFolder(top)->GetFile(NameOf(5) + ".txt");
  ASSERT_NE(file, nullptr);
  std::string content;
  const std::string path = top + "/" + file->GetName();
  ASSERT_EQ(Read(path, 0, file->size, file->size, file->hash, &content), Result::SUCCEEDED);
  EXPECT_EQ(content, emulators::PatternString(5, 5));
  const FileNode* larger = root.GetFolder(top)->GetFile(NameOf(9) + ".txt");
  ASSERT_EQ(Read(top + "/" + larger->GetName(), 2, 7, 9, larger->hash, &content),
            Result::SUCCEEDED);
  EXPECT_EQ(content, emulators::PatternString(9, 9).substr(2, 5));
}

TEST_P(WebDavServersTest, FilesAndFoldersChangeAsTheServerAllows) {
  // 1. Folders, a new one and one that exists.
  EXPECT_EQ(dav_->CreateFolderImpl({}, "docs & more"), Result::SUCCEEDED);
  EXPECT_EQ(dav_->CreateFolderImpl({}, "docs & more"), Result::SUCCEEDED);
  EXPECT_TRUE(fs::is_directory(server_->Root() / "docs & more"));

  // 2. A new file, and a second upload of a new file over it, which the condition refuses.
  const std::string content = emulators::PatternString(0, 20000);
  SomeHash etag;
  ASSERT_EQ(Upload("docs & more/a #1.bin", content, SomeHash(), &etag), Result::SUCCEEDED);
  EXPECT_FALSE(etag.IsZero());
  // rclone serve takes PUT without looking at If-None-Match and If-Match.
  const bool checksConditions = GetParam() != DavServerKind::kRclone;
  SomeHash ignored;
  EXPECT_EQ(Upload("docs & more/a #1.bin", content, SomeHash(), &ignored),
            checksConditions ? Result::CONFLICT : Result::SUCCEEDED);

  // 3. Within the same second (Apache's etags are weak then) and after it: an overwrite with the
  //    etag of the upload's answer and a delete with the etag of the overwrite both go through;
  //    the first etag, now stale, is refused.
  SomeHash quick;
  ASSERT_EQ(Upload("quick.txt", "one", SomeHash(), &quick), Result::SUCCEEDED);
  SomeHash quicker;
  ASSERT_EQ(Upload("quick.txt", "two!", quick, &quicker), Result::SUCCEEDED);
  if (checksConditions) {
    EXPECT_EQ(Upload("quick.txt", "stale", quick, &ignored), Result::CONFLICT);
    EXPECT_EQ(dav_->DeleteFileImpl(FileSystem::OverwriteControl(quick), "quick.txt", 3, 0),
              Result::CONFLICT);
  }
  EXPECT_EQ(fs::file_size(server_->Root() / "quick.txt"), 4u);
  EXPECT_EQ(dav_->DeleteFileImpl(FileSystem::OverwriteControl(quicker), "quick.txt", 4, 0),
            Result::SUCCEEDED);
  EXPECT_FALSE(fs::exists(server_->Root() / "quick.txt"));

  // 4. An overwrite with the etag of a listing, then one with a stale etag. Apache's etag of a
  //    file written within the last second is weak and never matches: the file is aged first.
  const fs::path onDisk = server_->Root() / "docs & more" / "a #1.bin";
  const timespec aged[2] = {{1600000000, 0}, {1600000000, 0}};
  ::utimensat(AT_FDCWD, onDisk.c_str(), aged, 0);
  RemoteFileSystem::FolderListing listing;
  ASSERT_EQ(dav_->GetFolderListing("docs & more", &listing), Result::SUCCEEDED);
  ASSERT_EQ(listing.files.size(), 1u);
  EXPECT_EQ(listing.files[0].second.size, content.size());
  etag = listing.files[0].second.hash;
  const std::string second = emulators::PatternString(7, 3000);
  SomeHash newEtag;
  ASSERT_EQ(Upload("docs & more/a #1.bin", second, etag, &newEtag), Result::SUCCEEDED);
  std::string read;
  ASSERT_EQ(Read("docs & more/a #1.bin", 0, second.size(), second.size(), newEtag, &read),
            Result::SUCCEEDED);
  EXPECT_EQ(read, second);
  EXPECT_EQ(Upload("docs & more/a #1.bin", "stale", etag, &ignored),
            checksConditions ? Result::CONFLICT : Result::SUCCEEDED);
  EXPECT_EQ(fs::file_size(onDisk), checksConditions ? second.size() : 5u);

  // 5. Rename and move; a file deleted by its etag; the folder deleted with its contents.
  FolderNode root;
  FileNode* node = root.CreateFileW("x", second.size(), newEtag, 0);
  ASSERT_EQ(dav_->MoveFileImpl(*node, {}, "docs & more/a #1.bin", {}, "docs & more/b.bin"),
            Result::SUCCEEDED);
  ASSERT_EQ(dav_->CreateFolderImpl({}, "archive"), Result::SUCCEEDED);
  // lighttpd takes a MOVE of a collection only by its URL with the trailing slash.
  ASSERT_EQ(dav_->MoveFolderImpl(root, {}, "docs & more", {}, "archive/docs"), Result::SUCCEEDED);
  EXPECT_FALSE(fs::exists(server_->Root() / "docs & more"));
  const fs::path moved = server_->Root() / "archive" / "docs" / "b.bin";
  EXPECT_TRUE(fs::exists(moved));
  ::utimensat(AT_FDCWD, moved.c_str(), aged, 0);
  listing = RemoteFileSystem::FolderListing();
  ASSERT_EQ(dav_->GetFolderListing("archive/docs", &listing), Result::SUCCEEDED);
  ASSERT_FALSE(listing.files.empty());
  EXPECT_EQ(dav_->DeleteFileImpl(FileSystem::OverwriteControl(listing.files.back().second.hash),
                                 "archive/docs/b.bin", second.size(), 0),
            Result::SUCCEEDED);
  EXPECT_FALSE(fs::exists(moved));
  EXPECT_EQ(dav_->DeleteFolderImpl(root, FileSystem::Revision::RevisionNone(), "archive"),
            Result::SUCCEEDED);
  EXPECT_FALSE(fs::exists(server_->Root() / "archive"));

  // 6. The quota, where the server reports one.
  std::uint64_t total = 0, used = 0;
  EXPECT_EQ(dav_->GetCloudSize(&total, &used), Result::SUCCEEDED);
  EXPECT_GE(total, used);
}

INSTANTIATE_TEST_SUITE_P(Servers, WebDavServersTest,
                         testing::Values(DavServerKind::kApache, DavServerKind::kRclone,
                                         DavServerKind::kLighttpd),
                         [](const testing::TestParamInfo<DavServerKind>& info) {
                           return std::string(test::DavServer::Name(info.param));
                         });

}  // namespace

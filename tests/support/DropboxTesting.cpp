#include "support/DropboxTesting.h"

#include <gtest/gtest.h>

#include <map>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/RemoteFileSystemSharedData.h"
#include "services/RemoteFileSystemFactoryDropbox.h"
#include "support/StartEmulator.h"

DropboxFixture::DropboxFixture(const std::string& root, std::size_t page_size) {
  shared_ = std::make_shared<RemoteFileSystemDropboxSharedData>();
  auto dialect = std::make_unique<emulators::DropboxDialect>();
  dialect_ = dialect.get();
  dialect_->SetPageSize(page_size);
  dialect_->SetLongpollSecondMs(5);
  emulator_ = test::StartEmulator(std::move(dialect));
  adapter_ = MakeAdapter(root);
}

DropboxFixture::~DropboxFixture() {
  adapter_.reset();
  emulator_.reset();
  Endpoints::ResetOverrides();
}

std::unique_ptr<RemoteFileSystemDropbox> DropboxFixture::MakeAdapter(const std::string& root) {
  auto adapter = std::make_unique<RemoteFileSystemDropbox>(shared_, root);
  auto factory = std::make_shared<CurlURLProcessorFactory>(
      std::make_shared<core::cookie::CookieOAuth>("token"));
  EXPECT_TRUE(adapter->Open(factory));
  return adapter;
}

FileSystem::Result DropboxFixture::LoadTree() {
  return adapter_->GetFullTree(&tree_, &free_, &total_, nullptr);
}

FileSystem::Result DropboxFixture::FollowFeed() {
  std::queue<FileSystem::Change> changes;
  FileSystem::Result result = adapter_->GetChanges(&changes);
  for (; !changes.empty(); changes.pop()) {
    EXPECT_TRUE(adapter_->ApplyRemoteChange(changes.front(), &tree_, &free_, &total_))
        << changes.front().ToString();
  }
  return result;
}

std::string DropboxFixture::RevOf(const std::string& path) {
  auto [folder, name] = tree_.TraversePath(path, true);
  FileNode* file = folder ? folder->GetFile(name, true) : nullptr;
  return file ? file->hash.GetHashDropbox().rev : std::string();
}

namespace {

void CollectTree(const FolderNode& folder, const std::string& path,
                 std::map<std::string, const ChildNode*>* out) {
  for (auto file = folder.FilesBegin(); file != folder.FilesEnd(); ++file) {
    (*out)[path + file->GetName()] = *file;
  }
  for (auto child = folder.FoldersBegin(); child != folder.FoldersEnd(); ++child) {
    (*out)[path + child->GetName()] = *child;
    CollectTree(**child, path + child->GetName() + "/", out);
  }
}

}  // namespace

void DropboxFixture::ExpectTreeMatchesAccount(const std::string& root) {
  std::map<std::string, const ChildNode*> nodes;
  CollectTree(tree_, std::string(), &nodes);
  std::size_t seen = 0;
  const std::string prefix = root.empty() ? std::string() : root + "/";
  for (const emulators::Item& item : account().AllItems()) {
    std::string path = account().PathOf(item.id);
    if (item.id == account().RootId() || path.compare(0, prefix.size(), prefix) != 0 ||
        account().IsInTrash(item.id)) {
      continue;
    }
    path = path.substr(prefix.size());
    ++seen;
    auto node = nodes.find(path);
    ASSERT_NE(node, nodes.end()) << path;
    auto* file = dynamic_cast<const FileNode*>(node->second);
    ASSERT_EQ(file == nullptr, item.IsFolder()) << path;
    if (file) {
      EXPECT_EQ(file->size, item.size) << path;
      EXPECT_EQ(file->GetTime(), static_cast<std::uint64_t>(item.modified_ms / 1000)) << path;
      EXPECT_EQ(file->hash.ToHexString(), item.digests.dropbox) << path;
      EXPECT_FALSE(file->hash.GetHashDropbox().rev.empty()) << path;
    }
  }
  EXPECT_EQ(seen, nodes.size());
}

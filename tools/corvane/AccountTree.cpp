#include "AccountTree.h"

#include "ProgressBar.h"

namespace corvane {

FileSystem::Result DownloadTree(RemoteFileSystem& fs, Snapshot* snapshot) {
  RemoteFileSystem* adapter = &fs;
  ProgressBar bar("tree", [adapter] { return adapter->GetFirstSnapshotProgress(); });
  return fs.GetFullTree(&snapshot->root, &snapshot->free, &snapshot->total,
                        &snapshot->service_items);
}

namespace {

// The WebDAV family names an item by its path; every other adapter by an id.
bool ReachesItemsByPath(RemoteFileSystem& fs) {
  const CloudServiceId service = fs.GetServiceId();
  return service == CloudServiceId::WEBDAV || service == CloudServiceId::PCLOUD ||
         service == CloudServiceId::YANDEX;
}

}  // namespace

bool AccountTree::FromTree() const {
  return fs_.SupportsChangesListening() || !ReachesItemsByPath(fs_);
}

FileSystem::Result AccountTree::Load() {
  if (loaded_) {
    return FileSystem::SUCCEEDED;
  }
  // The quota first, as the core asks it: it scales the progress of the walk.
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  FileSystem::Result result = fs_.GetCloudSize(&total, &used);
  if (result == FileSystem::SUCCEEDED) {
    result = DownloadTree(fs_, &snapshot_);
  }
  loaded_ = result == FileSystem::SUCCEEDED;
  return result;
}

FileSystem::Result AccountTree::List(const std::string& folder,
                                     RemoteFileSystem::FolderListing* listing) {
  if (!FromTree()) {
    return fs_.GetFolderListing(folder, listing);
  }
  FileSystem::Result result = Load();
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  const FolderNode* node = &snapshot_.root;
  if (!folder.empty()) {
    auto [parent, name] = snapshot_.root.TraversePath(folder);
    auto found = parent ? parent->FindFolder(name) : FolderNode::FolderIterator();
    if (!parent || found == parent->FoldersEnd()) {
      return FileSystem::ITEM_MISSED;
    }
    node = *found;
  }
  for (auto it = node->FoldersBegin(); it != node->FoldersEnd(); ++it) {
    listing->folders.push_back(it->GetName());
  }
  for (auto it = node->FilesBegin(); it != node->FilesEnd(); ++it) {
    listing->files.emplace_back(
        it->GetName(), FileSystem::FileProperties(it->hash, 0, it->size, it->GetTime(), false));
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result AccountTree::Find(const std::string& path, Item* item) {
  auto [parent, name] = SplitParent(path);
  RemoteFileSystem::FolderListing listing;
  FileSystem::Result result = List(parent, &listing);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  for (const Item& entry : ListingItems(parent, listing)) {
    if (entry.path == path) {
      *item = entry;
      return FileSystem::SUCCEEDED;
    }
  }
  return FileSystem::ITEM_MISSED;
}

}  // namespace corvane

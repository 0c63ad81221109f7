#include "AccountTree.h"

#include <cstdio>
#include <ostream>

#include "ProgressBar.h"
#include "StateFile.h"

namespace corvane {

FileSystem::Result DownloadTree(RemoteFileSystem& fs, Snapshot* snapshot) {
  RemoteFileSystem* adapter = &fs;
  ProgressBar bar("tree", [adapter] { return adapter->GetFirstSnapshotProgress(); });
  return fs.GetFullTree(&snapshot->root, &snapshot->free, &snapshot->total,
                        &snapshot->service_items);
}

bool ApplyChanges(RemoteFileSystem& fs, std::queue<FileSystem::Change>* changes, Snapshot* snapshot,
                  const std::function<void(const FileSystem::Change&, bool applied)>& seen,
                  FileSystem::Change* failed) {
  for (; !changes->empty(); changes->pop()) {
    FileSystem::Change& change = changes->front();
    bool applied = fs.PrepareRemoteChange(&change);
    if (applied &&
        !fs.ApplyRemoteChange(change, &snapshot->root, &snapshot->free, &snapshot->total)) {
      *failed = change;
      return false;
    }
    if (!applied) {
      fs.SkipRemoteChange(change, &snapshot->root);
    }
    seen(change, applied);
  }
  return true;
}

namespace {

// A feed behind by more batches than this is taken for lost: the tree is downloaded instead.
constexpr int kMostCatchUpBatches = 1000;

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

bool AccountTree::KeepsState() const {
  return !state_file_.empty() && fs_.NeedSavingStateInFile();
}

FileSystem::Result AccountTree::Load(std::string* failed_call) {
  if (loaded_) {
    return FileSystem::SUCCEEDED;
  }
  // 1. The saved state, when there is one.
  if (KeepsState() && Restore()) {
    loaded_ = true;
    return FileSystem::SUCCEEDED;
  }
  // 2. The quota first, as the core asks it: it scales the progress of the walk.
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  FileSystem::Result result = fs_.GetCloudSize(&total, &used);
  if (result != FileSystem::SUCCEEDED) {
    if (failed_call) {
      *failed_call = "GetCloudSize";
    }
    return result;
  }
  result = DownloadTree(fs_, &snapshot_);
  if (result != FileSystem::SUCCEEDED && failed_call) {
    *failed_call = "GetFullTree";
  }
  loaded_ = result == FileSystem::SUCCEEDED;
  return result;
}

bool AccountTree::Restore() {
  std::string why;
  if (!StateFile::Load(state_file_, fs_, &snapshot_, &why)) {
    err_ << "corvane: " << why << "; loading the whole tree" << std::endl;
    return false;
  }
  if (fs_.PrepareAfterTreeDeserialized() != FileSystem::SUCCEEDED || !CatchUp()) {
    err_ << "corvane: the change feed can't go on from " << state_file_
         << "; loading the whole tree" << std::endl;
    snapshot_.root.Clear();
    snapshot_.service_items.clear();
    return false;
  }
  return true;
}

bool AccountTree::CatchUp() {
  // Until a batch brings nothing: the feed has reached the present.
  for (int batch = 0; batch < kMostCatchUpBatches; ++batch) {
    std::queue<FileSystem::Change> changes;
    if (fs_.GetChanges(&changes) != FileSystem::SUCCEEDED || fs_.ShouldRenewTree()) {
      return false;
    }
    if (changes.empty()) {
      return true;
    }
    FileSystem::Change failed;
    if (!ApplyChanges(
            fs_, &changes, &snapshot_, [](const FileSystem::Change&, bool) {}, &failed)) {
      return false;
    }
  }
  return false;
}

void AccountTree::Finish(bool account_changed, bool succeeded) {
  if (!KeepsState() || !loaded_) {
    return;
  }
  if (account_changed) {
    std::remove(state_file_.c_str());
    return;
  }
  if (!succeeded) {
    return;
  }
  std::string why;
  if (!StateFile::Save(state_file_, fs_, snapshot_, &why)) {
    err_ << "corvane: " << why << std::endl;
  }
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
  bool found = false;
  VisitListingInPathOrder(parent, &listing, [&](const Item& entry) {
    if (!found && entry.path == path) {
      *item = entry;
      found = true;
    }
  });
  return found ? FileSystem::SUCCEEDED : FileSystem::ITEM_MISSED;
}

}  // namespace corvane

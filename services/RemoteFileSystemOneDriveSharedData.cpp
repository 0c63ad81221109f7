#include "services/RemoteFileSystemOneDriveSharedData.h"

#include <QMutexLocker>

std::shared_ptr<OneDriveSharedWithMeFolder> RemoteFileSystemOneDriveSharedData::FindSharedByPath(
    const std::string& path) const {
  if (path.empty())
    return nullptr;
  QMutexLocker locker(&foldersMutex_);
  for (const auto& folder : sharedFolders_) {
    const std::string& base = folder->path;
    if (path.compare(0, base.size(), base) == 0 &&
        (path.size() == base.size() || path[base.size()] == '/')) {
      return folder;
    }
  }
  return nullptr;
}

std::shared_ptr<OneDriveSharedWithMeFolder> RemoteFileSystemOneDriveSharedData::FindSharedById(
    const std::string& item_id) const {
  QMutexLocker locker(&foldersMutex_);
  for (const auto& folder : sharedFolders_) {
    if (folder->itemId == item_id)
      return folder;
  }
  return nullptr;
}

RemoteFileSystemOneDriveSharedData::FolderList RemoteFileSystemOneDriveSharedData::SharedFolders()
    const {
  QMutexLocker locker(&foldersMutex_);
  return sharedFolders_;
}

void RemoteFileSystemOneDriveSharedData::SetSharedFolders(FolderList folders) {
  QMutexLocker locker(&foldersMutex_);
  sharedFolders_ = std::move(folders);
}

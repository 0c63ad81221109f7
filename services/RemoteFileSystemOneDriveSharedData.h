// What every adapter of one OneDrive account shares: the id tree with the lock that makes its
// compound edits atomic, the folders that others share with the user (mounted by their own delta
// links), and the interrupted upload sessions.
#pragma once

#include <QMutex>

#include <memory>
#include <string>
#include <vector>

#include "core/RemoteFileSystemSharedData.h"
#include "services/RemoteFileIds.h"

// A folder of another drive that the user added to their own, mounted at `path`.
struct OneDriveSharedWithMeFolder {
  std::string path;
  std::string name;
  std::string driveId;
  std::string itemId;
  std::string deltaLink;
};

class RemoteFileSystemOneDriveSharedData : public RemoteFileSystemSharedData {
 public:
  using FolderList = std::vector<std::shared_ptr<OneDriveSharedWithMeFolder>>;

  RemoteFileIds ids;
  QMutex idsMutex{QMutex::Recursive};

  // The first folder whose path holds `path` (the folder itself or anything below it).
  std::shared_ptr<OneDriveSharedWithMeFolder> FindSharedByPath(const std::string& path) const;
  std::shared_ptr<OneDriveSharedWithMeFolder> FindSharedById(const std::string& item_id) const;
  FolderList SharedFolders() const;
  void SetSharedFolders(FolderList folders);

 private:
  mutable QMutex foldersMutex_;
  FolderList sharedFolders_;
};

// What every adapter of one OneDrive account shares: the id tree with the lock that makes its
// compound edits atomic, the folders that others share with the user (mounted by their own delta
// links), and the interrupted upload sessions.
#pragma once

#include <QMutex>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/RemoteFileSystemSharedData.h"
#include "core/SomeHash.h"
#include "services/RemoteFileIds.h"
#include "services/ResumableUpload.h"

// A folder of another drive that the user added to their own, mounted at `path`.
struct OneDriveSharedWithMeFolder {
  std::string path;
  std::string name;
  std::string driveId;
  std::string itemId;
  std::string deltaLink;
};

// An upload session that stopped short, for any adapter of the account to go on with. `offset` is
// only the last one the service confirmed: a resume asks the service where it stands.
struct OneDriveUploadSession {
  HashOneDrive hash;
  std::uint64_t size = 0;
  std::uint64_t offset = 0;
  std::string sessionUrl;
  std::int64_t sessionExpiry = 0;  // seconds
  std::string eTag;
  std::string parentId;
  std::string prefix;
  std::string name;
  std::uint64_t time = 0;
};

class RemoteFileSystemOneDriveSharedData : public RemoteFileSystemSharedData {
 public:
  using FolderList = std::vector<std::shared_ptr<OneDriveSharedWithMeFolder>>;

  RemoteFileIds ids;
  QMutex idsMutex{QMutex::Recursive};
  resumable_upload::ResumableSessions<OneDriveUploadSession> sessions;

  // The first folder whose path holds `path` (the folder itself or anything below it).
  std::shared_ptr<OneDriveSharedWithMeFolder> FindSharedByPath(const std::string& path) const;
  std::shared_ptr<OneDriveSharedWithMeFolder> FindSharedById(const std::string& item_id) const;
  FolderList SharedFolders() const;
  void SetSharedFolders(FolderList folders);

 private:
  mutable QMutex foldersMutex_;
  FolderList sharedFolders_;
};

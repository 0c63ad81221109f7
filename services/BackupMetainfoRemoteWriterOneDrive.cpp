#include "services/BackupMetainfoRemoteWriterOneDrive.h"

#include <QMutexLocker>

#include "core/JsonWriter.h"
#include "core/LoggerWrapper.h"
#include "core/PercentEncoding.h"
#include "services/GraphMetainfoClient.h"
#include "services/RemoteFileSystemOneDriveSharedData.h"

namespace {

// The id tree knows paths without slashes at either end.
std::string Canonical(std::string path) {
  while (!path.empty() && path.front() == '/')
    path.erase(0, 1);
  while (!path.empty() && path.back() == '/')
    path.pop_back();
  return path;
}

}  // namespace

BackupMetainfoRemoteWriterOneDrive::BackupMetainfoRemoteWriterOneDrive(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory, const std::string& local_path,
    const std::string& remote_path)
    : BackupMetainfoRemoteWriter(std::move(shared_data), std::move(url_factory), local_path,
                                 remote_path) {}

FileSystem::Result BackupMetainfoRemoteWriterOneDrive::ReadFolder(
    std::string* id, OneDriveBackupDescription* description) {
  // 1. What can be refused without a request.
  if (local_path_.empty()) {
    LOG_ERROR << "No local path for metainfo.";
    return FileSystem::FAILED;
  }
  if (remote_path_.empty()) {
    LOG_ERROR << "No remote path for metainfo.";
    return FileSystem::FAILED;
  }
  auto* shared = dynamic_cast<RemoteFileSystemOneDriveSharedData*>(shared_data_.get());
  if (IsInert() || !shared)
    return FileSystem::FAILED;
  if (CheckStopped())
    return FileSystem::STOPPED;
  // 2. The folder's id, from the tree an adapter of the account loaded.
  {
    QMutexLocker locker(&shared->idsMutex);
    *id = shared->ids.GetFolderIdByPath(Canonical(remote_path_));
  }
  if (id->empty()) {
    LOG_ERROR << "Can`t find id of folder \"" << remote_path_ << "\".";
    return FileSystem::ITEM_MISSED;
  }
  *id = utils::PercentEncoded(*id, false);
  // 3. What it says now.
  utils::json::json_tree folder;
  FileSystem::Result result =
      GraphMetainfoClient(http_.get()).Get("/me/drive/items/" + *id, "description", &folder);
  if (result != FileSystem::SUCCEEDED)
    return result;
  auto text = utils::json::Member(folder, "description");
  if (!OneDriveBackupDescription::Parse(text ? text->data() : std::string(), description))
    *description = OneDriveBackupDescription();
  return FileSystem::SUCCEEDED;
}

FileSystem::Result BackupMetainfoRemoteWriterOneDrive::Store(
    const std::string& id, const OneDriveBackupDescription& description) {
  if (CheckStopped())
    return FileSystem::STOPPED;
  utils::json::Writer body;
  body.BeginObject().Key("description").String(description.ToText()).EndObject();
  utils::json::json_tree reply;
  return GraphMetainfoClient(http_.get()).Patch("/me/drive/items/" + id, body.Text(), &reply);
}

FileSystem::Result BackupMetainfoRemoteWriterOneDrive::Create() {
  // 1. The folder, and whether it holds this very description.
  std::string id;
  OneDriveBackupDescription description;
  FileSystem::Result result = ReadFolder(&id, &description);
  if (result != FileSystem::SUCCEEDED)
    return result;
  if (description.localPath == local_path_ && description.cloudPath == remote_path_) {
    LOG_INFO << "Metainfo already exists for local_path=\"" << local_path_ << "\", remote_path=\""
             << remote_path_ << "\".";
    return FileSystem::SUCCEEDED;
  }
  // 2. This backup's paths, with the local paths the folder was written from before.
  description.localPath = local_path_;
  description.cloudPath = remote_path_;
  description.Remember(local_path_);
  return Store(id, description);
}

FileSystem::Result BackupMetainfoRemoteWriterOneDrive::Update(std::uint64_t,
                                                              std::int64_t last_update_time) {
  // The size is the folder's own, which the service keeps.
  std::string id;
  OneDriveBackupDescription description;
  FileSystem::Result result = ReadFolder(&id, &description);
  if (result != FileSystem::SUCCEEDED)
    return result;
  description.localPath = local_path_;
  description.cloudPath = remote_path_;
  description.Remember(local_path_);
  description.lastUpdateTime = last_update_time;
  return Store(id, description);
}

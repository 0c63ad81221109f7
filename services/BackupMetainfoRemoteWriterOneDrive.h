// BackupMetainfoRemoteWriterOneDrive: stores the description of one backup on its OneDrive folder
// (see OneDriveBackupDescription), by a PATCH of the folder's id. The id comes from the account's
// id tree, which an adapter of the same factory has loaded; no factory hands this writer out, and
// a backup to OneDrive is found through the reader alone.
//
//   BackupMetainfoRemoteWriterOneDrive writer(shared, url_factory, "C:\\Docs", "Backups/PC");
//   writer.Create();                       // once; nothing is sent if the same one stands
//   writer.Update(size, time(nullptr));    // after each run
#pragma once

#include <memory>
#include <string>

#include "core/BackupMetainfoRemoteWriter.h"
#include "services/OneDriveBackupDescription.h"

class RemoteFileSystemOneDriveSharedData;

class BackupMetainfoRemoteWriterOneDrive : public BackupMetainfoRemoteWriter {
 public:
  BackupMetainfoRemoteWriterOneDrive(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                     std::shared_ptr<URLProcessorFactory> url_factory,
                                     const std::string& local_path, const std::string& remote_path);

  FileSystem::Result Create() override;
  FileSystem::Result Update(std::uint64_t size, std::int64_t last_update_time) override;

 private:
  // The backup folder's encoded id and the description it carries now (empty when none).
  FileSystem::Result ReadFolder(std::string* id, OneDriveBackupDescription* description);
  FileSystem::Result Store(const std::string& id, const OneDriveBackupDescription& description);
};

// The description of one backup on Huawei Drive: custom properties of the backup's folder,
// "localPath", "cloudPath" and "lastUpdateTime" (the size is not stored).
#pragma once

#include <memory>
#include <string>

#include "core/BackupMetainfoRemoteWriter.h"
#include "core/Json.h"

class HuaweiRequester;

class BackupMetainfoRemoteWriterHuawei : public BackupMetainfoRemoteWriter {
 public:
  BackupMetainfoRemoteWriterHuawei(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory,
                                   const std::string& local_path, const std::string& remote_path);
  ~BackupMetainfoRemoteWriterHuawei() override;

  FileSystem::Result Create() override;
  FileSystem::Result Update(std::uint64_t size, std::int64_t last_update_time) override;

 private:
  // The id of the backup's folder, found by name from the drive's root; FAILED for an inert
  // writer.
  FileSystem::Result FindBackupFolder(std::string* id);
  FileSystem::Result SetProperties(const std::string& id, const utils::json::json_tree& properties);

  std::unique_ptr<HuaweiRequester> requester_;
};

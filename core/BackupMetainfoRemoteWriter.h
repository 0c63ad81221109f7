// BackupMetainfoRemoteWriter: stores the description of one backup (a local folder mirrored into
// a remote one) on the service, so that another installation can find it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/FileSystem.h"
#include "core/MetainfoRemoteClient.h"

class BackupMetainfoRemoteWriter : public MetainfoRemoteClient {
 public:
  BackupMetainfoRemoteWriter(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                             std::shared_ptr<URLProcessorFactory> url_factory,
                             const std::string& local_path, const std::string& remote_path);
  ~BackupMetainfoRemoteWriter() override;

  // Stores the description unless the same one stands already.
  virtual FileSystem::Result Create() = 0;
  // Replaces what changes on each run: the size and the time of the last update.
  virtual FileSystem::Result Update(std::uint64_t size, std::int64_t last_update_time) = 0;
  // NOT_SUPPORTED unless a service stores more than the description of one backup.
  virtual FileSystem::Result DeleteMetainfo();
  virtual FileSystem::Result CreateMetainfoForDisk();

 protected:
  const std::string local_path_;
  const std::string remote_path_;
};

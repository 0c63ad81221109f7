// BackupMetainfoRemoteReader: finds every backup of an account from the descriptions stored on
// the service. A service derives its reader and implements ReadAll.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/MetainfoRemoteClient.h"

struct BackupMetainfoRecord {
  std::string local_path;  // the local folder mirrored
  std::string cloud_path;  // the remote folder of the backup
  std::uint64_t size = 0;
  std::int64_t last_update_time = 0;  // seconds of the Unix epoch
};

class BackupMetainfoRemoteReader : public MetainfoRemoteClient {
 public:
  BackupMetainfoRemoteReader(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                             std::shared_ptr<URLProcessorFactory> url_factory);

  // One record per backup. A stop ends the walk with what was found so far; an inert reader
  // answers an empty list.
  virtual std::vector<BackupMetainfoRecord> ReadAll() = 0;
  ~BackupMetainfoRemoteReader() override;

  // The backup's name: the last segment of its remote path, trailing slashes ignored.
  static std::string GetBackupNameByRemotePath(const std::string& remote_path);
};

// Finds every backup of a Huawei Drive account: the folders below the backups' top folder whose
// custom properties describe a backup.
#pragma once

#include <memory>
#include <vector>

#include "core/BackupMetainfoRemoteReader.h"

class HuaweiRequester;

class BackupMetainfoRemoteReaderHuawei : public BackupMetainfoRemoteReader {
 public:
  BackupMetainfoRemoteReaderHuawei(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory);
  ~BackupMetainfoRemoteReaderHuawei() override;

  std::vector<BackupMetainfoRecord> ReadAll() override;

 private:
  std::unique_ptr<HuaweiRequester> requester_;
};

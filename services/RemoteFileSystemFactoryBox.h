// The factory of a Box account: every adapter it makes is the REST rest_api::RemoteFileSystemBox,
// and they share one record (quota, upload sessions, id tree). Backups are read through
// BackupMetainfoRemoteReaderBox.
#pragma once

#include <memory>
#include <string>

#include "core/RemoteFileSystemFactory.h"

class RemoteFileSystemFactoryBox : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryBox(const std::string& remote_root_path);

  RemoteFileSystem* Create() override;
  std::shared_ptr<BackupMetainfoRemoteReader> CreateMetainfoReader(
      std::shared_ptr<URLProcessorFactory> factory) override;
};

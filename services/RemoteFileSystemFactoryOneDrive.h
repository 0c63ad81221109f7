// The factory of a OneDrive account: every adapter it makes is a RemoteFileSystemOneDrive over
// one RemoteFileSystemOneDriveSharedData.
#pragma once

#include <memory>
#include <string>

#include "core/RemoteFileSystemFactory.h"

class RemoteFileSystemFactoryOneDrive : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryOneDrive(const std::string& remoteRootPath);

  RemoteFileSystem* Create() override;
  // The writer of OneDrive backups is not handed out: a backup there is found by the reader only.
  std::shared_ptr<BackupMetainfoRemoteReader> CreateMetainfoReader(
      std::shared_ptr<URLProcessorFactory> factory) override;
};

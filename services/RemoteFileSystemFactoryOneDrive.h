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
};

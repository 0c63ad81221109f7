// The factory of a Google Drive account: every adapter it makes is a RemoteFileSystemGoogle, and
// they meet in one RemoteFileSystemGoogleSharedData.
#pragma once

#include <string>

#include "core/RemoteFileSystemFactory.h"

class RemoteFileSystemFactoryGoogle : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryGoogle(const std::string& remote_root_path);

  RemoteFileSystem* Create() override;
};

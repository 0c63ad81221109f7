// The factory of a Yandex Disk account: every adapter it makes is a RemoteFileSystemYandex, and
// they share a plain record (the disk's paths are its identity: no id tree to share).
#pragma once

#include <string>

#include "core/RemoteFileSystemFactory.h"

class RemoteFileSystemFactoryYandex : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryYandex(const std::string& remoteRootPath);

  RemoteFileSystem* Create() override;
};

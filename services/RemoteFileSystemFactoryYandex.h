// The factory of a Yandex Disk account: every adapter it makes is a RemoteFileSystemYandex, and
// they share a plain record (the disk's paths are its identity: no id tree to share).
#pragma once

#include <memory>
#include <string>

#include "core/RemoteFileSystemFactory.h"

class RemoteFileSystemFactoryYandex : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryYandex(const std::string& remoteRootPath);

  RemoteFileSystem* Create() override;
  std::shared_ptr<BackupMetainfoRemoteWriter> CreateMetainfoWriter(
      std::shared_ptr<URLProcessorFactory> factory, const std::string& local_path,
      const std::string& remote_path) override;
  std::shared_ptr<BackupMetainfoRemoteReader> CreateMetainfoReader(
      std::shared_ptr<URLProcessorFactory> factory) override;
};

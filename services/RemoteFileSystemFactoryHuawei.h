// The factory of a Huawei Drive account: adapters, the backup metainfo reader and writer, all on
// one RemoteFileSystemHuaweiSharedData.
#pragma once

#include <memory>
#include <string>

#include "core/RemoteFileSystemFactory.h"

class RemoteFileSystemFactoryHuawei : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryHuawei(const std::string& remote_root_path);

  RemoteFileSystem* Create() override;
  std::shared_ptr<BackupMetainfoRemoteWriter> CreateMetainfoWriter(
      std::shared_ptr<URLProcessorFactory> factory, const std::string& local_path,
      const std::string& remote_path) override;
  std::shared_ptr<BackupMetainfoRemoteReader> CreateMetainfoReader(
      std::shared_ptr<URLProcessorFactory> factory) override;
};

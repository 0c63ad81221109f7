// The factory of a Google Drive account: every adapter it makes is a RemoteFileSystemGoogle, and
// they meet, with the backup metainfo reader and writer, in one RemoteFileSystemGoogleSharedData.
#pragma once

#include <memory>
#include <string>

#include "core/RemoteFileSystemFactory.h"

class RemoteFileSystemFactoryGoogle : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryGoogle(const std::string& remote_root_path);

  RemoteFileSystem* Create() override;
  std::shared_ptr<BackupMetainfoRemoteWriter> CreateMetainfoWriter(
      std::shared_ptr<URLProcessorFactory> factory, const std::string& local_path,
      const std::string& remote_path) override;
  std::shared_ptr<BackupMetainfoRemoteReader> CreateMetainfoReader(
      std::shared_ptr<URLProcessorFactory> factory) override;
  // A GoogleDocsReader over this account's shared data.
  std::shared_ptr<SpecialDocsTypeRemoteReader> CreateSpecialDocsTypeRemoteReader(
      std::shared_ptr<URLProcessorFactory> factory) override;
};

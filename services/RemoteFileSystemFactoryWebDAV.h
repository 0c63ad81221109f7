// The factory of a WebDAV account, pCloud's included: every adapter it makes is a
// RemoteFileSystemWebDAV, and they share a plain record.
#pragma once

#include <memory>
#include <string>

#include "core/RemoteFileSystemFactory.h"

class RemoteFileSystemFactoryWebDAV : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryWebDAV(const std::string& remoteRootPath);

  RemoteFileSystem* Create() override;
  std::shared_ptr<BackupMetainfoRemoteReader> CreateMetainfoReader(
      std::shared_ptr<URLProcessorFactory> factory) override;
};

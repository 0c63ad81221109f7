#include "services/RemoteFileSystemFactoryWebDAV.h"

#include "services/BackupMetainfoRemoteReaderWebDAV.h"
#include "services/RemoteFileSystemWebDAV.h"

RemoteFileSystemFactoryWebDAV::RemoteFileSystemFactoryWebDAV(const std::string& remoteRootPath)
    : RemoteFileSystemFactory(remoteRootPath) {
  shared_data_ = std::make_shared<RemoteFileSystemSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryWebDAV::Create() {
  return new RemoteFileSystemWebDAV(shared_data_, remote_root_path_);
}

std::shared_ptr<BackupMetainfoRemoteReader> RemoteFileSystemFactoryWebDAV::CreateMetainfoReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<BackupMetainfoRemoteReaderWebDAV>(shared_data_, std::move(factory));
}

#include "services/RemoteFileSystemFactoryBox.h"

#include "services/BackupMetainfoRemoteReaderBox.h"
#include "services/RemoteFileSystemBoxRestApi.h"

RemoteFileSystemFactoryBox::RemoteFileSystemFactoryBox(const std::string& remote_root_path)
    : RemoteFileSystemFactory(remote_root_path) {
  shared_data_ = std::make_shared<rest_api::RemoteFileSystemBoxSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryBox::Create() {
  return new rest_api::RemoteFileSystemBox(shared_data_, remote_root_path_);
}

std::shared_ptr<BackupMetainfoRemoteReader> RemoteFileSystemFactoryBox::CreateMetainfoReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<BackupMetainfoRemoteReaderBox>(shared_data_, std::move(factory));
}

#include "services/RemoteFileSystemFactoryOneDrive.h"

#include "services/BackupMetainfoRemoteReaderOneDrive.h"
#include "services/RemoteFileSystemOneDrive.h"
#include "services/RemoteFileSystemOneDriveSharedData.h"

RemoteFileSystemFactoryOneDrive::RemoteFileSystemFactoryOneDrive(const std::string& remoteRootPath)
    : RemoteFileSystemFactory(remoteRootPath) {
  shared_data_ = std::make_shared<RemoteFileSystemOneDriveSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryOneDrive::Create() {
  return new RemoteFileSystemOneDrive(
      std::static_pointer_cast<RemoteFileSystemOneDriveSharedData>(shared_data_),
      remote_root_path_);
}

std::shared_ptr<BackupMetainfoRemoteReader> RemoteFileSystemFactoryOneDrive::CreateMetainfoReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<BackupMetainfoRemoteReaderOneDrive>(shared_data_, std::move(factory));
}

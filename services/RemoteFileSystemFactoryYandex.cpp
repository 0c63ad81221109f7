#include "services/RemoteFileSystemFactoryYandex.h"

#include "services/BackupMetainfoRemoteReaderYandex.h"
#include "services/BackupMetainfoRemoteWriterYandex.h"
#include "services/RemoteFileSystemYandex.h"

RemoteFileSystemFactoryYandex::RemoteFileSystemFactoryYandex(const std::string& remoteRootPath)
    : RemoteFileSystemFactory(remoteRootPath) {
  shared_data_ = std::make_shared<RemoteFileSystemSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryYandex::Create() {
  return new RemoteFileSystemYandex(shared_data_, remote_root_path_);
}

std::shared_ptr<BackupMetainfoRemoteWriter> RemoteFileSystemFactoryYandex::CreateMetainfoWriter(
    std::shared_ptr<URLProcessorFactory> factory, const std::string& local_path,
    const std::string& remote_path) {
  return std::make_shared<BackupMetainfoRemoteWriterYandex>(shared_data_, std::move(factory),
                                                            local_path, remote_path);
}

std::shared_ptr<BackupMetainfoRemoteReader> RemoteFileSystemFactoryYandex::CreateMetainfoReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<BackupMetainfoRemoteReaderYandex>(shared_data_, std::move(factory));
}

#include "services/RemoteFileSystemFactoryGoogle.h"

#include "services/BackupMetainfoRemoteReaderGoogle.h"
#include "services/BackupMetainfoRemoteWriterGoogle.h"
#include "services/GoogleDocsReader.h"
#include "services/RemoteFileSystemGoogle.h"
#include "services/RemoteFileSystemGoogleSharedData.h"

RemoteFileSystemFactoryGoogle::RemoteFileSystemFactoryGoogle(const std::string& remote_root_path)
    : RemoteFileSystemFactory(remote_root_path) {
  shared_data_ = std::make_shared<RemoteFileSystemGoogleSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryGoogle::Create() {
  return new RemoteFileSystemGoogle(shared_data_, remote_root_path_);
}

std::shared_ptr<BackupMetainfoRemoteWriter> RemoteFileSystemFactoryGoogle::CreateMetainfoWriter(
    std::shared_ptr<URLProcessorFactory> factory, const std::string& local_path,
    const std::string& remote_path) {
  return std::make_shared<BackupMetainfoRemoteWriterGoogle>(shared_data_, std::move(factory),
                                                            local_path, remote_path);
}

std::shared_ptr<BackupMetainfoRemoteReader> RemoteFileSystemFactoryGoogle::CreateMetainfoReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<BackupMetainfoRemoteReaderGoogle>(shared_data_, std::move(factory));
}

std::shared_ptr<SpecialDocsTypeRemoteReader>
RemoteFileSystemFactoryGoogle::CreateSpecialDocsTypeRemoteReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<GoogleDocsReader>(shared_data_, std::move(factory));
}

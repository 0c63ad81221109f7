#include "services/RemoteFileSystemFactoryHuawei.h"

#include "services/BackupMetainfoRemoteReaderHuawei.h"
#include "services/BackupMetainfoRemoteWriterHuawei.h"
#include "services/RemoteFileSystemHuawei.h"
#include "services/RemoteFileSystemHuaweiSharedData.h"

RemoteFileSystemFactoryHuawei::RemoteFileSystemFactoryHuawei(const std::string& remote_root_path)
    : RemoteFileSystemFactory(remote_root_path) {
  shared_data_ = std::make_shared<RemoteFileSystemHuaweiSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryHuawei::Create() {
  return new RemoteFileSystemHuawei(shared_data_, remote_root_path_);
}

std::shared_ptr<BackupMetainfoRemoteWriter> RemoteFileSystemFactoryHuawei::CreateMetainfoWriter(
    std::shared_ptr<URLProcessorFactory> factory, const std::string& local_path,
    const std::string& remote_path) {
  return std::make_shared<BackupMetainfoRemoteWriterHuawei>(shared_data_, std::move(factory),
                                                            local_path, remote_path);
}

std::shared_ptr<BackupMetainfoRemoteReader> RemoteFileSystemFactoryHuawei::CreateMetainfoReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<BackupMetainfoRemoteReaderHuawei>(shared_data_, std::move(factory));
}

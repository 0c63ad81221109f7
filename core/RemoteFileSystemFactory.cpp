#include "core/RemoteFileSystemFactory.h"

#include "core/BackupMetainfoRemoteReader.h"
#include "core/BackupMetainfoRemoteWriter.h"
#include "core/SpecialDocsTypeRemoteReader.h"

RemoteFileSystemFactory::RemoteFileSystemFactory(const std::string& remote_root_path)
    : remote_root_path_(remote_root_path) {}

RemoteFileSystemFactory::~RemoteFileSystemFactory() = default;

std::shared_ptr<RemoteFileSystemSharedData> RemoteFileSystemFactory::GetSharedData() {
  return shared_data_;
}

std::shared_ptr<BackupMetainfoRemoteWriter> RemoteFileSystemFactory::CreateMetainfoWriter(
    std::shared_ptr<URLProcessorFactory>, const std::string&, const std::string&) {
  return nullptr;
}

std::shared_ptr<BackupMetainfoRemoteReader> RemoteFileSystemFactory::CreateMetainfoReader(
    std::shared_ptr<URLProcessorFactory>) {
  return nullptr;
}

std::shared_ptr<SpecialDocsTypeRemoteReader>
RemoteFileSystemFactory::CreateSpecialDocsTypeRemoteReader(std::shared_ptr<URLProcessorFactory>) {
  return nullptr;
}

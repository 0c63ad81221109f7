#include "core/BackupMetainfoRemoteWriter.h"

BackupMetainfoRemoteWriter::BackupMetainfoRemoteWriter(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory, const std::string& local_path,
    const std::string& remote_path)
    : MetainfoRemoteClient(std::move(shared_data), std::move(url_factory),
                           "MetainfoWriter is stopped."),
      local_path_(local_path),
      remote_path_(remote_path) {}

BackupMetainfoRemoteWriter::~BackupMetainfoRemoteWriter() = default;

FileSystem::Result BackupMetainfoRemoteWriter::DeleteMetainfo() {
  return FileSystem::NOT_SUPPORTED;
}

FileSystem::Result BackupMetainfoRemoteWriter::CreateMetainfoForDisk() {
  return FileSystem::NOT_SUPPORTED;
}

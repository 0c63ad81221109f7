#include "core/BackupMetainfoRemoteReader.h"

#include "core/PathUtils.h"

BackupMetainfoRemoteReader::BackupMetainfoRemoteReader(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory)
    : MetainfoRemoteClient(std::move(shared_data), std::move(url_factory),
                           "MetainfoReader is stopped.") {}

BackupMetainfoRemoteReader::~BackupMetainfoRemoteReader() = default;

std::string BackupMetainfoRemoteReader::GetBackupNameByRemotePath(const std::string& remote_path) {
  std::string_view path = remote_path;
  while (!path.empty() && path.back() == '/') {
    path.remove_suffix(1);
  }
  return std::string(utils::ExtractNameFromPath(path));
}

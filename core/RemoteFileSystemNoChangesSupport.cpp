#include "core/RemoteFileSystemNoChangesSupport.h"

#include "core/LoggerWrapper.h"

RemoteFileSystemNoChangesSupport::RemoteFileSystemNoChangesSupport(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data, const std::string& remote_root_path)
    : RemoteFileSystem(std::move(shared_data), remote_root_path) {}

FileSystem::Result RemoteFileSystemNoChangesSupport::GetChanges(std::queue<Change>*) {
  return NOT_SUPPORTED;
}

bool RemoteFileSystemNoChangesSupport::ApplyRemoteChange(const Change& change, FolderNode*,
                                                         std::uint64_t*, std::uint64_t*) {
  LOG_ERROR << "No change feed to apply a change from: " << change.ToString();
  return false;
}

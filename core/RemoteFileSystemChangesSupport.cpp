#include "core/RemoteFileSystemChangesSupport.h"

RemoteFileSystemChangesSupport::RemoteFileSystemChangesSupport(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data, const std::string& remote_root_path)
    : RemoteFileSystem(std::move(shared_data), remote_root_path) {}

FileSystem::Result RemoteFileSystemChangesSupport::GetFolderListing(const std::string&,
                                                                    FolderListing*) {
  return NOT_SUPPORTED;
}

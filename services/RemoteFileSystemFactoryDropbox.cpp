#include "services/RemoteFileSystemFactoryDropbox.h"

RemoteFileSystemDropboxSharedData::RemoteFileSystemDropboxSharedData()
    : uploadSessions(
          std::make_shared<
              resumable_upload::ResumableSessions<RemoteFileSystemDropbox::UploadSession>>()) {}

RemoteFileSystemFactoryDropbox::RemoteFileSystemFactoryDropbox(const std::string& remoteRootPath)
    : RemoteFileSystemFactory(remoteRootPath) {
  shared_data_ = std::make_shared<RemoteFileSystemDropboxSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryDropbox::Create() {
  return new RemoteFileSystemDropbox(shared_data_, remote_root_path_);
}

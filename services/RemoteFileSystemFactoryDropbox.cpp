#include "services/RemoteFileSystemFactoryDropbox.h"

#include "services/BackupMetainfoRemoteReaderDropbox.h"
#include "services/BackupMetainfoRemoteWriterDropbox.h"

RemoteFileSystemDropboxSharedData::RemoteFileSystemDropboxSharedData()
    : uploadSessions(
          std::make_shared<
              resumable_upload::ResumableSessions<RemoteFileSystemDropbox::UploadSession>>()) {}

std::string RemoteFileSystemDropboxSharedData::MetainfoTemplateId() {
  std::lock_guard<std::mutex> lock(templateMutex_);
  return templateId_;
}

void RemoteFileSystemDropboxSharedData::SetMetainfoTemplateId(const std::string& id) {
  std::lock_guard<std::mutex> lock(templateMutex_);
  templateId_ = id;
}

RemoteFileSystemFactoryDropbox::RemoteFileSystemFactoryDropbox(const std::string& remoteRootPath)
    : RemoteFileSystemFactory(remoteRootPath) {
  shared_data_ = std::make_shared<RemoteFileSystemDropboxSharedData>();
}

RemoteFileSystem* RemoteFileSystemFactoryDropbox::Create() {
  return new RemoteFileSystemDropbox(shared_data_, remote_root_path_);
}

std::shared_ptr<BackupMetainfoRemoteWriter> RemoteFileSystemFactoryDropbox::CreateMetainfoWriter(
    std::shared_ptr<URLProcessorFactory> factory, const std::string& localPath,
    const std::string& remotePath) {
  return std::make_shared<BackupMetainfoRemoteWriterDropbox>(shared_data_, std::move(factory),
                                                             localPath, remotePath);
}

std::shared_ptr<BackupMetainfoRemoteReader> RemoteFileSystemFactoryDropbox::CreateMetainfoReader(
    std::shared_ptr<URLProcessorFactory> factory) {
  return std::make_shared<BackupMetainfoRemoteReaderDropbox>(shared_data_, std::move(factory));
}

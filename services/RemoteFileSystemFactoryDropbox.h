// The factory of a Dropbox account: every adapter it makes is a RemoteFileSystemDropbox, and they
// share the account's store of interrupted upload sessions; its backup metainfo writers share the
// account's property template.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "core/RemoteFileSystemFactory.h"
#include "core/RemoteFileSystemSharedData.h"
#include "services/RemoteFileSystemDropbox.h"
#include "services/ResumableUpload.h"

class RemoteFileSystemDropboxSharedData : public RemoteFileSystemSharedData {
 public:
  RemoteFileSystemDropboxSharedData();

  std::shared_ptr<resumable_upload::ResumableSessions<RemoteFileSystemDropbox::UploadSession>>
      uploadSessions;

  // The id of the account's metainfo template, empty until a writer found or registered it.
  std::string MetainfoTemplateId();
  void SetMetainfoTemplateId(const std::string& id);

 private:
  std::mutex templateMutex_;
  std::string templateId_;
};

class RemoteFileSystemFactoryDropbox : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryDropbox(const std::string& remoteRootPath);
  RemoteFileSystem* Create() override;
  std::shared_ptr<BackupMetainfoRemoteWriter> CreateMetainfoWriter(
      std::shared_ptr<URLProcessorFactory> factory, const std::string& localPath,
      const std::string& remotePath) override;
  std::shared_ptr<BackupMetainfoRemoteReader> CreateMetainfoReader(
      std::shared_ptr<URLProcessorFactory> factory) override;
};

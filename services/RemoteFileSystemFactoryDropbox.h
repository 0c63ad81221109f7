// The factory of a Dropbox account: every adapter it makes is a RemoteFileSystemDropbox, and they
// share the account's store of interrupted upload sessions.
#pragma once

#include <memory>
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
};

class RemoteFileSystemFactoryDropbox : public RemoteFileSystemFactory {
 public:
  explicit RemoteFileSystemFactoryDropbox(const std::string& remoteRootPath);
  RemoteFileSystem* Create() override;
};

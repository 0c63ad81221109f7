// What every adapter, reader and writer of one Google account shares: the id tree, the registry
// of Google documents, the resource keys of link-shared items, the interrupted uploads and a
// string map of the account's state. Made once
// by the factory; each member guards itself.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "core/RemoteFileSystemSharedData.h"
#include "services/GoogleDocs.h"
#include "services/GoogleResourceKeys.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileSystemGoogle.h"
#include "services/ResumableUpload.h"

class RemoteFileSystemGoogleSharedData : public RemoteFileSystemSharedData {
 public:
  std::shared_ptr<RemoteFileIds> ids = std::make_shared<RemoteFileIds>();
  std::shared_ptr<GoogleDocs> docs = std::make_shared<GoogleDocs>();
  std::shared_ptr<GoogleResourceKeys> resource_keys = std::make_shared<GoogleResourceKeys>();
  std::shared_ptr<resumable_upload::ResumableSessions<RemoteFileSystemGoogle::CurrentUpload>>
      sessions = std::make_shared<
          resumable_upload::ResumableSessions<RemoteFileSystemGoogle::CurrentUpload>>();
  std::shared_ptr<std::unordered_map<std::string, std::string>> strings =
      std::make_shared<std::unordered_map<std::string, std::string>>();
};

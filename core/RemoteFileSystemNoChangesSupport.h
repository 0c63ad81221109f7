// The base of adapters of services without a change feed (WebDAV, Yandex, Box, Huawei): the core
// walks them again with GetFullTree or GetFolderListing instead.
#pragma once

#include "core/RemoteFileSystem.h"

class RemoteFileSystemNoChangesSupport : public RemoteFileSystem {
 public:
  RemoteFileSystemNoChangesSupport(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   const std::string& remote_root_path);

  bool SupportsChangesListening() override { return false; }
  bool SupportsSelfChangeFiltering() override { return false; }
  bool ShouldRenewTree() override { return false; }
  // There is no feed: NOT_SUPPORTED with nothing added.
  Result GetChanges(std::queue<Change>* changes) override;
  // False: there is no feed whose change could be applied.
  bool ApplyRemoteChange(const Change& change, FolderNode* root, std::uint64_t* free,
                         std::uint64_t* total) override;
};

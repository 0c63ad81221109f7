// The base of adapters of services with a change feed (Google, Dropbox, OneDrive).
//
// ShouldRenewTree follows tree_renewal_: the adapter calls tree_renewal_.OnFullTreeRequested()
// in GetFullTree and tree_renewal_.RequestRenewal() when the feed is lost.
#pragma once

#include "core/RemoteFileSystem.h"
#include "core/TreeRenewalRule.h"

class RemoteFileSystemChangesSupport : public RemoteFileSystem {
 public:
  RemoteFileSystemChangesSupport(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                 const std::string& remote_root_path);

  bool SupportsChangesListening() override { return true; }
  bool SupportsSelfChangeFiltering() override { return true; }
  bool ShouldRenewTree() override { return tree_renewal_.ShouldRenew(); }
  // A service with a feed is never walked folder by folder: NOT_SUPPORTED.
  Result GetFolderListing(const std::string& path, FolderListing* listing) override;

 protected:
  TreeRenewalRule tree_renewal_;
};

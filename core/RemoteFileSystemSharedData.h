// What all adapters, readers and writers of one account share: a service derives its record
// from this (id tree, upload sessions, ...). Made once by the factory, it lives until the last
// object of the account is gone.
#pragma once

class RemoteFileSystemSharedData {
 public:
  virtual ~RemoteFileSystemSharedData() = default;
};

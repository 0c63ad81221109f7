// Finds every backup of a Dropbox account: the property groups whose "app_name" is "corvane",
// one record per remote path.
//
//   auto reader = factory->CreateMetainfoReader(url_factory);
//   for (const BackupMetainfoRecord& record : reader->ReadAll()) { ... }
#pragma once

#include <memory>
#include <vector>

#include "core/BackupMetainfoRemoteReader.h"

class BackupMetainfoRemoteReaderDropbox : public BackupMetainfoRemoteReader {
 public:
  BackupMetainfoRemoteReaderDropbox(std::shared_ptr<RemoteFileSystemSharedData> sharedData,
                                    std::shared_ptr<URLProcessorFactory> urlFactory);

  std::vector<BackupMetainfoRecord> ReadAll() override;
};

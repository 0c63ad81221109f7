// BackupMetainfoRemoteReaderBox: finds the backups of a Box account. Each backup is a folder
// below the account's top folder for backups, described by the global "properties" metadata of
// that folder: "localpath", "cloudpath", "size", "lastupdatetime".
//
//   auto reader = factory->CreateMetainfoReader(url_factory);
//   for (const BackupMetainfoRecord& record : reader->ReadAll()) { ... }
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/BackupMetainfoRemoteReader.h"
#include "services/RemoteBoxUtils.h"

class BackupMetainfoRemoteReaderBox : public BackupMetainfoRemoteReader {
 public:
  BackupMetainfoRemoteReaderBox(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                std::shared_ptr<URLProcessorFactory> url_factory);

  std::vector<BackupMetainfoRecord> ReadAll() override;
  void Stop() override;
  void Start() override;

 private:
  // The id of the top folder for backups; empty when the account has none.
  std::string FindBackupRoot();
  // The record of one backup folder; false when it has no description.
  bool ReadRecord(const std::string& folder_id, BackupMetainfoRecord* record);

  std::string api_base_;
  std::atomic<bool> stop_{false};
  rest_api::RateLimitGate gate_;
};

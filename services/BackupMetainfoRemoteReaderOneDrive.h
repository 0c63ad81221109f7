// BackupMetainfoRemoteReaderOneDrive: finds the backups of a OneDrive account. A backup is a
// folder below the account's top folder for backups whose description holds the record the
// writer stores (OneDriveBackupDescription); a folder there without one is looked into once more,
// for backups kept a level deeper. Size and time are the folder's own unless the record says when
// it was last updated.
//
//   auto reader = factory->CreateMetainfoReader(url_factory);
//   for (const BackupMetainfoRecord& record : reader->ReadAll()) { ... }
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/Json.h"

class BackupMetainfoRemoteReaderOneDrive : public BackupMetainfoRemoteReader {
 public:
  BackupMetainfoRemoteReaderOneDrive(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                     std::shared_ptr<URLProcessorFactory> url_factory);

  std::vector<BackupMetainfoRecord> ReadAll() override;

 private:
  using Visitor = std::function<void(const utils::json::json_tree& item)>;
  using Records = std::map<std::string, BackupMetainfoRecord>;

  // Every page of a folder's children; false when a request failed or a stop came.
  bool ForEachChild(const std::string& path, const std::string& select, const Visitor& visit);
  // A record of the item at `cloud_path` when it describes a backup.
  static bool AddRecord(const utils::json::json_tree& item, const std::string& cloud_path,
                        Records* records);
};

// The backups of a Google Drive account: the folders below the backups' top folder whose
// "appProperties" describe a backup (BackupMetainfoRemoteWriterGoogle), one record per cloud path.
//
//   BackupMetainfoRemoteReaderGoogle reader(factory->GetSharedData(), http);
//   for (const BackupMetainfoRecord& backup : reader.ReadAll()) { ... }
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/FileSystem.h"
#include "core/Json.h"

class BackupMetainfoRemoteReaderGoogle : public BackupMetainfoRemoteReader {
 public:
  BackupMetainfoRemoteReaderGoogle(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory);
  ~BackupMetainfoRemoteReaderGoogle() override;

  std::vector<BackupMetainfoRecord> ReadAll() override;

 private:
  using Records = std::map<std::string, BackupMetainfoRecord>;

  // Every page of `query`, each file handed to `take` until it answers false.
  FileSystem::Result List(const std::string& query, const std::string& fields,
                          const std::function<bool(const utils::json::json_tree&)>& take);
  // False once stopped.
  bool AddRecord(const utils::json::json_tree& file, Records* records);
};

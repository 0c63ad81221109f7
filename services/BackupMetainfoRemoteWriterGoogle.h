// The description of one backup on Google Drive: the "appProperties" of the backup's folder,
// "cloud_path", "local_path" and "last_update_time" (the size is the folder's own). The folder is
// found in the account's id tree, which an adapter of the same factory loaded.
//
//   BackupMetainfoRemoteWriterGoogle writer(factory->GetSharedData(), http, "C:/Photos",
//                                           "Backups/Photos");
//   writer.Create();                 // once; a second identical Create only reads
//   writer.Update(size, time(nullptr));
#pragma once

#include <memory>
#include <string>

#include "core/BackupMetainfoRemoteWriter.h"
#include "core/Json.h"

class BackupMetainfoRemoteWriterGoogle : public BackupMetainfoRemoteWriter {
 public:
  BackupMetainfoRemoteWriterGoogle(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory,
                                   const std::string& local_path, const std::string& remote_path);
  ~BackupMetainfoRemoteWriterGoogle() override;

  FileSystem::Result Create() override;
  FileSystem::Result Update(std::uint64_t size, std::int64_t last_update_time) override;

 private:
  // The Drive id of the backup's folder, kept once found.
  FileSystem::Result FindRoot();
  // PATCH of the folder with `properties` merged into its "appProperties".
  FileSystem::Result SetProperties(const utils::json::json_tree& properties);

  std::string root_id_;
};

// The description of one backup on Dropbox: a property group of the account's "corvane_metadata"
// template on the backup's folder, with "local_path", "cloud_path", "last_update_time", "size" and
// "app_name". The template is found or registered once per account and kept in the shared data.
//
//   auto writer = factory->CreateMetainfoWriter(url_factory, "C:\\Docs", "Backups/PC 1");
//   writer->Create();                      // adds the group unless this pair stands already
//   writer->Update(bytes, last_run_time);  // replaces the size and the time only
#pragma once

#include <memory>
#include <string>

#include "core/BackupMetainfoRemoteWriter.h"
#include "core/Json.h"

class RemoteFileSystemDropboxSharedData;

class BackupMetainfoRemoteWriterDropbox : public BackupMetainfoRemoteWriter {
 public:
  BackupMetainfoRemoteWriterDropbox(std::shared_ptr<RemoteFileSystemSharedData> sharedData,
                                    std::shared_ptr<URLProcessorFactory> urlFactory,
                                    const std::string& localPath, const std::string& remotePath);

  FileSystem::Result Create() override;
  FileSystem::Result Update(std::uint64_t size, std::int64_t lastUpdateTime) override;

 private:
  // One file properties call, unless the writer is inert or stopped.
  FileSystem::Result Call(const std::string& name, const std::string& body,
                          utils::json::json_tree* json);
  // FAILED for an inert writer.
  FileSystem::Result FindTemplate(std::string* id);
  FileSystem::Result RegisterTemplate(std::string* id);
  // Whether a group describes this very pair of paths already.
  FileSystem::Result IsRegistered(bool* registered);
  // "/" and the remote path without its outer slashes: the backup's folder.
  std::string FolderPath() const;

  RemoteFileSystemDropboxSharedData* const account_;  // null for another service's record
};

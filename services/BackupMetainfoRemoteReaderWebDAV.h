// Finds the backups on a plain WebDAV server, which keeps no description of them: every folder in
// the backups' top folder is one, named by its path, its last update the folder's
// "getlastmodified". The local path is not known there.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/DispatcherUrl.h"

class BackupMetainfoRemoteReaderWebDAV : public BackupMetainfoRemoteReader {
 public:
  BackupMetainfoRemoteReaderWebDAV(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory);
  ~BackupMetainfoRemoteReaderWebDAV() override;

  std::vector<BackupMetainfoRecord> ReadAll() override;

 private:
  // The hrefs of the folders in the backups' top folder; false when it can't be listed.
  bool ListBackupFolders(const DispatcherUrl& base, std::vector<std::string>* hrefs);
  // The folder's record from a PROPFIND of its "getlastmodified"; false when it fails.
  bool ReadFolder(const DispatcherUrl& base, const std::string& href, BackupMetainfoRecord* record);

  // The path of the server's root in its URLs ("/dav"), which an href starts with.
  std::string rootPath_;
};

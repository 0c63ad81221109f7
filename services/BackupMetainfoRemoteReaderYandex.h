// Finds the backups of a Yandex Disk account: one PROPFIND of the backups' top folder asks each
// backup folder for the dead properties BackupMetainfoRemoteWriterYandex sets.
#pragma once

#include <memory>
#include <vector>

#include "core/BackupMetainfoRemoteReader.h"

class BackupMetainfoRemoteReaderYandex : public BackupMetainfoRemoteReader {
 public:
  BackupMetainfoRemoteReaderYandex(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory);
  ~BackupMetainfoRemoteReaderYandex() override;

  std::vector<BackupMetainfoRecord> ReadAll() override;
};

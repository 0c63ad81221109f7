// Finds the backups of a Yandex Disk account: one PROPFIND of the backups' top folder asks each
// backup folder for the dead properties BackupMetainfoRemoteWriterYandex sets, a second one for
// the folders' current names (a folder renamed on the disk keeps its properties).
#pragma once

#include <memory>
#include <vector>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/Xml.h"

class BackupMetainfoRemoteReaderYandex : public BackupMetainfoRemoteReader {
 public:
  BackupMetainfoRemoteReaderYandex(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory);
  ~BackupMetainfoRemoteReaderYandex() override;

  std::vector<BackupMetainfoRecord> ReadAll() override;

 private:
  // A Depth 1 PROPFIND of the backups' folder with `body`; false (logged with `what`) unless it
  // answered a multistatus.
  bool Propfind(const char* body, const char* what, utils::xml::xml_tree* tree);
};

// The description of one backup on Yandex Disk: dead properties of the backup's folder in the
// namespace "backups_metainfo" ("local_path", "cloud_path", "size", "last_update_time"), set by
// PROPPATCH on the disk's WebDAV host.
//
//   auto writer = factory->CreateMetainfoWriter(http, "C:/Users/me/Docs", "Backups/Docs");
//   writer->Create();                    // once; nothing is written when it stands already
//   writer->Update(size, time(nullptr));  // after each run
#pragma once

#include <memory>
#include <string>

#include "core/BackupMetainfoRemoteWriter.h"
#include "core/DispatcherUrl.h"

class BackupMetainfoRemoteWriterYandex : public BackupMetainfoRemoteWriter {
 public:
  static constexpr const char* kNamespace = "backups_metainfo";
  // The PROPFIND body that asks for the four properties.
  static const char* const kPropfindBody;

  BackupMetainfoRemoteWriterYandex(std::shared_ptr<RemoteFileSystemSharedData> shared_data,
                                   std::shared_ptr<URLProcessorFactory> url_factory,
                                   const std::string& local_path, const std::string& remote_path);
  ~BackupMetainfoRemoteWriterYandex() override;

  FileSystem::Result Create() override;
  FileSystem::Result Update(std::uint64_t size, std::int64_t last_update_time) override;

  // The WebDAV URL of a path of the disk: "Backups/Docs" is ".../disk/Backups/Docs".
  static DispatcherUrl DiskUrl(const std::string& path);

 private:
  // True when the folder's description names this backup's two paths already.
  bool DescriptionStands();
  // A PROPPATCH that sets `props` (XML of properties with the prefix "u").
  FileSystem::Result SetProperties(const std::string& props);
};

#include "services/BackupMetainfoRemoteReaderHuawei.h"

#include <cstdlib>

#include "core/Json.h"
#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystem.h"
#include "services/HuaweiRequester.h"
#include "services/RemoteHuaweiUtils.h"

BackupMetainfoRemoteReaderHuawei::BackupMetainfoRemoteReaderHuawei(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory)
    : BackupMetainfoRemoteReader(std::move(shared_data), std::move(url_factory)) {
  if (!IsInert()) {
    requester_ = std::make_unique<HuaweiRequester>(http_.get());
  }
}

BackupMetainfoRemoteReaderHuawei::~BackupMetainfoRemoteReaderHuawei() = default;

std::vector<BackupMetainfoRecord> BackupMetainfoRemoteReaderHuawei::ReadAll() {
  std::vector<BackupMetainfoRecord> records;
  if (IsInert() || CheckStopped()) {
    return records;
  }
  // 1. The backups' top folder.
  utils::json::json_tree root;
  std::string top;
  if (requester_->Get(HuaweiRequester::ApiUrl("/files/root"), &root) != FileSystem::SUCCEEDED ||
      CheckStopped() ||
      requester_->FindFolder(RemoteFileSystem::kRemoteBackupRootFolder, root.get("id", ""), &top) !=
          FileSystem::SUCCEEDED ||
      top.empty()) {
    return records;
  }
  // 2. Each folder below it that describes a backup.
  const std::string query = huawei::QuoteLiteral(top) + " in parentFolder and mimeType='" +
                            huawei::kFolderMime + "' and recycled=false";
  const FileSystem::Result listed =
      requester_->ListAll(query, "*", [&](const utils::json::json_tree& folder) {
        if (CheckStopped()) {
          return false;
        }
        BackupMetainfoRecord record;
        record.cloud_path = folder.get("properties.cloudPath", "");
        record.local_path = folder.get("properties.localPath", "");
        record.last_update_time =
            std::strtoll(folder.get("properties.lastUpdateTime", "0").c_str(), nullptr, 10);
        if (!record.cloud_path.empty()) {
          records.push_back(std::move(record));
        }
        return true;
      });
  // 3. A walk cut short still answers what it found.
  if (listed != FileSystem::SUCCEEDED && !CheckStopped()) {
    LOG_WARNING << "Backup descriptions read in part: " << listed;
  }
  return records;
}

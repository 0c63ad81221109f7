#include "services/BackupMetainfoRemoteReaderOneDrive.h"

#include "core/LoggerWrapper.h"
#include "core/PercentEncoding.h"
#include "core/RemoteFileSystem.h"
#include "core/TimeUtils.h"
#include "services/GraphMetainfoClient.h"
#include "services/OneDriveBackupDescription.h"

namespace {

std::string Text(const utils::json::json_tree& item, const std::string& path) {
  auto child = utils::json::Child(item, path);
  return child && child->empty() ? child->data() : std::string();
}

}  // namespace

BackupMetainfoRemoteReaderOneDrive::BackupMetainfoRemoteReaderOneDrive(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory)
    : BackupMetainfoRemoteReader(std::move(shared_data), std::move(url_factory)) {}

bool BackupMetainfoRemoteReaderOneDrive::ForEachChild(const std::string& path,
                                                      const std::string& select,
                                                      const Visitor& visit) {
  GraphMetainfoClient graph(http_.get());
  std::string next = path;
  std::string query = select;
  while (!next.empty()) {
    if (CheckStopped())
      return false;
    utils::json::json_tree page;
    if (graph.Get(next, query, &page) != FileSystem::SUCCEEDED)
      return false;
    if (auto value = utils::json::Member(page, "value")) {
      for (const auto& entry : *value)
        visit(entry.second);
    }
    // A next link carries the query it was asked with.
    auto link = utils::json::Member(page, "@odata.nextLink");
    const std::string following = link && link->empty() ? link->data() : std::string();
    next = following == next ? std::string() : following;
    query.clear();
  }
  return true;
}

bool BackupMetainfoRemoteReaderOneDrive::AddRecord(const utils::json::json_tree& item,
                                                   const std::string& cloud_path,
                                                   Records* records) {
  OneDriveBackupDescription description;
  if (!OneDriveBackupDescription::Parse(Text(item, "description"), &description))
    return false;
  BackupMetainfoRecord record;
  record.local_path = description.localPath;
  record.cloud_path = cloud_path;
  const std::string size = Text(item, "size");
  if (!size.empty() && size.find_first_not_of("0123456789") == std::string::npos &&
      size.size() < 20)
    record.size = std::stoull(size);
  std::int64_t modified = 0;
  if (utils::TryParseISODateTime(Text(item, "lastModifiedDateTime"), &modified))
    record.last_update_time = modified;
  if (description.lastUpdateTime != 0)
    record.last_update_time = description.lastUpdateTime;
  (*records)[cloud_path] = record;
  return true;
}

std::vector<BackupMetainfoRecord> BackupMetainfoRemoteReaderOneDrive::ReadAll() {
  std::vector<BackupMetainfoRecord> found;
  if (IsInert() || CheckStopped())
    return found;
  // 1. The folders below the top folder for backups, described or not.
  const std::string& top = RemoteFileSystem::kRemoteBackupRootFolder;
  Records records;
  std::vector<std::string> undescribed;
  const bool listed =
      ForEachChild("/me/drive/root:/" + utils::PercentEncoded(top, true) + ":/children",
                   "id,name,size,lastModifiedDateTime,folder,description",
                   [&](const utils::json::json_tree& item) {
                     const std::string name = Text(item, "name");
                     if (!utils::json::Member(item, "folder") || name.empty())
                       return;
                     if (!AddRecord(item, top + "/" + name, &records) && !Text(item, "id").empty())
                       undescribed.push_back(Text(item, "id"));
                   });
  if (!listed)
    LOG_WARNING << "No backups.";
  // 2. A level deeper in the folders that carry no description themselves.
  for (const std::string& id : undescribed) {
    if (!listed || CheckStopped())
      break;
    ForEachChild("/me/drive/items/" + utils::PercentEncoded(id, false) + "/children",
                 "name,size,lastModifiedDateTime,parentReference,folder,description",
                 [&](const utils::json::json_tree& item) {
                   const std::string parent = Text(item, "parentReference.path");
                   const std::size_t root = parent.find("/drive/root:/");
                   if (!utils::json::Member(item, "folder") || root == std::string::npos)
                     return;
                   AddRecord(item, parent.substr(root + 13) + "/" + Text(item, "name"), &records);
                 });
  }
  for (auto& entry : records)
    found.push_back(std::move(entry.second));
  return found;
}

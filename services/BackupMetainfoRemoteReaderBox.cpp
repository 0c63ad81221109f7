#include "services/BackupMetainfoRemoteReaderBox.h"

#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystem.h"
#include "core/StringUtils.h"

BackupMetainfoRemoteReaderBox::BackupMetainfoRemoteReaderBox(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory)
    : BackupMetainfoRemoteReader(std::move(shared_data), std::move(url_factory)),
      api_base_(Endpoints::Get(Endpoints::kBoxApi) + "/2.0/") {}

void BackupMetainfoRemoteReaderBox::Stop() {
  stop_.store(true);
  BackupMetainfoRemoteReader::Stop();
}

void BackupMetainfoRemoteReaderBox::Start() {
  stop_.store(false);
  BackupMetainfoRemoteReader::Start();
}

std::string BackupMetainfoRemoteReaderBox::FindBackupRoot() {
  const std::string wanted = ToLower(RemoteFileSystem::kRemoteBackupRootFolder);
  std::string found;
  rest_api::ForEachItemsPage(
      *http_, api_base_ + "folders/0/items?fields=id,name,type,parent&usemarker=true", &gate_,
      &stop_, [&](const rest_api::BoxItemsPage& page) {
        for (const rest_api::BoxItem& item : page.items) {
          if (item.folder && ToLower(item.name) == wanted)
            found = item.id;
        }
        return found.empty();
      });
  return found;
}

bool BackupMetainfoRemoteReaderBox::ReadRecord(const std::string& folder_id,
                                               BackupMetainfoRecord* record) {
  URLProcessor::Request request;
  request.url =
      DispatcherUrl::FromString(api_base_ + "folders/" + folder_id + "/metadata/global/properties");
  rest_api::BoxAnswer answer = rest_api::SendThroughGate(*http_, request, &gate_, &stop_);
  if (answer.code != 200 || !answer.json)
    return false;
  auto text = [&answer](const char* key) {
    auto child = answer.json->get_child_optional(key);
    return child && child->empty() ? child->data() : std::string();
  };
  record->local_path = text("localpath");
  record->cloud_path = text("cloudpath");
  std::uint64_t number = 0;
  record->size = rest_api::ParseBoxNumber(text("size"), &number) ? number : 0;
  record->last_update_time = rest_api::ParseBoxNumber(text("lastupdatetime"), &number)
                                 ? static_cast<std::int64_t>(number)
                                 : 0;
  if (record->cloud_path.empty()) {
    LOG_WARNING << "Backup description without cloud path in folder " << folder_id;
    return false;
  }
  return true;
}

std::vector<BackupMetainfoRecord> BackupMetainfoRemoteReaderBox::ReadAll() {
  // 1. The top folder for backups.
  std::vector<BackupMetainfoRecord> records;
  if (IsInert() || CheckStopped())
    return records;
  const std::string root = FindBackupRoot();
  if (root.empty()) {
    LOG_INFO << "No backups folder on the account.";
    return records;
  }
  // 2. One record per described folder below it.
  std::vector<std::string> folders;
  rest_api::ForEachItemsPage(
      *http_, api_base_ + "folders/" + root + "/items?fields=id,name,type,parent&usemarker=true",
      &gate_, &stop_, [&](const rest_api::BoxItemsPage& page) {
        for (const rest_api::BoxItem& item : page.items) {
          if (item.folder)
            folders.push_back(item.id);
        }
        return true;
      });
  for (const std::string& folder : folders) {
    if (CheckStopped())
      break;
    BackupMetainfoRecord record;
    if (ReadRecord(folder, &record))
      records.push_back(record);
  }
  return records;
}

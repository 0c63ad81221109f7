#include "services/BackupMetainfoRemoteReaderYandex.h"

#include <charconv>
#include <map>

#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystem.h"
#include "core/URLProcessor.h"
#include "services/BackupMetainfoRemoteWriterYandex.h"
#include "services/DavPropstat.h"

namespace {

// A number the property holds; a missing one is 0, one that is no number too (logged).
template <typename T>
T Number(const utils::xml::xml_tree& prop, const char* name) {
  const std::string text = prop.get(name, std::string());
  T value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (!text.empty() && (error != std::errc() || stop != end)) {
    LOG_WARNING << "Invalid " << name << " in backup metainfo: " << text;
    return 0;
  }
  return value;
}

constexpr char kNamesBody[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\" ?>  <propfind xmlns=\"DAV:\">   <prop>    "
    "<displayname/>    <file_url xmlns=\"urn:yandex:disk:meta\"/>  </prop></propfind>";

}  // namespace

BackupMetainfoRemoteReaderYandex::BackupMetainfoRemoteReaderYandex(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory)
    : BackupMetainfoRemoteReader(std::move(shared_data), std::move(url_factory)) {}

BackupMetainfoRemoteReaderYandex::~BackupMetainfoRemoteReaderYandex() = default;

std::vector<BackupMetainfoRecord> BackupMetainfoRemoteReaderYandex::ReadAll() {
  // 1. The backups' folder with the properties of each backup in it.
  if (IsInert() || CheckStopped()) {
    return {};
  }
  utils::xml::xml_tree described;
  if (!Propfind(BackupMetainfoRemoteWriterYandex::kPropfindBody, "Get backup metainfo",
                &described)) {
    return {};
  }

  // 2. One record per backup folder, from the properties found.
  std::map<std::string, BackupMetainfoRecord> by_href;
  dav_propstat::ForEachFoundProp(
      described, [&](const std::string& href, const utils::xml::xml_tree& prop) {
        const std::string cloudPath = prop.get("cloud_path", std::string());
        if (cloudPath.empty()) {
          return;
        }
        BackupMetainfoRecord& record = by_href[href];
        record.cloud_path = cloudPath;
        record.local_path = prop.get("local_path", record.local_path);
        record.size = Number<std::uint64_t>(prop, "size");
        record.last_update_time = Number<std::int64_t>(prop, "last_update_time");
      });

  // 3. The folders' names as they stand now: dead properties travel with a folder that was
  // renamed on the disk, so the path the writer stored may be an old one.
  utils::xml::xml_tree named;
  if (!by_href.empty() && !CheckStopped() && Propfind(kNamesBody, "Get metainfo", &named)) {
    dav_propstat::ForEachFoundProp(
        named, [&](const std::string& href, const utils::xml::xml_tree& prop) {
          auto record = by_href.find(href);
          const std::string name = prop.get("displayname", std::string());
          const std::string current = RemoteFileSystem::kRemoteBackupRootFolder + "/" + name;
          if (record == by_href.end() || name.empty() || record->second.cloud_path == current) {
            return;
          }
          LOG_INFO << "Backup folder moved since it was described: " << record->second.cloud_path
                   << " -> " << current;
          record->second.cloud_path = current;
        });
  }

  // 4. One record per cloud path.
  std::map<std::string, BackupMetainfoRecord> records;
  for (auto& [href, record] : by_href) {
    records[record.cloud_path] = std::move(record);
  }
  std::vector<BackupMetainfoRecord> found;
  for (auto& [path, record] : records) {
    found.push_back(std::move(record));
  }
  return found;
}

bool BackupMetainfoRemoteReaderYandex::Propfind(const char* body, const char* what,
                                                utils::xml::xml_tree* tree) {
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url =
      BackupMetainfoRemoteWriterYandex::DiskUrl(RemoteFileSystem::kRemoteBackupRootFolder + "/");
  request.headers = {"Depth: 1"};
  request.body = body;
  request.content_type = "application/xml";
  const URLProcessor::Result result = dav_propstat::Send(http_.get(), request, tree);
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Remote metainfo reader was stopped.";
    CheckStopped();
    return false;
  }
  if (result != URLProcessor::Result::MULTI_STATUS) {
    LOG_WARNING << what << " request error, code = " << http_->GetResponseCode();
    return false;
  }
  return true;
}

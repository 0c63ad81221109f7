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
  URLProcessor::Request request;
  request.verb = "PROPFIND";
  request.url =
      BackupMetainfoRemoteWriterYandex::DiskUrl(RemoteFileSystem::kRemoteBackupRootFolder + "/");
  request.headers = {"Depth: 1"};
  request.body = BackupMetainfoRemoteWriterYandex::kPropfindBody;
  request.content_type = "application/xml";
  utils::xml::xml_tree tree;
  const URLProcessor::Result result = dav_propstat::Send(http_.get(), request, &tree);
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Remote metainfo reader was stopped.";
    CheckStopped();
    return {};
  }
  if (result != URLProcessor::Result::MULTI_STATUS) {
    LOG_WARNING << "Get backup metainfo request error, code = " << http_->GetResponseCode();
    return {};
  }

  // 2. One record per cloud path, from the properties found.
  std::map<std::string, BackupMetainfoRecord> records;
  dav_propstat::ForEachFoundProp(tree, [&](const std::string&, const utils::xml::xml_tree& prop) {
    const std::string cloudPath = prop.get("cloud_path", std::string());
    if (cloudPath.empty()) {
      return;
    }
    BackupMetainfoRecord& record = records[cloudPath];
    record.cloud_path = cloudPath;
    record.local_path = prop.get("local_path", record.local_path);
    record.size = Number<std::uint64_t>(prop, "size");
    record.last_update_time = Number<std::int64_t>(prop, "last_update_time");
  });
  std::vector<BackupMetainfoRecord> found;
  for (auto& [path, record] : records) {
    found.push_back(std::move(record));
  }
  return found;
}

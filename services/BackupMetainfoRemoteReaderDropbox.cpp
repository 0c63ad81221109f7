#include "services/BackupMetainfoRemoteReaderDropbox.h"

#include <map>
#include <string>
#include <utility>

#include "core/LoggerWrapper.h"
#include "services/DropboxFileProperties.h"
#include "services/RemoteDropboxUtils.h"

namespace {

// A number field as text; 0, and a line, for text that isn't one.
std::uint64_t NumberField(const dropbox::PropertyGroup& group, const char* name) {
  const std::string text = group.Field(name);
  std::uint64_t value = 0;
  if (!text.empty() && !dropbox::ParseUint64(text, &value)) {
    LOG_WARNING << "Not a number in " << name << " of \"" << group.path << "\": " << text;
  }
  return value;
}

}  // namespace

BackupMetainfoRemoteReaderDropbox::BackupMetainfoRemoteReaderDropbox(
    std::shared_ptr<RemoteFileSystemSharedData> sharedData,
    std::shared_ptr<URLProcessorFactory> urlFactory)
    : BackupMetainfoRemoteReader(std::move(sharedData), std::move(urlFactory)) {}

std::vector<BackupMetainfoRecord> BackupMetainfoRemoteReaderDropbox::ReadAll() {
  // 1. Every group this library wrote; a stop or a failure keeps what was found.
  std::vector<BackupMetainfoRecord> records;
  if (IsInert()) {
    return records;
  }
  std::vector<dropbox::PropertyGroup> groups;
  const FileSystem::Result result = dropbox::SearchPropertyGroups(
      http_, dropbox::kAppNameField, dropbox::kAppName, [this] { return CheckStopped(); }, &groups);
  if (result != FileSystem::SUCCEEDED && result != FileSystem::STOPPED) {
    LOG_WARNING << "Can`t get backups.";
  }
  // 2. One record per remote path, the later group winning.
  std::map<std::string, BackupMetainfoRecord> byPath;
  for (const dropbox::PropertyGroup& group : groups) {
    BackupMetainfoRecord record;
    record.cloud_path = group.Field(dropbox::kCloudPathField);
    if (group.Field(dropbox::kAppNameField) != dropbox::kAppName || record.cloud_path.empty()) {
      continue;
    }
    record.local_path = group.Field(dropbox::kLocalPathField);
    record.size = NumberField(group, dropbox::kSizeField);
    record.last_update_time =
        static_cast<std::int64_t>(NumberField(group, dropbox::kLastUpdateTimeField));
    byPath[record.cloud_path] = std::move(record);
  }
  for (auto& entry : byPath) {
    records.push_back(std::move(entry.second));
  }
  return records;
}

#include "services/BackupMetainfoRemoteReaderGoogle.h"

#include <charconv>

#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystem.h"
#include "core/URLProcessor.h"
#include "services/RemoteGoogleUtils.h"

namespace {

constexpr const char* kBackupFields = "nextPageToken,files(appProperties,size)";

// A whole decimal number, else 0: a record written by hand or by another tool may hold anything.
template <typename Number>
Number NumberOr0(const std::string& text) {
  Number value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

}  // namespace

BackupMetainfoRemoteReaderGoogle::BackupMetainfoRemoteReaderGoogle(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory)
    : BackupMetainfoRemoteReader(std::move(shared_data), std::move(url_factory)) {}

BackupMetainfoRemoteReaderGoogle::~BackupMetainfoRemoteReaderGoogle() = default;

std::vector<BackupMetainfoRecord> BackupMetainfoRemoteReaderGoogle::ReadAll() {
  std::vector<BackupMetainfoRecord> found;
  if (IsInert() || CheckStopped()) {
    return found;
  }
  // 1. The backups' top folders (Drive allows more than one of a name).
  std::vector<std::string> tops;
  FileSystem::Result result =
      List("'root' in parents and name='" + RemoteFileSystem::kRemoteBackupRootFolder +
               "' and mimeType='" + google::kFolderMimeType + "' and trashed=false",
           "nextPageToken,files(id)", [&](const utils::json::json_tree& file) {
             tops.push_back(file.get("id", ""));
             return true;
           });
  // 2. The folders below them that carry a description.
  Records records;
  for (std::size_t i = 0; result == FileSystem::SUCCEEDED && i < tops.size(); ++i) {
    result = List("'" + tops[i] + "' in parents and mimeType='" + google::kFolderMimeType +
                      "' and trashed=false",
                  kBackupFields,
                  [&](const utils::json::json_tree& file) { return AddRecord(file, &records); });
  }
  if (result != FileSystem::SUCCEEDED && result != FileSystem::STOPPED) {
    LOG_ERROR << "Can`t get backup meta info.";
  }
  if (records.empty()) {
    LOG_INFO << "No backups.";
  }
  for (auto& [cloud_path, record] : records) {
    found.push_back(std::move(record));
  }
  return found;
}

FileSystem::Result BackupMetainfoRemoteReaderGoogle::List(
    const std::string& query, const std::string& fields,
    const std::function<bool(const utils::json::json_tree&)>& take) {
  std::string page_token;
  do {
    if (CheckStopped()) {
      return FileSystem::STOPPED;
    }
    google::QueryParams params{{"q", query}, {"prettyPrint", "false"}};
    if (!page_token.empty()) {
      params.emplace_back("pageToken", page_token);
    }
    utils::json::json_tree page;
    URLProcessorResult url_result;
    bool rate_limited = false;
    FileSystem::Result result = GoogleRequest(google::WithQuery("/files", params), fields,
                                              http_.get(), &page, &url_result, &rate_limited);
    if (result != FileSystem::SUCCEEDED) {
      return result;
    }
    auto files = page.get_child_optional("files");
    for (const auto& file : files ? *files : utils::json::json_tree()) {
      if (!take(file.second)) {
        return FileSystem::STOPPED;
      }
    }
    page_token = page.get("nextPageToken", "");
  } while (!page_token.empty());
  return FileSystem::SUCCEEDED;
}

bool BackupMetainfoRemoteReaderGoogle::AddRecord(const utils::json::json_tree& file,
                                                 Records* records) {
  if (CheckStopped()) {
    return false;
  }
  auto properties = file.get_child_optional("appProperties");
  std::string cloud_path = properties ? properties->get("cloud_path", "") : std::string();
  if (cloud_path.empty()) {
    return true;
  }
  // A later folder of the same cloud path updates what an earlier one gave.
  BackupMetainfoRecord& record = (*records)[cloud_path];
  record.cloud_path = cloud_path;
  if (auto local = properties->get_optional<std::string>("local_path")) {
    record.local_path = *local;
  }
  if (auto time = properties->get_optional<std::string>("last_update_time")) {
    record.last_update_time = NumberOr0<std::int64_t>(*time);
  }
  if (auto size = file.get_optional<std::string>("size")) {
    record.size = NumberOr0<std::uint64_t>(*size);
  }
  return true;
}

#include "services/BackupMetainfoRemoteWriterGoogle.h"

#include "core/DispatcherUrl.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/PathUtils.h"
#include "core/URLProcessor.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileSystemGoogleSharedData.h"
#include "services/RemoteGoogleUtils.h"

namespace {

constexpr std::uint32_t kAnswerBlockSize = 4096;

// The id tree's form of a path: no leading, trailing or doubled slashes.
std::string CanonicalPath(const std::string& path) {
  std::string canonical;
  for (const std::string& segment : utils::PathSegments(path)) {
    canonical += (canonical.empty() ? "" : "/") + segment;
  }
  return canonical;
}

}  // namespace

BackupMetainfoRemoteWriterGoogle::BackupMetainfoRemoteWriterGoogle(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory, const std::string& local_path,
    const std::string& remote_path)
    : BackupMetainfoRemoteWriter(std::move(shared_data), std::move(url_factory), local_path,
                                 remote_path) {}

BackupMetainfoRemoteWriterGoogle::~BackupMetainfoRemoteWriterGoogle() = default;

FileSystem::Result BackupMetainfoRemoteWriterGoogle::FindRoot() {
  if (!root_id_.empty()) {
    return FileSystem::SUCCEEDED;
  }
  auto* shared = dynamic_cast<RemoteFileSystemGoogleSharedData*>(shared_data_.get());
  if (!shared || !shared->ids || !shared->ids->IsInit()) {
    LOG_ERROR << "Shared items are not initialized.";
    return FileSystem::FAILED;
  }
  root_id_ = shared->ids->GetFolderIdByPath(CanonicalPath(remote_path_));
  if (root_id_.empty()) {
    LOG_ERROR << "No folder id for \"" << remote_path_ << "\".";
    return FileSystem::ITEM_MISSED;
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result BackupMetainfoRemoteWriterGoogle::Create() {
  // 1. The backup's folder.
  if (IsInert()) {
    return FileSystem::FAILED;
  }
  if (CheckStopped()) {
    return FileSystem::STOPPED;
  }
  FileSystem::Result result = FindRoot();
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  // 2. What it says already.
  utils::json::json_tree folder;
  URLProcessorResult url_result;
  bool rate_limited = false;
  result = GoogleRequest("/files/" + root_id_, "appProperties", http_.get(), &folder, &url_result,
                         &rate_limited);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  if (folder.get("appProperties.cloud_path", "") == remote_path_ &&
      folder.get("appProperties.local_path", "") == local_path_) {
    LOG_INFO << "Metadata already exists for root, local_path=\"" << local_path_
             << "\", remote_path=\"" << remote_path_ << "\".";
    return FileSystem::SUCCEEDED;
  }
  // 3. The description.
  utils::json::json_tree properties;
  properties.put("cloud_path", remote_path_);
  properties.put("local_path", local_path_);
  return SetProperties(properties);
}

FileSystem::Result BackupMetainfoRemoteWriterGoogle::Update(std::uint64_t,
                                                            std::int64_t last_update_time) {
  if (IsInert()) {
    return FileSystem::FAILED;
  }
  FileSystem::Result result = FindRoot();
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  utils::json::json_tree properties;
  properties.put("last_update_time", std::to_string(last_update_time));
  return SetProperties(properties);
}

FileSystem::Result BackupMetainfoRemoteWriterGoogle::SetProperties(
    const utils::json::json_tree& properties) {
  // 1. The request.
  if (CheckStopped()) {
    return FileSystem::STOPPED;
  }
  utils::json::json_tree body;
  body.add_child("appProperties", properties);
  URLProcessor::Request request;
  request.verb = "PATCH";
  request.url = DispatcherUrl::FromString(Endpoints::Get(Endpoints::kGoogleDrive) +
                                          google::kDriveApiBase + "/files/");
  request.url.Append(root_id_, DispatcherUrl::ValueEncodingMode::kSegment);
  request.body = utils::json::ToString(body, false);
  request.content_type = "application/json";
  // 2. The answer, read whole so that a failure can be told.
  std::string answer;
  if (http_->Send(request)) {
    http_->GetInputStream()->ReadAllTo(&answer, kAnswerBlockSize);
  }
  URLProcessorResult url_result = http_->Finish();
  FileSystem::Result result = MapGoogleFailure(http_.get(), url_result);
  if (result != FileSystem::SUCCEEDED) {
    LOG_ERROR << "Failed to set metainfo properties: " << answer;
  }
  return result;
}

#include "services/BackupMetainfoRemoteWriterHuawei.h"

#include "core/Json.h"
#include "core/LoggerWrapper.h"
#include "core/PathUtils.h"
#include "services/HuaweiRequester.h"

BackupMetainfoRemoteWriterHuawei::BackupMetainfoRemoteWriterHuawei(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory, const std::string& local_path,
    const std::string& remote_path)
    : BackupMetainfoRemoteWriter(std::move(shared_data), std::move(url_factory), local_path,
                                 remote_path) {
  if (!IsInert()) {
    requester_ = std::make_unique<HuaweiRequester>(http_.get());
  }
}

BackupMetainfoRemoteWriterHuawei::~BackupMetainfoRemoteWriterHuawei() = default;

FileSystem::Result BackupMetainfoRemoteWriterHuawei::FindBackupFolder(std::string* id) {
  if (IsInert()) {
    return FileSystem::FAILED;
  }
  if (CheckStopped()) {
    return FileSystem::STOPPED;
  }
  utils::json::json_tree root;
  FileSystem::Result result = requester_->Get(HuaweiRequester::ApiUrl("/files/root"), &root);
  *id = root.get("id", "");
  for (const std::string& name : utils::PathSegments(remote_path_)) {
    if (result != FileSystem::SUCCEEDED || CheckStopped()) {
      return result != FileSystem::SUCCEEDED ? result : FileSystem::STOPPED;
    }
    std::string child;
    result = requester_->FindFolder(name, *id, &child);
    if (result == FileSystem::SUCCEEDED && child.empty()) {
      LOG_WARNING << "No \"" << name << "\" dir in cloud.";
      return FileSystem::ITEM_MISSED;
    }
    *id = child;
  }
  return id->empty() ? FileSystem::FAILED : result;
}

FileSystem::Result BackupMetainfoRemoteWriterHuawei::SetProperties(
    const std::string& id, const utils::json::json_tree& properties) {
  if (CheckStopped()) {
    return FileSystem::STOPPED;
  }
  utils::json::json_tree body;
  body.add_child("properties", properties);
  DispatcherUrl url = HuaweiRequester::ApiUrl("/files/");
  url.Append(id, DispatcherUrl::ValueEncodingMode::kSegment);
  url.AppendParam("fields", "*", DispatcherUrl::ValueEncodingMode::kAsIs);
  utils::json::json_tree answer;
  return requester_->Send("PATCH", url, utils::json::ToString(body, false), &answer);
}

FileSystem::Result BackupMetainfoRemoteWriterHuawei::Create() {
  // 1. The backup's folder and what it says already.
  std::string id;
  FileSystem::Result result = FindBackupFolder(&id);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  DispatcherUrl url = HuaweiRequester::ApiUrl("/files/");
  url.Append(id, DispatcherUrl::ValueEncodingMode::kSegment);
  url.AppendParam("fields", "*", DispatcherUrl::ValueEncodingMode::kAsIs);
  utils::json::json_tree folder;
  result = requester_->Get(url, &folder);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  if (folder.get("properties.localPath", "") == local_path_ &&
      folder.get("properties.cloudPath", "") == remote_path_) {
    LOG_INFO << "Metainfo already exists for \"" << remote_path_ << "\".";
    return FileSystem::SUCCEEDED;
  }
  // 2. The description.
  utils::json::json_tree properties;
  properties.put("localPath", local_path_);
  properties.put("cloudPath", remote_path_);
  properties.put("lastUpdateTime", "0");
  return SetProperties(id, properties);
}

FileSystem::Result BackupMetainfoRemoteWriterHuawei::Update(std::uint64_t,
                                                            std::int64_t last_update_time) {
  std::string id;
  FileSystem::Result result = FindBackupFolder(&id);
  if (result != FileSystem::SUCCEEDED) {
    return result;
  }
  utils::json::json_tree properties;
  properties.put("lastUpdateTime", std::to_string(last_update_time));
  return SetProperties(id, properties);
}

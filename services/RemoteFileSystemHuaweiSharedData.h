// What every adapter, reader and writer of one Huawei Drive account shares: the interrupted
// uploads, the id tree, and the files uploaded by path, which a new version consults when the
// tree doesn't know the file yet.
#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

#include "core/RemoteFileSystemSharedData.h"
#include "services/HuaweiUpload.h"
#include "services/RemoteFileIds.h"
#include "services/ResumableUpload.h"

class RemoteFileSystemHuaweiSharedData : public RemoteFileSystemSharedData {
 public:
  resumable_upload::ResumableSessions<HuaweiUploadSession> sessions;
  RemoteFileIds ids;
  std::mutex uploaded_mutex;
  std::unordered_map<std::string, std::string> uploaded_ids;  // remote path -> file id

  void RememberUpload(const std::string& path, const std::string& id) {
    std::lock_guard<std::mutex> lock(uploaded_mutex);
    uploaded_ids[path] = id;
  }
  std::string UploadedId(const std::string& path) {
    std::lock_guard<std::mutex> lock(uploaded_mutex);
    auto found = uploaded_ids.find(path);
    return found == uploaded_ids.end() ? std::string() : found->second;
  }
};

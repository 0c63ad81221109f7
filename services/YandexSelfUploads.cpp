#include "services/YandexSelfUploads.h"

#include <algorithm>

void YandexSelfUploads::Add(const std::string& path, const SelfUploadedFile& file) {
  std::lock_guard<std::mutex> lock(mutex_);
  files_[path].push_back(file);
}

bool YandexSelfUploads::Take(const FileSystem::Change& change) {
  if (change.type != FileSystem::Change::FILE_CREATE &&
      change.type != FileSystem::Change::FILE_MODIFY) {
    return false;
  }
  const HashYandex hash = change.hash.GetHashYandex();
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = files_.find(change.path);
  if (found == files_.end()) {
    return false;
  }
  std::vector<SelfUploadedFile>& list = *found;
  auto match = std::find_if(list.begin(), list.end(), [&](const SelfUploadedFile& file) {
    return file.hash == hash && file.size == change.size;
  });
  if (match == list.end()) {
    return false;
  }
  list.erase(match);
  if (list.empty()) {
    files_.erase(change.path);
  }
  return true;
}

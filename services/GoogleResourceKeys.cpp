#include "services/GoogleResourceKeys.h"

#include "core/RadarsLogger.h"

void GoogleResourceKeys::Record(const std::string& id, const std::string& key) {
  if (key.empty()) {
    return;
  }
  RadarsLogger::instance().SendMetric("ggl_has_resource_key", "1", 1);
  QWriteLocker locker(&lock_);
  keys_[id] = key;
}

std::string GoogleResourceKeys::BuildHeader(const std::vector<std::string>& ids) const {
  std::string list;
  {
    QReadLocker locker(&lock_);
    for (const std::string& id : ids) {
      auto found = keys_.find(id);
      if (found == keys_.end()) {
        continue;
      }
      list += (list.empty() ? "" : ",") + id + "/" + found->second;
    }
  }
  return list.empty() ? std::string() : std::string(kHeaderName) + ": " + list;
}

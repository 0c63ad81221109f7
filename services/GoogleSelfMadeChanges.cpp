#include "services/GoogleSelfMadeChanges.h"

std::size_t google::ExpectedRemoteChangeUpload::Hash::operator()(
    const google::ExpectedRemoteChangeUpload& record) const {
  return std::hash<std::string>()(record.id) ^
         (std::hash<std::int64_t>()(record.version) * 1099511628211ull);
}

bool google::ExpectedRemoteChangeUpload::Equal::operator()(
    const google::ExpectedRemoteChangeUpload& a,
    const google::ExpectedRemoteChangeUpload& b) const {
  return a.id == b.id && a.version == b.version;
}

void GoogleSelfMadeChanges::ExpectUpload(google::ExpectedRemoteChangeUpload record) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.expected_uploads.insert(std::move(record));
}

bool GoogleSelfMadeChanges::TakeUpload(const google::ExpectedRemoteChangeUpload& record) {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_.expected_uploads.erase(record) > 0;
}

void GoogleSelfMadeChanges::ExpectTrashing(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.expected_trashings.insert(id);
}

bool GoogleSelfMadeChanges::TakeTrashing(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_.expected_trashings.erase(id) > 0;
}

void GoogleSelfMadeChanges::ExpectFolder(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.expected_folders.insert(id);
}

bool GoogleSelfMadeChanges::TakeFolder(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_.expected_folders.erase(id) > 0;
}

void GoogleSelfMadeChanges::BeginFolderCreation(const std::string& parent_id,
                                                const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.folders_in_flight[{parent_id, name}].clear();
}

void GoogleSelfMadeChanges::EndFolderCreation(const std::string& parent_id, const std::string& name,
                                              const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = records_.folders_in_flight.find({parent_id, name});
  bool claimed = found != records_.folders_in_flight.end() && !id.empty() && found->second == id;
  if (found != records_.folders_in_flight.end()) {
    records_.folders_in_flight.erase(found);
  }
  if (!id.empty() && !claimed) {
    records_.expected_folders.insert(id);
  }
}

bool GoogleSelfMadeChanges::ClaimFolderInFlight(const std::string& parent_id,
                                                const std::string& name, const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = records_.folders_in_flight.find({parent_id, name});
  if (found == records_.folders_in_flight.end() || !found->second.empty()) {
    return false;
  }
  found->second = id;
  return true;
}

void GoogleSelfMadeChanges::Locked(const std::function<void(Records&)>& work) {
  std::lock_guard<std::mutex> lock(mutex_);
  work(records_);
}

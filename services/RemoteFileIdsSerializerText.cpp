#include "services/RemoteFileIdsSerializerText.h"

#include "core/LoggerWrapper.h"
#include "services/RemoteFileIds.h"

bool RemoteFileIdsSerializerText::Serialize(RemoteFileIds* ids, const std::atomic<bool>* stop,
                                            std::ostream& out) {
  const bool complete = CollectRecords(ids, stop, [&out](const Record& record) {
    out << record.path << '\n'
        << record.id << '\n'
        << (record.folder ? '1' : '0') << '\n'
        << (record.trashed ? '1' : '0') << '\n'
        << record.original_name << '\n'
        << record.mapped_name << '\n';
  });
  return complete && !out.fail();
}

bool RemoteFileIdsSerializerText::Deserialize(const std::atomic<bool>* stop, RemoteFileIds* ids,
                                              std::stringstream& in) {
  Record record;
  std::string folder;
  std::string trashed;
  while (std::getline(in, record.path)) {
    // 1. The end of the id records leaves the stream to the section behind it.
    if (record.path == kEndOfIdsMarker) {
      return true;
    }
    // 2. A record cut by the end of the stream is dropped; what came before stands.
    if (!std::getline(in, record.id) || !std::getline(in, folder) || !std::getline(in, trashed) ||
        !std::getline(in, record.original_name) || !std::getline(in, record.mapped_name)) {
      return true;
    }
    if (IsStopped(stop)) {
      LOG_ERROR << "Tree ids is deserializing too long, break.";
      return false;
    }
    if (record.path == kRootPath) {
      ids->Init(record.id);
      continue;
    }
    if (record.id.empty()) {
      LOG_ERROR << "Empty path";
      return true;
    }
    record.folder = folder == "1";
    record.trashed = trashed == "1";
    if (!InsertRecord(ids, record)) {
      return false;
    }
  }
  return true;
}

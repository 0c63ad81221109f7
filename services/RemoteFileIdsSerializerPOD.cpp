#include "services/RemoteFileIdsSerializerPOD.h"

#include <algorithm>
#include <vector>

#include "core/LoggerWrapper.h"
#include "services/RemoteFileIds.h"

namespace serialized_tree_helper {

std::optional<std::string> GetPODSerializationErrorText(pods::Error error) {
  const char* text = pods::ErrorText(error);
  return text ? std::optional<std::string>(text) : std::nullopt;
}

}  // namespace serialized_tree_helper

namespace {

// A count read from a damaged stream must not reserve gigabytes before the records prove it.
constexpr std::uint32_t kMaxReservedRecords = 1 << 16;

}  // namespace

bool RemoteFileIdsSerializerPOD::Serialize(RemoteFileIds* ids, const std::atomic<bool>* stop,
                                           std::ostream& out) {
  std::vector<Record> records;
  if (!CollectRecords(ids, stop, [&records](const Record& record) { records.push_back(record); })) {
    return false;
  }
  const pods::Error error = Write(records, out);
  if (error != pods::Error::kNoError) {
    LOG_FATAL << "Serialization error: "
              << serialized_tree_helper::GetPODSerializationErrorText(error).value_or("no error");
    return false;
  }
  return true;
}

bool RemoteFileIdsSerializerPOD::Deserialize(const std::atomic<bool>* stop, RemoteFileIds* ids,
                                             std::stringstream& in) {
  // 1. Everything is read before the tree is touched.
  std::vector<Record> records;
  const pods::Error error = Read(in, &records);
  if (error != pods::Error::kNoError) {
    LOG_FATAL << "Deserialization error: "
              << serialized_tree_helper::GetPODSerializationErrorText(error).value_or("no error");
    return false;
  }
  // 2. A record that can't be added is skipped; the rest still make a usable tree.
  for (const Record& record : records) {
    if (IsStopped(stop)) {
      LOG_ERROR << "Time over.";
      return false;
    }
    if (record.path == kRootPath) {
      ids->Init(record.id);
    } else if (record.id.empty()) {
      LOG_ERROR << "Empty path";
      return true;
    } else {
      InsertRecord(ids, record);
    }
  }
  return true;
}

pods::Error RemoteFileIdsSerializerPOD::Write(const std::vector<Record>& records,
                                              std::ostream& out) {
  pods::BufferedWriter writer(out);
  writer.PutUint32(kFormatVersion);
  writer.PutUint32(kRecordListVersion);
  writer.PutUint32(static_cast<std::uint32_t>(records.size()));
  for (const Record& record : records) {
    writer.PutByte(record.folder ? 1 : 0);
    writer.PutByte(record.trashed ? 1 : 0);
    writer.PutString(record.path);
    writer.PutString(record.id);
    writer.PutString(record.original_name);
    writer.PutString(record.mapped_name);
  }
  return writer.Flush();
}

pods::Error RemoteFileIdsSerializerPOD::Read(std::istream& in, std::vector<Record>* records) {
  pods::BufferedReader reader(in);
  std::uint32_t format_version = 0;
  std::uint32_t list_version = 0;
  std::uint32_t count = 0;
  reader.GetUint32(&format_version);
  if (reader.GetUint32(&list_version) != pods::Error::kNoError) {
    return pods::Error::kUnexpectedEnd;
  }
  if (format_version > kFormatVersion || list_version > kRecordListVersion) {
    return pods::Error::kVersionMismatch;
  }
  if (reader.GetUint32(&count) != pods::Error::kNoError) {
    return pods::Error::kUnexpectedEnd;
  }
  records->reserve(std::min(count, kMaxReservedRecords));
  for (std::uint32_t i = 0; i < count; ++i) {
    Record record;
    std::uint8_t folder = 0;
    std::uint8_t trashed = 0;
    reader.GetByte(&folder);
    reader.GetByte(&trashed);
    reader.GetString(&record.path);
    reader.GetString(&record.id);
    reader.GetString(&record.original_name);
    const pods::Error error = reader.GetString(&record.mapped_name);
    if (error != pods::Error::kNoError) {
      return error;
    }
    record.folder = folder != 0;
    record.trashed = trashed != 0;
    records->push_back(std::move(record));
  }
  return pods::Error::kNoError;
}

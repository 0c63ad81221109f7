#include "services/RemoteFileIdsSerializer.h"

#include "core/LoggerWrapper.h"
#include "core/PathUtils.h"
#include "services/RemoteFileIds.h"

bool RemoteFileIdsSerializer::CollectRecords(RemoteFileIds* ids, const std::atomic<bool>* stop,
                                             const std::function<void(const Record&)>& sink) {
  const std::string root_id = ids->GetRootId();
  if (root_id.empty() && !ids->IsInit()) {
    return !IsStopped(stop);
  }
  bool failed = false;
  Record record;
  ids->VisitSubtree(root_id, [&](const std::string& id) {
    if (failed || IsStopped(stop)) {
      failed = true;
      return;
    }
    std::optional<std::string> path = ids->GetPathById(id);
    record.path = path && !path->empty() ? std::move(*path) : kRootPath;
    record.id = id;
    record.folder = ids->HasFolder(id);
    record.trashed = ids->IsTrashed(id);
    const bool mapped = ids->HasMappedName(id);
    record.original_name = mapped ? ids->MappedGetOriginalName(id) : std::string();
    record.mapped_name = mapped ? ids->MappedGetMappedName(id) : std::string();
    sink(record);
  });
  return !failed;
}

bool RemoteFileIdsSerializer::InsertRecord(RemoteFileIds* ids, const Record& record) {
  // 1. Parent and name from the path.
  std::string parent_path;
  std::string name;
  utils::SplitPath(record.path, &parent_path, &name);
  const std::string parent_id = ids->GetFolderIdByPath(parent_path);
  // 2. The item itself.
  const bool added = record.folder ? ids->AddFolderId(record.id, name, parent_id, false)
                                   : ids->AddFileId(record.id, name, parent_id, false);
  if (!added) {
    LOG_FATAL << (record.folder ? "Folder \"" : "File \"") << record.path << "\" not inserted.";
    return false;
  }
  // 3. Only a file keeps its trash flag over a restart; a folder always comes back untrashed.
  if (record.trashed && !record.folder) {
    ids->AddTrashed(record.id);
  }
  if (!record.original_name.empty() && !record.mapped_name.empty()) {
    ids->AddMappingInfo(record.id, record.original_name, record.mapped_name);
  }
  return true;
}

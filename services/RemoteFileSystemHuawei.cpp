#include "services/RemoteFileSystemHuawei.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

#include "core/Json.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PathUtils.h"
#include "core/RadarsLogger.h"
#include "core/StringUtils.h"
#include "services/RemoteFileSystemHuaweiSharedData.h"

namespace {

constexpr int kRequestTimeoutSec = 60;
constexpr char kListingFields[] =
    "files(fileName,size,mimeType,editedTime,sha256,recycled,contentVersion,parentFolder,id)";

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

std::pair<std::string, std::string> SplitParent(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {std::string(), path};
  }
  return {path.substr(0, slash), path.substr(slash + 1)};
}

bool CheckPath(const std::string& path) {
  if (FileSystem::IsRelativeCanonicalPath(path)) {
    return true;
  }
  LOG_ERROR << "Invalid path.";
  return false;
}

std::string JsonBody(const utils::json::json_tree& body) {
  return utils::json::ToString(body, false);
}

// Places the listed folders and files under the mounted root whatever order the listing had:
// a folder moved under a newer one comes before its parent.
class TreeAssembler {
 public:
  TreeAssembler(std::string mounted_id, std::string mounted_path, RemoteFileIds* ids,
                FolderNode* root)
      : mounted_id_(std::move(mounted_id)),
        mounted_path_(std::move(mounted_path)),
        ids_(ids),
        root_(root) {
    nodes_[mounted_id_] = root_;
  }

  void AddFolders(std::vector<huawei::Item> folders) {
    // 1. Each folder's depth below the mounted root, or none.
    for (const huawei::Item& folder : folders) {
      folders_[folder.id] = folder;
    }
    std::vector<std::pair<int, const huawei::Item*>> placed;
    for (const auto& entry : folders_) {
      int depth = DepthOf(entry.first);
      if (depth > 0) {
        placed.emplace_back(depth, &entry.second);
      } else if (entry.first != mounted_id_) {
        LOG_INFO << entry.second.name << " not in root dir " << Quoted(mounted_path_)
                 << ", skipped.";
      }
    }
    // 2. Parents first.
    std::stable_sort(placed.begin(), placed.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [depth, folder] : placed) {
      FolderNode* parent = nodes_[folder->parent_id];
      FolderNode* node = parent ? parent->CreateFolder(folder->name, folder->time) : nullptr;
      if (!node || !ids_->AddFolderId(folder->id, folder->name, folder->parent_id)) {
        LOG_WARNING << "Failed to add folder " << Quoted(folder->name) << " in id tree.";
        continue;
      }
      nodes_[folder->id] = node;
    }
  }

  void AddFile(const huawei::Item& file) {
    auto parent = nodes_.find(file.parent_id);
    if (parent == nodes_.end() || !parent->second) {
      LOG_INFO << file.name << " not in root dir " << Quoted(mounted_path_) << ", skipped.";
      return;
    }
    if (!parent->second->CreateFileW(file.name, file.size, SomeHash(file.content_version),
                                     file.time) ||
        !ids_->AddFileId(file.id, file.name, file.parent_id)) {
      LOG_WARNING << "Failed to add file " << Quoted(file.name) << " in id tree.";
    }
  }

 private:
  // 0: not below the mounted root (or in a loop).
  int DepthOf(const std::string& id) {
    auto known = depth_.find(id);
    if (known != depth_.end()) {
      return known->second;
    }
    depth_[id] = 0;  // a loop ends here
    auto folder = folders_.find(id);
    int depth = 0;
    if (folder != folders_.end()) {
      if (folder->second.parent_id == mounted_id_) {
        depth = 1;
      } else {
        int parent = DepthOf(folder->second.parent_id);
        depth = parent > 0 ? parent + 1 : 0;
      }
    }
    depth_[id] = depth;
    return depth;
  }

  const std::string mounted_id_;
  const std::string mounted_path_;
  RemoteFileIds* ids_;
  FolderNode* root_;
  std::map<std::string, huawei::Item> folders_;
  std::unordered_map<std::string, int> depth_;
  std::unordered_map<std::string, FolderNode*> nodes_;
};

}  // namespace

RemoteFileSystemHuawei::RemoteFileSystemHuawei(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data, const std::string& remote_root_path)
    : RemoteFileSystemNoChangesSupport(std::move(shared_data), remote_root_path) {}

RemoteFileSystemHuawei::~RemoteFileSystemHuawei() = default;

RemoteFileSystemHuaweiSharedData& RemoteFileSystemHuawei::Shared() const {
  return *SharedDataAs<RemoteFileSystemHuaweiSharedData>();
}

void RemoteFileSystemHuawei::ForEachProcessor(void (Stoppable::*call)()) {
  std::lock_guard<std::mutex> lock(processors_mutex_);
  for (const auto& http : {items_http_, content_http_, feed_http_}) {
    if (http) {
      (static_cast<Stoppable*>(http.get())->*call)();
    }
  }
}

void RemoteFileSystemHuawei::Start() {
  ForEachProcessor(&Stoppable::Start);
  RemoteFileSystem::Start();
}

void RemoteFileSystemHuawei::Stop() {
  ForEachProcessor(&Stoppable::Stop);
  RemoteFileSystem::Stop();
}

bool RemoteFileSystemHuawei::Open(const std::shared_ptr<URLProcessorFactory>& factory) {
  // 1. One client for items, one for content, one for the feed.
  factory_ = factory;
  std::shared_ptr<URLProcessor> made[3];
  for (auto& http : made) {
    http = factory ? factory->Create() : nullptr;
    if (!http || !http->Open(nullptr)) {
      LOG_ERROR << "Failed to open http client.";
      return false;
    }
    http->SetTimeoutSec(kRequestTimeoutSec);
  }
  {
    std::lock_guard<std::mutex> lock(processors_mutex_);
    items_http_ = made[0];
    content_http_ = made[1];
    feed_http_ = made[2];
  }
  items_ = std::make_unique<HuaweiRequester>(items_http_.get());
  feed_ = std::make_unique<HuaweiRequester>(feed_http_.get());
  // 2. The remote root is looked up on first need, not here.
  mounted_id_.clear();
  mode_ = kIdle;
  return true;
}

FileSystem::Result RemoteFileSystemHuawei::Close() {
  if (mode_ == kSessionWriting) {
    KeepSessionForLater();
  }
  upload_.reset();
  for (const auto& http : {items_http_, content_http_, feed_http_}) {
    if (http) {
      http->Close();
    }
  }
  mode_ = kClosed;
  return SUCCEEDED;
}

std::string RemoteFileSystemHuawei::RemotePathOf(const std::string& path) const {
  std::string remote;
  bool changed = false;
  MapPathToRemote(path, &remote, &changed);
  return changed ? remote : path;
}

FileSystem::Result RemoteFileSystemHuawei::GetFromApi(const char* path, const char* failure,
                                                      utils::json::json_tree* json) {
  if (!items_) {
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  Result result = items_->Get(HuaweiRequester::ApiUrl(path), json);
  if (result != SUCCEEDED) {
    LOG_WARNING << failure;
  }
  return result;
}

FileSystem::Result RemoteFileSystemHuawei::ResolveMountedRoot() {
  if (!mounted_id_.empty()) {
    return SUCCEEDED;
  }
  // 1. The drive's root.
  utils::json::json_tree root;
  Result result = GetFromApi("/files/root", "Failed get root id.", &root);
  if (result != SUCCEEDED) {
    return result;
  }
  drive_root_id_ = root.get("id", "");
  if (drive_root_id_.empty()) {
    LOG_ERROR << "Empty root id.";
    return FAILED;
  }
  // 2. Each component of the remote root, recycled twins ignored.
  std::string id = drive_root_id_;
  for (const std::string& name : utils::PathSegments(RemotePathOf(GetRemoteRootPath()))) {
    std::string child;
    result = items_->FindFolder(name, id, &child);
    if (result != SUCCEEDED) {
      return result;
    }
    if (child.empty()) {
      LOG_ERROR << "No " << Quoted(name) << " dir in cloud.";
      return ITEM_MISSED;
    }
    id = child;
  }
  mounted_id_ = id;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::GetCloudSize(std::uint64_t* total, std::uint64_t* used) {
  utils::json::json_tree about;
  if (Result result = GetFromApi("/about?fields=*", "Failed get cloud sizes.", &about);
      result != SUCCEEDED) {
    return result;
  }
  *total = std::strtoull(about.get("storageQuota.userCapacity", "0").c_str(), nullptr, 10);
  *used = std::strtoull(about.get("storageQuota.usedSpace", "0").c_str(), nullptr, 10);
  const std::uint64_t limit =
      std::strtoull(about.get("maxFileUploadSize", "0").c_str(), nullptr, 10);
  max_file_size_ = limit == 0 ? UINT64_MAX : limit;
  snapshot_progress_.expected_bytes = *used;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::UpdateMaxFileSize() {
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  return GetCloudSize(&total, &used);
}

bool RemoteFileSystemHuawei::ReadListedItem(const utils::json::json_tree& json,
                                            huawei::Item* item) {
  std::string error;
  if (!huawei::ParseItem(json, item, &error)) {
    LOG_ERROR << error;
    return false;
  }
  UnmapNameToLocal(&item->name);
  return true;
}

FileSystem::Result RemoteFileSystemHuawei::GetFullTree(FolderNode* root, std::uint64_t* free,
                                                       std::uint64_t* total,
                                                       tsl::htrie_set<char>*) {
  // 1. Quota and roots.
  std::uint64_t used = 0;
  Result result = GetCloudSize(total, &used);
  if (result != SUCCEEDED) {
    return result;
  }
  *free = *total > used ? *total - used : 0;
  mounted_id_.clear();
  result = ResolveMountedRoot();
  if (result != SUCCEEDED) {
    return result;
  }
  // 2. All folders, then all files.
  std::vector<huawei::Item> folders;
  std::vector<huawei::Item> files;
  for (auto [query, list] : {std::make_pair(huawei::kFolderQuery, &folders),
                             std::make_pair(huawei::kFileQuery, &files)}) {
    result = items_->ListAll(
        query, "*",
        [this, list = list](const utils::json::json_tree& json) {
          huawei::Item item;
          if (!ReadListedItem(json, &item)) {
            return false;
          }
          snapshot_progress_.AddSeenBytes(item.size);
          list->push_back(std::move(item));
          return true;
        },
        true);
    if (result != SUCCEEDED) {
      LOG_WARNING << "Failed get tree.";
      return result;
    }
  }
  // 3. Where the feed starts.
  utils::json::json_tree start;
  result = feed_->Get(HuaweiRequester::ApiUrl("/changes/getStartCursor?fields=*"), &start);
  const std::string cursor = start.get("startCursor", "");
  if (result != SUCCEEDED || cursor.empty()) {
    LOG_WARNING << "Failed get cursor to get changes.";
    return result == SUCCEEDED ? FAILED : result;
  }
  // 4. The tree and the id tree, swapped in whole.
  root->Clear();
  RemoteFileIds ids;
  ids.Init(mounted_id_);
  TreeAssembler assembler(mounted_id_, GetRemoteRootPath(), &ids, root);
  assembler.AddFolders(std::move(folders));
  for (const huawei::Item& file : files) {
    assembler.AddFile(file);
  }
  Shared().ids.Swap(ids);
  cursor_ = cursor;
  return SUCCEEDED;
}

bool RemoteFileSystemHuawei::PrepareRemoteChange(Change*) {
  return true;
}

FileSystem::Result RemoteFileSystemHuawei::GetChanges(std::queue<Change>* changes) {
  if (cursor_.empty()) {
    LOG_WARNING << "Failed get cursor to get changes.";
    return FAILED;
  }
  std::string next;
  Result result = ReadChangePage(changes, &next);
  if (result == SUCCEEDED) {
    cursor_ = next;
  }
  return result;
}

FileSystem::Result RemoteFileSystemHuawei::ReadChangePage(std::queue<Change>* changes,
                                                          std::string* next_cursor) {
  // 1. The page of the stored cursor.
  DispatcherUrl url = HuaweiRequester::ApiUrl("/changes");
  url.AppendParam("cursor", cursor_, DispatcherUrl::ValueEncodingMode::kQueryValue);
  url.AppendParam("fields", "*", DispatcherUrl::ValueEncodingMode::kAsIs);
  utils::json::json_tree page;
  Result result = feed_->Get(url, &page);
  if (result != SUCCEEDED) {
    return result;
  }
  // 2. Where the next call goes on; a page without a cursor is not taken.
  *next_cursor = page.get("nextCursor", "");
  if (next_cursor->empty()) {
    *next_cursor = page.get("newStartCursor", "");
  }
  if (next_cursor->empty()) {
    LOG_ERROR << "Change page without \"nextCursor\" and \"newStartCursor\".";
    return FAILED;
  }
  // 3. Each change, in order.
  if (auto list = utils::json::Child(page, "changes")) {
    for (const auto& change : *list) {
      ApplyChangedItem(change.second, changes);
    }
  }
  return SUCCEEDED;
}

void RemoteFileSystemHuawei::ApplyChangedItem(const utils::json::json_tree& change,
                                              std::queue<Change>* changes) {
  RemoteFileIds& ids = Shared().ids;
  const std::string id = change.get("fileId", change.get("file.id", ""));
  const bool known_folder = ids.HasFolder(id);
  const bool known = known_folder || ids.HasFile(id);
  const std::optional<std::string> old_path = known ? ids.GetPathById(id) : std::nullopt;
  // 1. Gone: deleted for good or recycled.
  huawei::Item item;
  std::string error;
  const bool deleted = change.get("deleted", "false") == "true";
  auto file = utils::json::Child(change, "file");
  if (!deleted && (!file || !huawei::ParseItem(*file, &item, &error))) {
    LOG_WARNING << "Skipped change of " << Quoted(id) << ": " << error;
    return;
  }
  if (deleted || item.recycled) {
    if (known && old_path) {
      changes->push(Change(known_folder ? Change::FOLDER_DELETE : Change::FILE_DELETE, *old_path));
      const std::string name = ids.GetNameById(id);
      known_folder ? ids.RemoveFolder(name, id) : ids.RemoveFile(name, id);
    }
    return;
  }
  UnmapNameToLocal(&item.name);
  // 2. New below a known folder.
  if (!known) {
    if (!ids.HasFolder(item.parent_id)) {
      return;  // outside the mounted root
    }
    if (!(item.is_folder ? ids.AddFolderId(item.id, item.name, item.parent_id)
                         : ids.AddFileId(item.id, item.name, item.parent_id))) {
      LOG_WARNING << "Failed to add id for " << Quoted(item.name);
      return;
    }
    Change created(item.is_folder ? Change::FOLDER_CREATE : Change::FILE_CREATE,
                   *ids.GetPathById(item.id));
    created.size = item.size;
    created.time = item.time;
    created.hash = item.is_folder ? SomeHash() : SomeHash(item.content_version);
    changes->push(std::move(created));
    return;
  }
  // 3. Moved or renamed; moved out of the mounted root counts as gone.
  const std::string old_name = ids.GetNameById(id);
  if (ids.GetParentId(id) != item.parent_id || old_name != item.name) {
    if (!ids.HasFolder(item.parent_id)) {
      changes->push(Change(known_folder ? Change::FOLDER_DELETE : Change::FILE_DELETE,
                           old_path.value_or(std::string())));
      known_folder ? ids.RemoveFolder(old_name, id) : ids.RemoveFile(old_name, id);
      return;
    }
    const bool moved = known_folder ? ids.MoveFolder(id, old_name, item.parent_id, item.name)
                                    : ids.MoveFileW(id, old_name, item.parent_id, item.name);
    if (!moved) {
      LOG_WARNING << "Failed to move " << Quoted(item.name) << " in file ids tree.";
      return;
    }
    Change renamed(known_folder ? Change::FOLDER_RENAME : Change::FILE_RENAME,
                   *ids.GetPathById(id));
    renamed.old_path = old_path.value_or(std::string());
    changes->push(std::move(renamed));
    return;
  }
  // 4. A file in place changed its content.
  if (!known_folder) {
    Change modified(Change::FILE_MODIFY, old_path.value_or(std::string()));
    modified.size = item.size;
    modified.time = item.time;
    modified.hash = SomeHash(item.content_version);
    changes->push(std::move(modified));
  }
}

FileSystem::Result RemoteFileSystemHuawei::ResolveFolder(const std::string& path, std::string* id) {
  Result result = ResolveMountedRoot();
  if (result != SUCCEEDED) {
    return result;
  }
  RemoteFileIds& ids = Shared().ids;
  if (!ids.IsInit()) {
    ids.Init(mounted_id_);
  }
  *id = ids.GetFolderIdByPath(path);
  if (!id->empty()) {
    return SUCCEEDED;
  }
  // Not in the tree yet: found by name, one component at a time, and kept.
  std::string parent = mounted_id_;
  std::string walked;
  for (const std::string& name : utils::PathSegments(path)) {
    walked += (walked.empty() ? "" : "/") + name;
    std::string child = ids.GetFolderIdByPath(walked);
    if (child.empty()) {
      result = items_->FindFolder(RemotePathOf(name), parent, &child);
      if (result != SUCCEEDED) {
        return result;
      }
      if (child.empty()) {
        LOG_WARNING << "No " << Quoted(name) << " dir in cloud.";
        return ITEM_MISSED;
      }
      if (!ids.AddFolderId(child, name, parent)) {
        LOG_WARNING << "Failed to add id for " << Quoted(name);
        return FAILED;
      }
    }
    parent = child;
  }
  *id = parent;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::GetFolderListing(const std::string& path,
                                                            FolderListing* listing) {
  if (!path.empty() && !CheckPath(path)) {
    return FATAL;
  }
  std::string folder_id;
  Result result = ResolveFolder(path, &folder_id);
  if (result != SUCCEEDED) {
    return result;
  }
  RemoteFileIds& ids = Shared().ids;
  const std::string query = huawei::QuoteLiteral(folder_id) + " in parentFolder and recycled=false";
  return items_->ListAll(query, kListingFields, [&](const utils::json::json_tree& json) {
    huawei::Item item;
    if (!ReadListedItem(json, &item)) {
      return false;
    }
    if (item.is_folder) {
      listing->folders.push_back(item.name);
      if (!ids.HasFolder(item.id)) {
        ids.AddFolderId(item.id, item.name, folder_id);
      }
    } else {
      listing->files.emplace_back(item.name, FileProperties(SomeHash(item.content_version), 0,
                                                            item.size, item.time, false));
      if (!ids.HasFile(item.id)) {
        ids.AddFileId(item.id, item.name, folder_id);
      }
    }
    return true;
  });
}

FileSystem::Result RemoteFileSystemHuawei::CheckConnection() {
  if (!items_) {
    LOG_ERROR << "Failed to open http client to check connection.";
    LOG_ERROR << "Http client not exists";
    return FATAL;
  }
  LOG_INFO << "Root to check: " << Quoted(GetRemoteRootPath());
  mounted_id_.clear();
  Result result = ResolveMountedRoot();
  if (result != SUCCEEDED) {
    LOG_WARNING << "remote_root_path is " << Quoted(GetRemoteRootPath());
  }
  return result;
}

FileSystem::Result RemoteFileSystemHuawei::CheckAndLearnParent(const std::string& path) {
  if (!CheckPath(path)) {
    return FATAL;
  }
  return LearnParentOf(path);
}

FileSystem::Result RemoteFileSystemHuawei::LearnParentOf(const std::string& path) {
  // Before any tree of this account the ids come from the parent's listing; once a tree is
  // loaded, a path it doesn't know is unknown without asking.
  if (Shared().ids.IsInit()) {
    return SUCCEEDED;
  }
  FolderListing listing;
  return GetFolderListing(SplitParent(path).first, &listing);
}

FileSystem::Result RemoteFileSystemHuawei::CreateFolderImpl(const OverwriteControl&,
                                                            const std::string& path) {
  // 1. The parent from the tree, and a folder that stands already.
  if (Result learned = CheckAndLearnParent(path); learned != SUCCEEDED) {
    return learned;
  }
  RemoteFileIds& ids = Shared().ids;
  const auto [parent_path, name] = SplitParent(path);
  const std::string parent_id = ids.GetFolderIdByPath(parent_path);
  if (parent_id.empty()) {
    LOG_WARNING << "Empty parent id";
    return ITEM_MISSED;
  }
  if (ids.ParentHasFolder(parent_id, name)) {
    LOG_INFO << "Folder already exists.";
    return SUCCEEDED;
  }
  // 2. The request, then the id.
  utils::json::json_tree body, parents, parent;
  body.put("fileName", RemotePathOf(name));
  parent.put_value(parent_id);
  parents.push_back({"", parent});
  body.add_child("parentFolder", parents);
  body.put("mimeType", huawei::kFolderMime);
  utils::json::json_tree created;
  Result result = items_->Send("POST", HuaweiRequester::ApiUrl("/files?fields=*&autoRename=false"),
                               JsonBody(body), &created);
  if (result != SUCCEEDED) {
    LOG_WARNING << "Folder " << Quoted(name) << " not created.";
    return result;
  }
  const std::string id = created.get("id", "");
  if (id.empty()) {
    LOG_ERROR << "Empty created folder id.";
    return FAILED;
  }
  if (!ids.AddFolderId(id, name, parent_id)) {
    LOG_ERROR << "Failed add folder " << Quoted(name) << " in file ids.";
    return FAILED;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::CheckVersion(const std::string& id,
                                                        const std::string& path,
                                                        const SomeHash& expected) {
  // 1. The file as the server has it now; one gone or recycled means the tree is behind.
  huawei::Item current;
  Result result = items_->GetItem(id, &current);
  if (result == ITEM_MISSED || (result == SUCCEEDED && current.recycled)) {
    LOG_WARNING << "File " << Quoted(path) << " is no longer in the cloud.";
    return CONFLICT;
  }
  if (result != SUCCEEDED) {
    return result;
  }
  // 2. Its version against the one the caller's tree holds.
  if (SomeHash(current.content_version) != expected) {
    LOG_WARNING << "File " << Quoted(path) << " changed in the cloud, expected version "
                << Quoted(expected.ToDisplayString()) << ", got "
                << Quoted(current.content_version);
    return CONFLICT;
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::Recycle(const std::string& path, bool folder,
                                                   const SomeHash& expected) {
  // 1. The item's id, and for a file with a control the version it must still have: Huawei
  // takes no condition on the recycle itself.
  const char* kind = folder ? "Folder " : "File ";
  if (Result learned = CheckAndLearnParent(path); learned != SUCCEEDED) {
    return learned;
  }
  RemoteFileIds& ids = Shared().ids;
  const std::string id = folder ? ids.GetFolderIdByPath(path) : ids.GetFileIdByPath(path);
  if (id.empty()) {
    LOG_WARNING << "No such file " << Quoted(path) << " in file ids tree.";
    return ITEM_MISSED;
  }
  if (!expected.IsEmpty()) {
    Result checked = CheckVersion(id, path, expected);
    if (checked != SUCCEEDED) {
      LOG_WARNING << kind << Quoted(path) << " not deleted.";
      return checked;
    }
  }
  // 2. The recycle, then the id leaves the tree.
  DispatcherUrl url = HuaweiRequester::ApiUrl("/files/");
  url.Append(id, DispatcherUrl::ValueEncodingMode::kSegment);
  url.AppendParam("fields", "*", DispatcherUrl::ValueEncodingMode::kAsIs);
  utils::json::json_tree answer;
  Result result = items_->Send("PATCH", url, "{\"recycled\":true}", &answer);
  if (result != SUCCEEDED) {
    LOG_WARNING << kind << Quoted(path) << " not deleted.";
    return result;
  }
  const std::string name = ids.GetNameById(id);
  if (!(folder ? ids.RemoveFolder(name, id) : ids.RemoveFile(name, id))) {
    LOG_WARNING << (folder ? "Failed remove folder \"" : "Failed remove file \"") << path << "\"";
    return FAILED;
  }
  LOG_INFO << kind << Quoted(path) << " deleted succesfully.";
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::DeleteFileImpl(const OverwriteControl& control,
                                                          const std::string& path,
                                                          std::uint64_t size, std::uint64_t) {
  if (control.hash.IsEmpty() && size > 0) {
    LOG_WARNING << "Hash is not set in overwrite control: " << path;
  }
  return Recycle(path, false, control.hash);
}

FileSystem::Result RemoteFileSystemHuawei::DeleteFolderImpl(const FolderNode&, const Revision&,
                                                            const std::string& path) {
  return Recycle(path, true, SomeHash());
}

FileSystem::Result RemoteFileSystemHuawei::MoveItem(const std::string& from, const std::string& to,
                                                    bool folder) {
  // 1. Refusals without a request.
  LOG_INFO << "Moving " << (folder ? "folder" : "file") << " " << Quoted(from) << " to "
           << Quoted(to);
  if (!CheckPath(from) || !CheckPath(to)) {
    return FATAL;
  }
  if (from == to) {
    LOG_INFO << "Moving to same path: " << Quoted(to);
    return SUCCEEDED;
  }
  const auto [to_parent_path, to_name] = SplitParent(to);
  if (to_name.size() > huawei::kMaxNameLength) {
    LOG_WARNING << "File name is too long: " << Quoted(to_name);
    return NAME_TOO_LONG;
  }
  if (to.size() > huawei::kMaxPathLength) {
    LOG_WARNING << "File path or name is too long: " << Quoted(to);
    return NAME_TOO_LONG;
  }
  Result learned = LearnParentOf(from);
  if (learned == SUCCEEDED) {
    learned = LearnParentOf(to);
  }
  if (learned != SUCCEEDED) {
    return learned;
  }
  RemoteFileIds& ids = Shared().ids;
  const std::string id = folder ? ids.GetFolderIdByPath(from) : ids.GetFileIdByPath(from);
  const std::string new_parent = ids.GetFolderIdByPath(to_parent_path);
  if (id.empty() || new_parent.empty()) {
    LOG_WARNING << "No such file " << Quoted(id.empty() ? from : to_parent_path)
                << " in file ids tree.";
    return ITEM_MISSED;
  }
  // 2. The parent changes by a pair of parameters; a rename alone needs neither.
  const std::string old_parent = ids.GetParentId(id);
  DispatcherUrl url = HuaweiRequester::ApiUrl("/files/");
  url.Append(id, DispatcherUrl::ValueEncodingMode::kSegment);
  if (old_parent != new_parent) {
    url.AppendParam("removeParentFolder", old_parent,
                    DispatcherUrl::ValueEncodingMode::kQueryValue);
    url.AppendParam("addParentFolder", new_parent, DispatcherUrl::ValueEncodingMode::kQueryValue);
  }
  utils::json::json_tree body;
  body.put("fileName", RemotePathOf(to_name));
  if (folder) {
    body.put("mimeType", huawei::kFolderMime);
  }
  utils::json::json_tree answer;
  Result result = items_->Send("PATCH", url, JsonBody(body), &answer);
  if (result != SUCCEEDED) {
    LOG_WARNING << Quoted(from) << " not renamed to " << Quoted(to);
    return result;
  }
  // 3. The id tree follows.
  const std::string old_name = ids.GetNameById(id);
  if (!(folder ? ids.MoveFolder(id, old_name, new_parent, to_name)
               : ids.MoveFileW(id, old_name, new_parent, to_name))) {
    LOG_WARNING << "Failed move " << Quoted(from) << " in file ids tree.";
    return FAILED;
  }
  LOG_INFO << Quoted(from) << " renamed succesfully.";
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::RenameFileImpl(const FileNode&, const OverwriteControl&,
                                                          const std::string& from,
                                                          const OverwriteControl&,
                                                          const std::string& to, SomeHash*) {
  return MoveItem(from, to, false);
}

FileSystem::Result RemoteFileSystemHuawei::MoveFileImpl(const FileNode&, const OverwriteControl&,
                                                        const std::string& from,
                                                        const OverwriteControl&,
                                                        const std::string& to) {
  return MoveItem(from, to, false);
}

FileSystem::Result RemoteFileSystemHuawei::MoveFolderImpl(const FolderNode&,
                                                          const OverwriteControl&,
                                                          const std::string& from,
                                                          const OverwriteControl&,
                                                          const std::string& to) {
  return MoveItem(from, to, true);
}

FileSystem::Result RemoteFileSystemHuawei::OpenForRead(const std::string& path,
                                                       std::uint64_t offset, std::uint64_t limit,
                                                       std::uint64_t size, const SomeHash&) {
  // 1. The file's id, without a request when it is unknown.
  LOG_INFO << "Reading remote file " << Quoted(path) << ", offset: " << offset
           << ", limit: " << limit;
  if (mode_ != kIdle) {
    return FAILED;
  }
  if (Result learned = CheckAndLearnParent(path); learned != SUCCEEDED) {
    return learned;
  }
  const std::string id = Shared().ids.GetFileIdByPath(path);
  if (id.empty()) {
    LOG_WARNING << "No such file " << Quoted(path) << " in file ids tree.";
    return ITEM_MISSED;
  }
  // 2. The content, ranged unless the whole file is asked for.
  URLProcessor::Request request;
  request.url = HuaweiRequester::ApiUrl("/files/");
  request.url.Append(id, DispatcherUrl::ValueEncodingMode::kSegment);
  request.url.AppendParam("form", "content", DispatcherUrl::ValueEncodingMode::kAsIs);
  const bool whole = offset == 0 && (limit == 0 || limit >= size);
  if (!whole && limit > offset) {
    request.range = URLProcessor::Range{offset, limit - 1};
  }
  if (content_http_->Send(request)) {
    const int code = content_http_->GetResponseCode();
    if (code == 200 || code == 206) {
      read_left_ = whole ? UINT64_MAX : limit - offset;
      mode_ = kReading;
      return SUCCEEDED;
    }
  }
  const URLProcessor::Result result = content_http_->Finish();
  SetFailReason(result, content_http_->GetResponseCode());
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  return huawei::ResultFromHttp(content_http_->GetResponseCode(), std::string());
}

FileSystem::Result RemoteFileSystemHuawei::ReadFile(std::uint8_t* buffer, std::uint32_t size,
                                                    std::uint32_t* done) {
  *done = 0;
  if (mode_ != kReading) {
    LOG_INFO << "Connection is closed, can't read anymore.";
    return FAILED;
  }
  const InputStream::Result read = content_http_->GetInputStream()->Read(buffer, size, done);
  if (read == InputStream::Result::OK) {
    return SUCCEEDED;
  }
  mode_ = kIdle;
  const URLProcessor::Result result = content_http_->Finish();
  SetFailReason(result, content_http_->GetResponseCode());
  RadarsLogger::instance().SendIfNetworkError(
      result, "remote_huawei", content_http_->GetResponseCode(), content_http_->GetUrl());
  if (result == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return STOPPED;
  }
  if (read == InputStream::Result::END && !IsNetworkErrorResult(result)) {
    return SUCCEEDED;
  }
  LOG_INFO << "Connection is closed, can't read anymore.";
  return FAILED;
}

void RemoteFileSystemHuawei::SetFileHashToResumeInterruptedUpload(const SomeHash& hash) {
  upload_hash_ = hash;
}

FileSystem::Result RemoteFileSystemHuawei::OpenUpload(const std::string& path, const SomeHash& hash,
                                                      std::uint64_t size,
                                                      HuaweiUploadSession session,
                                                      std::uint64_t* resume_offset) {
  // 1. A stored session of the same content goes on; else the new one.
  const SomeHash& content_hash = hash.IsEmpty() ? upload_hash_ : hash;
  HuaweiUploadSession stored;
  if (Shared().sessions.TakeForResume(path, content_hash, size, &stored)) {
    LOG_INFO << "Resume upload for file " << Quoted(path) << " from " << stored.offset
             << " offset, size = " << size;
    session = stored;
  }
  session.hash = content_hash.IsEmpty() ? std::string() : content_hash.ToHexString();
  // 2. The server tells where it stands.
  upload_ = std::make_unique<HuaweiUpload>(*content_http_, path, std::move(session));
  Result result = upload_->Begin();
  if (result != SUCCEEDED) {
    KeepSessionForLater();
    upload_.reset();
    return result;
  }
  upload_path_ = path;
  *resume_offset = upload_->session().offset;
  mode_ = kSessionWriting;
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::AdmitUpload(const std::string& path, std::uint64_t size,
                                                       bool named_here) {
  // 1. What needs no request.
  LOG_INFO << "Start uploading for " << Quoted(path) << ", size=" << size;
  if (mode_ != kIdle) {
    return FAILED;
  }
  if (!CheckPath(path)) {
    return FATAL;
  }
  if (named_here && (SplitParent(path).second.size() > huawei::kMaxNameLength ||
                     path.size() > huawei::kMaxPathLength)) {
    LOG_WARNING << "File path or name is too long: " << Quoted(path);
    return NAME_TOO_LONG;
  }
  if (size > max_file_size_) {
    LOG_WARNING << "File is too big, size = " << size;
    return TOO_LARGE;
  }
  // 2. The parent in the id tree.
  return LearnParentOf(path);
}

FileSystem::Result RemoteFileSystemHuawei::OpenForCreate(const OverwriteControl&,
                                                         const std::string& path,
                                                         const SomeHash& hash, std::uint64_t size,
                                                         std::uint64_t time,
                                                         std::uint64_t* resume_offset, bool) {
  // 1. Refusals without a request.
  if (Result admitted = AdmitUpload(path, size, true); admitted != SUCCEEDED) {
    return admitted;
  }
  const auto [parent_path, name] = SplitParent(path);
  const std::string parent_id = Shared().ids.GetFolderIdByPath(parent_path);
  if (parent_id.empty()) {
    LOG_WARNING << "No such file " << Quoted(parent_path) << " in file ids tree.";
    return ITEM_MISSED;
  }
  // 2. The session names the parent: without it the file would land in the drive's root.
  HuaweiUploadSession session;
  session.size = size;
  session.parent_id = parent_id;
  session.name = RemotePathOf(name);
  session.time = time;
  return OpenUpload(path, hash, size, std::move(session), resume_offset);
}

FileSystem::Result RemoteFileSystemHuawei::OpenForRewrite(const OverwriteControl& control,
                                                          const std::string& path,
                                                          const SomeHash& hash, std::uint64_t size,
                                                          std::uint64_t time,
                                                          std::uint64_t* resume_offset) {
  // 1. Refusals without a request, then the file's id.
  if (Result admitted = AdmitUpload(path, size, false); admitted != SUCCEEDED) {
    return admitted;
  }
  std::string id = Shared().ids.GetFileIdByPath(path);
  if (id.empty()) {
    id = Shared().UploadedId(path);
  }
  if (id.empty()) {
    LOG_WARNING << "No such file " << Quoted(path) << " in file ids tree.";
    return ITEM_MISSED;
  }
  // 2. Huawei takes no condition on a new version: the file must still be what the control says
  // before a session may replace it. An empty control wants no file there, and there is one.
  Result checked = CheckVersion(id, path, control.hash);
  if (checked != SUCCEEDED) {
    return checked;
  }
  // 3. The session replaces the file's content.
  HuaweiUploadSession session;
  session.size = size;
  session.file_id = id;
  session.name = RemotePathOf(SplitParent(path).second);
  session.time = time;
  return OpenUpload(path, hash, size, std::move(session), resume_offset);
}

FileSystem::Result RemoteFileSystemHuawei::WriteFile(const std::uint8_t* data, std::uint32_t size) {
  if (mode_ != kSessionWriting || !upload_) {
    return FAILED;
  }
  Result result = upload_->Write(data, size);
  if (result != SUCCEEDED) {
    KeepSessionForLater();
    upload_.reset();
    mode_ = kIdle;
  }
  return result;
}

void RemoteFileSystemHuawei::KeepSessionForLater() {
  if (!upload_ || !upload_->Resumable() || upload_->session().hash.empty()) {
    return;
  }
  Shared().sessions.Store(upload_path_.empty() ? std::string() : upload_path_, upload_->session());
}

FileSystem::Result RemoteFileSystemHuawei::FinishUpload(FileProperties* props) {
  // 1. The server's file, its size compared.
  huawei::Item created;
  Result result = upload_->Finish(&created);
  upload_.reset();
  mode_ = kIdle;
  if (result != SUCCEEDED) {
    return result;
  }
  if (upload_path_.empty()) {
    LOG_ERROR << "Empty uploading file path.";
    return FAILED;
  }
  // 2. The id of a new file joins the tree.
  RemoteFileIds& ids = Shared().ids;
  if (!ids.HasFile(created.id) &&
      !ids.AddFileId(created.id, SplitParent(upload_path_).second, created.parent_id)) {
    LOG_ERROR << "Failed to add created file " << Quoted(upload_path_) << " to file ids.";
    return FAILED;
  }
  Shared().RememberUpload(upload_path_, created.id);
  if (props) {
    props->hash = SomeHash(created.content_version);
  }
  return SUCCEEDED;
}

FileSystem::Result RemoteFileSystemHuawei::CloseFile(FileProperties* props) {
  if (mode_ == kReading) {
    mode_ = kIdle;
    const URLProcessor::Result result = content_http_->Finish();
    return result == URLProcessor::Result::STOPPED ? STOPPED : SUCCEEDED;
  }
  if (mode_ == kSessionWriting && upload_) {
    return FinishUpload(props);
  }
  return FAILED;
}

FileSystem::Result RemoteFileSystemHuawei::InterruptFile() {
  if (mode_ == kSessionWriting) {
    KeepSessionForLater();
    upload_.reset();
    mode_ = kIdle;
    return SUCCEEDED;
  }
  content_http_->Stop();
  const Result result = CloseFile(nullptr);
  content_http_->Start();
  return result;
}

FileSystem::Result RemoteFileSystemHuawei::GetPublicLink(const std::string&, bool, std::string*) {
  LOG_ERROR << "Not implemented.";
  return FAILED;
}

FileSystem::Result RemoteFileSystemHuawei::ClosePublicLink(const std::string&) {
  LOG_ERROR << "Not implemented.";
  return FAILED;
}

FileSystem::LengthLimits RemoteFileSystemHuawei::GetMaxSupportedPathLength() const {
  LengthLimits limits;
  limits.first = huawei::kMaxPathLength;
  return limits;
}

FileSystem::LengthLimits RemoteFileSystemHuawei::GetMaxSupportedNameLength() const {
  LengthLimits limits;
  limits.first = huawei::kMaxNameLength;
  return limits;
}

const RemoteFileSystem::UnsupportedSymbolsMap& RemoteFileSystemHuawei::GetUnsupportedSymbolsMap()
    const {
  return InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin;
}

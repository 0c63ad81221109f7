#include "services/GoogleTreeConstructors.h"

#include <cerrno>
#include <cstdlib>

#include "core/LoggerWrapper.h"
#include "core/PathUtils.h"
#include "core/RadarsLogger.h"
#include "core/TimeUtils.h"
#include "services/GoogleDocs.h"
#include "services/GoogleSelfMadeChanges.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteGoogleUtils.h"

namespace {

// Far above the 255 characters of the file systems the client runs on.
constexpr std::size_t kMaxNameBytes = 1024;

}  // namespace

const std::string ConstructorBase::kExternalItemsFolderId =
    "2e5d7744-88ac-47de-bee0-9d8d94ccbcf0-shared-with-me";

namespace {

std::string Text(const utils::json::json_tree& item, const char* key) {
  auto member = utils::json::Member(item, key);
  return member ? member->data() : std::string();
}

// A whole decimal number of the JSON text (Drive sends 64-bit numbers as strings).
bool ReadInteger(const std::string& text, std::int64_t* value) {
  if (text.empty()) {
    return false;
  }
  errno = 0;
  char* end = nullptr;
  long long parsed = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0') {
    return false;
  }
  *value = parsed;
  return true;
}

void LogItem(const utils::json::json_tree& item) {
  LOG_WARNING << utils::json::ToString(item, false);
}

}  // namespace

ConstructorBase::ConstructorBase(std::shared_ptr<RemoteFileIds> ids, bool shared_items_enabled,
                                 std::string external_folder_name,
                                 const RemoteNameMapper* name_mapper, GoogleDocs* docs)
    : ids_(std::move(ids)),
      shared_items_enabled_(shared_items_enabled),
      external_folder_name_(std::move(external_folder_name)),
      name_mapper_(name_mapper),
      docs_(docs) {}

ConstructorBase::~ConstructorBase() = default;

bool ConstructorBase::AddItem(const utils::json::json_tree& item, std::int64_t* size_out) {
  // 1. Who it is.
  std::string name = Text(item, "name");
  if (name_mapper_) {
    name_mapper_->UnmapNameToLocal(&name);
  }
  std::string id = Text(item, "id");
  if (id.empty()) {
    LogItem(item);
    LOG_WARNING << "Skipping item without id.";
    return true;
  }
  // 2. Whose it is and what may be done with it.
  bool trashed = Text(item, "trashed") == "true";
  bool external = Text(item, "ownedByMe") != "true";
  auto can_edit = utils::json::Child(item, "capabilities.canEdit");
  bool readonly = can_edit && can_edit->data() == "false";
  if (external) {
    if (!shared_items_enabled_) {
      return true;
    }
    AddExternalItemsFolder();
  }
  // 3. Where it is: under its first parent only.
  std::string parent_id;
  if (auto parents = utils::json::Member(item, "parents"); parents && !parents->empty()) {
    parent_id = parents->begin()->second.data();
    if (parents->size() > 1) {
      LogItem(item);
      LOG_WARNING << "Detected item with more then one parent.";
    }
  }
  if (parent_id.empty() && !external) {
    LOG_WARNING << "Parentless item detected with id=" << id << "; name=" << name << ".";
    return true;
  }
  // Drive takes names no disk can show ("a/b", "..", thousands of bytes); such an item stays on
  // the server only.
  if (!ChildNode::IsValidName(name) || name.size() > kMaxNameBytes) {
    LOG_WARNING << "Skipping item with a name the disk can't hold; id=" << id << ".";
    return true;
  }
  // 4. A folder, or a file.
  if (Text(item, "mimeType") == google::kFolderMimeType) {
    std::string shown = name;
    if (!AddFolder(id, std::move(name), parent_id, trashed, external, readonly)) {
      LOG_ERROR << "Failed adding folder: " << shown;
      return false;
    }
    return true;
  }
  return AddFileItem(item, id, std::move(name), parent_id, trashed, external, readonly, size_out);
}

bool ConstructorBase::AddFileItem(const utils::json::json_tree& item, const std::string& id,
                                  std::string name, const std::string& parent_id, bool trashed,
                                  bool external, bool readonly, std::int64_t* size_out) {
  // 1. Size, version, time; a size that is no number is no size Drive would send.
  std::int64_t size = -1;
  std::string size_text = Text(item, "size");
  if (!size_text.empty() && (!ReadInteger(size_text, &size) || size < 0)) {
    LogItem(item);
    LOG_WARNING << "Skipping item with invalid size; id=" << id << ".";
    return true;
  }
  std::int64_t version = 0;
  ReadInteger(Text(item, "version"), &version);
  std::int64_t mtime = utils::ParseISODateTime(Text(item, "modifiedTime"));
  // 2. The hash: none is needed for an empty file.
  HashGoogle hash;
  if (size > 0) {
    std::string md5 = Text(item, "md5Checksum");
    if (md5.empty()) {
      LogItem(item);
      RadarsLogger::instance().SendMetric("google_no_md5_hash_in_file", "1", 1);
      LOG_WARNING << "No md5 hash in file.";
    } else {
      hash = google::HashFromHex(md5);
    }
  }
  // 3. A Google document is a read-only shortcut to its web page.
  bool document =
      size == -1 || Text(item, "mimeType").find(google::kGoogleAppsMimePrefix) != std::string::npos;
  std::string link;
  if (document) {
    name += ".url";
    link = Text(item, "webViewLink");
    if (link.empty()) {
      LogItem(item);
      LOG_ERROR << "No web link in item.";
      SetError(TreeError::kUnknown, name, true);
      return false;
    }
    size = static_cast<std::int64_t>(GoogleDocs::ContentSize(link));
    hash = google::HashOfBytes(link);
    readonly = true;
  }
  // 4. Into the tree.
  std::string shown = name;
  if (!AddFile(id, std::move(name), parent_id, static_cast<std::uint64_t>(size), mtime, hash,
               version, trashed, external, readonly)) {
    LOG_ERROR << "Failed adding file: " << shown << "; id=" << id << ".";
    return false;
  }
  if (document && docs_) {
    docs_->Add(id, link);
  }
  if (size_out && !document) {
    *size_out = size;
  }
  return true;
}

void ConstructorBase::AddExternalItemsFolder() {
  if (external_folder_added_) {
    return;
  }
  if (!ids_->HasFolder(kExternalItemsFolderId)) {
    std::string root_id = ids_->GetFolderIdByPath("");
    if (!AddFolder(kExternalItemsFolderId, external_folder_name_, root_id, false, false, true)) {
      LOG_ERROR << "Failed to add external items folder.";
    }
  }
  external_folder_added_ = true;
}

std::string ConstructorBase::ChooseUniqueName(const FolderNode& folder, const std::string& name) {
  return utils::ChooseUniqueNamePostfix(
      [&folder](const std::string& candidate) {
        return folder.HasFile(candidate) || folder.HasFolder(candidate);
      },
      name);
}

std::string ConstructorBase::ChooseUniqueName(const std::string& parent_id,
                                              const std::string& name) const {
  return utils::ChooseUniqueNamePostfix(
      [this, &parent_id](const std::string& candidate) {
        return ids_->ParentHasFile(parent_id, candidate) ||
               ids_->ParentHasFolder(parent_id, candidate);
      },
      name);
}

void ConstructorBase::SetError(std::int32_t reason, std::string path, bool is_file) {
  error_ = TreeError{reason, std::move(path), is_file};
}

TreeConstructor::TreeConstructor(std::shared_ptr<RemoteFileIds> ids, FolderNode* root,
                                 bool shared_items_enabled, std::string external_folder_name,
                                 const RemoteNameMapper* name_mapper, GoogleDocs* docs)
    : ConstructorBase(std::move(ids), shared_items_enabled, std::move(external_folder_name),
                      name_mapper, docs),
      root_(root) {
  folders_by_id_[ids_->GetRootId()] = root_;
}

bool TreeConstructor::AlreadyKnownOrTrashed(const std::string& id, const std::string& parent_id,
                                            bool trashed) {
  if (ids_->HasFile(id) || ids_->HasFolder(id)) {
    LOG_WARNING << "File with id " << id << "already in id tree, parent id is "
                << ids_->GetParentId(id) << ", current parent id is " << parent_id;
    return true;
  }
  if (trashed) {
    ++trashed_count_;
    ids_->AddTrashed(id);
    return true;
  }
  return false;
}

template <>
struct TreeConstructor::Kind<FileNode> {
  static constexpr bool kIsFile = true;
  static constexpr auto kParked = &TreeConstructor::parentless_files_;
  static constexpr auto kAddNotLinked = &RemoteFileIds::AddNotLinkedFileId;
  static constexpr bool (RemoteFileIds::*kAdd)(const std::string&, const std::string&,
                                               const std::string&) = &RemoteFileIds::AddFileId;
  static constexpr auto kLink = &RemoteFileIds::LinkFileToParent;
  static constexpr const char* kIdFailure = "Failed to add file id.";
  static constexpr const char* kAdoptFailure = "Failed to insert file.";
  static constexpr const char* kAlreadyLinked = "Item already in file ids tree.";
  static void LogPlaceFailure(const std::string& name) {
    LOG_FATAL << "Failed to create file: " << name;
  }
  static void LogLinkFailure(const Parked<FileNode>& item, const std::string& name) {
    LOG_FATAL << "Failed to link file id: " << item.id << "; " << name;
  }
};

template <>
struct TreeConstructor::Kind<FolderNode> {
  static constexpr bool kIsFile = false;
  static constexpr auto kParked = &TreeConstructor::parentless_folders_;
  static constexpr auto kAddNotLinked = &RemoteFileIds::AddNotLinkedFolderId;
  static constexpr bool (RemoteFileIds::*kAdd)(const std::string&, const std::string&,
                                               const std::string&) = &RemoteFileIds::AddFolderId;
  static constexpr auto kLink = &RemoteFileIds::LinkFolderToParent;
  static constexpr const char* kIdFailure = "Failed to add folder id.";
  static constexpr const char* kAdoptFailure = "Failed to insert folder.";
  static constexpr const char* kAlreadyLinked = "Item already in tree.";
  static void LogPlaceFailure(const std::string&) { LOG_FATAL << "Failed to create folder."; }
  static void LogLinkFailure(const Parked<FolderNode>& item, const std::string& name) {
    LOG_FATAL << "Failed to link folder id.";
    LOG_FATAL << "Parent id is " << item.parent_id << " , child dir name is " << name
              << ", child id is" << item.id;
  }
};

template <typename Node>
bool TreeConstructor::Place(const std::string& id, const std::string& name,
                            const std::string& parent, UniqueNodePtr<Node> node) {
  using K = Kind<Node>;
  // 1. Parked till its parent comes.
  auto found = folders_by_id_.find(parent);
  if (found == folders_by_id_.end()) {
    (this->*K::kParked).push_back({id, parent, std::move(node)});
    if (!(ids_.get()->*K::kAddNotLinked)(id)) {
      LOG_FATAL << K::kIdFailure;
      SetError(TreeError::kUnknown, name, K::kIsFile);
      return false;
    }
    return true;
  }
  // 2. Under its parent at once, in both trees.
  std::string chosen;
  std::string path = PathOf(found->second) + name;
  if (!InsertNode(id, found->second, &node, &chosen)) {
    K::LogPlaceFailure(name);
    SetError(TreeError::kUnknown, path, K::kIsFile);
    return false;
  }
  if (!chosen.empty()) {
    ids_->AddMappingInfo(id, name, chosen);
  }
  if (!(ids_.get()->*K::kAdd)(id, chosen.empty() ? name : chosen, parent)) {
    LOG_FATAL << K::kIdFailure;
    SetError(TreeError::kUnknown, path, K::kIsFile);
    return false;
  }
  return true;
}

template <typename Node>
bool TreeConstructor::Adopt() {
  using K = Kind<Node>;
  auto& parked = this->*K::kParked;
  for (auto it = parked.begin(); it != parked.end();) {
    auto parent = folders_by_id_.find(it->parent_id);
    if (parent == folders_by_id_.end()) {
      ++it;
      continue;
    }
    // 1. Into the tree of nodes.
    std::string name = it->node->GetName();
    std::string path = PathOf(parent->second) + name;
    std::string chosen;
    if (!InsertNode(it->id, parent->second, &it->node, &chosen)) {
      LOG_FATAL << K::kAdoptFailure;
      SetError(TreeError::kUnknown, path, K::kIsFile);
      return false;
    }
    // 2. Into the id tree, where a later listing of the item may have put it already.
    if (!chosen.empty()) {
      ids_->AddMappingInfo(it->id, name, chosen);
    }
    if (!(ids_.get()->*K::kLink)(it->id, chosen.empty() ? name : chosen, it->parent_id)) {
      if (ids_->GetPathById(it->id) && ids_->GetParentId(it->id) == it->parent_id) {
        LOG_INFO << K::kAlreadyLinked;
      } else {
        K::LogLinkFailure(*it, name);
        SetError(TreeError::kUnknown, path, K::kIsFile);
        return false;
      }
    }
    it = parked.erase(it);
  }
  return true;
}

bool TreeConstructor::AddFile(const std::string& id, std::string name, const std::string& parent_id,
                              std::uint64_t size, std::int64_t mtime, const HashGoogle& hash,
                              std::int64_t, bool trashed, bool external, bool readonly) {
  // 1. Met before, or trashed: not in the tree.
  if (AlreadyKnownOrTrashed(id, parent_id, trashed)) {
    return true;
  }
  ++files_count_;
  // 2. Its parent.
  std::string parent = parent_id;
  if (parent.empty()) {
    if (!external) {
      LOG_FATAL << "Detected non-external file without parent: " << name << "; " << id;
      SetError(TreeError::kNoLocation, name, true);
      return false;
    }
    parent = kExternalItemsFolderId;
  }
  UniqueNodePtr<FileNode> node = FolderNode::MakeFile(
      name, size, SomeHash(hash), static_cast<std::uint64_t>(std::max<std::int64_t>(mtime, 0)), 0,
      readonly);
  if (!node) {
    LOG_FATAL << "Failed to make file rec.";
    return false;
  }
  // 3. Linked at once when its parent is known, else parked till it comes.
  return Place(id, name, parent, std::move(node));
}

bool TreeConstructor::AddFolder(const std::string& id, std::string name,
                                const std::string& parent_id, bool trashed, bool external,
                                bool readonly) {
  // 1. As for files; a folder of the account's own without parent is only logged.
  if (AlreadyKnownOrTrashed(id, parent_id, trashed)) {
    return true;
  }
  ++folders_count_;
  std::string parent = parent_id;
  if (parent.empty() || parent == id) {
    if (!external || parent == id) {
      LOG_WARNING << "Detected non-external folder without parent: " << name << "; " << id;
      return true;
    }
    parent = kExternalItemsFolderId;
  }
  UniqueNodePtr<FolderNode> node = root_->MakeFolder(name);
  if (!node) {
    LOG_FATAL << "Failed make folder.";
    return false;
  }
  if (readonly) {
    node->SetReadonly(id == kExternalItemsFolderId ? FolderNode::kReadonlyLocked
                                                   : FolderNode::kReadonly);
  }
  // 2. Known by id before it is linked, so that its children can attach to it.
  folders_by_id_[id] = node.get();
  return Place(id, name, parent, std::move(node));
}

bool TreeConstructor::InsertNode(const std::string&, FolderNode* parent,
                                 UniqueNodePtr<FileNode>* node, std::string* chosen) {
  chosen->clear();
  auto inserted = parent->InsertFileTry(std::move(*node));
  if (inserted.status == FolderNode::ResultInsert<FileNode>::EXISTS) {
    *chosen = ChooseUniqueName(*parent, (*node)->GetName());
    const FileNode& old = **node;
    UniqueNodePtr<FileNode> renamed =
        chosen->empty()
            ? nullptr
            : FolderNode::MakeFile(*chosen, old.size, old.hash, old.GetTime(), 0, old.IsReadonly());
    if (!renamed) {
      LOG_FATAL << "Failed to set new node name.";
      return false;
    }
    *node = std::move(renamed);
    inserted = parent->InsertFileTry(std::move(*node));
  }
  if (!inserted) {
    LOG_FATAL << "Failed create file: " << inserted.status;
    return false;
  }
  return true;
}

bool TreeConstructor::InsertNode(const std::string& id, FolderNode* parent,
                                 UniqueNodePtr<FolderNode>* node, std::string* chosen) {
  chosen->clear();
  auto inserted = parent->InsertFolderTry(std::move(*node));
  if (inserted.status == FolderNode::ResultInsert<FolderNode>::EXISTS) {
    // A folder node can't be renamed while detached: a fresh one of the free name takes over
    // the children it may have gathered while it was parked.
    *chosen = ChooseUniqueName(*parent, (*node)->GetName());
    FolderNode* old = node->get();
    UniqueNodePtr<FolderNode> renamed = chosen->empty() ? nullptr : root_->MakeFolder(*chosen);
    if (!renamed) {
      LOG_FATAL << "Failed to set new node name.";
      return false;
    }
    renamed->SetReadonly(old->GetReadonly());
    while (old->FileCount() > 0) {
      std::string name = (*old->FilesBegin())->GetName();
      FolderNode::MoveFileW(old, name, renamed.get(), name);
    }
    while (old->FolderCount() > 0) {
      std::string name = (*old->FoldersBegin())->GetName();
      FolderNode::MoveFolder(old, name, renamed.get(), name);
    }
    *node = std::move(renamed);
    inserted = parent->InsertFolderTry(std::move(*node));
  }
  if (!inserted) {
    LOG_FATAL << "Failed create folder: " << inserted.status;
    return false;
  }
  folders_by_id_[id] = inserted.node;
  return true;
}

bool TreeConstructor::AdoptItems() {
  return Adopt<FolderNode>() && Adopt<FileNode>();
}

bool TreeConstructor::FinishAdoption() {
  // 1. The last chance of the parked items.
  if (!AdoptItems()) {
    return false;
  }
  if (parentless_files_.empty() && parentless_folders_.empty()) {
    return true;
  }
  // 2. Parents that never came: their children vanish from both trees, which is no error.
  for (const auto& file : parentless_files_) {
    const std::string& name = file.node->GetName();
    LOG_WARNING << "file: " << name << "   id=" << file.id << "   parent_id=" << file.parent_id;
    if (ids_->HasFile(file.id) && !ids_->RemoveNotLinkedFile(name, file.id)) {
      LOG_FATAL << "Failed to remove file still without parent.";
      return false;
    }
  }
  for (const auto& folder : parentless_folders_) {
    const std::string& name = folder.node->GetName();
    LOG_WARNING << "folder: " << name << "    id=" << folder.id
                << "   parent_id=" << folder.parent_id;
    if (ids_->HasFolder(folder.id) && !ids_->RemoveNotLinkedFolder(name, folder.id)) {
      LOG_FATAL << "Failed to remove folder still without parent.";
      return false;
    }
  }
  LOG_WARNING << "There are some items still without parent.";
  parentless_files_.clear();
  parentless_folders_.clear();
  return true;
}

void TreeConstructor::LogTotals() const {
  LOG_INFO << "Full tree download completed, there are " << folders_count_ << " folders and "
           << files_count_ << " files + " << trashed_count_ << " trashed items.";
}

std::string TreeConstructor::PathOf(const FolderNode* folder) const {
  std::string path = folder->CollectPath();
  return path.empty() ? path : path + "/";
}

// --- the change feed -----------------------------------------------------------------------

namespace {

std::string JoinPath(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

}  // namespace

ChangesConstructor::ChangesConstructor(std::shared_ptr<RemoteFileIds> ids,
                                       bool shared_items_enabled, std::string external_folder_name,
                                       const RemoteNameMapper* name_mapper, GoogleDocs* docs,
                                       GoogleSelfMadeChanges* expected, std::string root_id,
                                       std::vector<FileSystem::Change>* changes_out)
    : ConstructorBase(std::move(ids), shared_items_enabled, std::move(external_folder_name),
                      name_mapper, docs),
      expected_(expected),
      root_id_(std::move(root_id)),
      changes_out_(changes_out) {}

std::string ChangesConstructor::StartPath(const std::string& id, const std::string& name) const {
  if (!ids_->HasMappedName(id)) {
    return name;
  }
  std::string mapped = ids_->MappedGetMappedName(id);
  LOG_INFO << "[DEBUG] Using mapped name for change: \"" << mapped << "\" instead of \"" << name
           << "\" (" << id << ").";
  return mapped;
}

bool ChangesConstructor::AddFile(const std::string& id, std::string name,
                                 const std::string& parent_id, std::uint64_t size,
                                 std::int64_t mtime, const HashGoogle& hash, std::int64_t version,
                                 bool trashed, bool external, bool readonly) {
  using Change = FileSystem::Change;
  Change change(Change::FILE_CREATE, StartPath(id, name));
  // 1. The echo of the adapter's own work.
  if (trashed && expected_->TakeTrashing(id)) {
    LOG_INFO << "Skipping self-made trashing: \"" << change.path << "\" (" << id << ").";
    return true;
  }
  if (expected_->TakeUpload({id, hash, size, version, parent_id, name})) {
    LOG_INFO << "Skipping self-made file upload: \"" << name << "\" (" << id
             << "); ver=" << version;
    return true;
  }
  // 2. Its parent.
  std::string parent = parent_id;
  if (parent.empty()) {
    if (!external) {
      LOG_INFO << "Skipping non-external file without parent in changes: \"" << name << "\" (" << id
               << ").";
      return true;
    }
    parent = kExternalItemsFolderId;
  }
  change.id = id;
  change.size = size;
  change.time = static_cast<std::uint64_t>(std::max<std::int64_t>(mtime, 0));
  change.hash = SomeHash(hash);
  change.readonly = readonly;
  // 3. What happened to it.
  const bool known = ids_->HasFile(id);
  if (trashed) {
    if (!known) {
      LOG_INFO << "Skipping trashing for non-existing file: \"" << name << "\" (" << id << ").";
      return true;
    }
    return RemoveKnownFile(id, &change);
  }
  const std::string old_name = known ? ids_->GetNameById(id) : std::string();
  if (known && !DetectMove(id, name, parent, true, &change)) {
    return false;
  }
  // 4. Where it is now; a parent not known yet parks the change.
  std::optional<std::string> parent_path = ids_->GetPathById(parent);
  if (!parent_path) {
    parked_changes_.push_back({name, id, parent, std::move(change)});
    return true;
  }
  if (change.type == Change::FILE_MODIFY) {
    change.path = JoinPath(*parent_path, change.path);
    LOG_INFO << "[DEBUG] Detected file modify: \"" << change.path << "\" (" << id << ").";
    Emit(std::move(change));
    return true;
  }
  std::string local_name;
  if (!PlaceUnderParent(id, name, *parent_path, parent, &change, &local_name)) {
    return false;
  }
  // 5. The id tree follows.
  if (change.type == Change::FILE_RENAME) {
    if (!ids_->MoveFileW(id, old_name, parent, local_name)) {
      LOG_FATAL << "Failed moving file id.";
      SetError(TreeError::kUnknown, change.old_path, true);
      return false;
    }
  } else {
    if (ids_->IsTrashed(id)) {
      LOG_INFO << "Detected restoring from trash: " << change.path << "; size=" << size;
      Change restored(Change::USED_SIZE_DECREASE, change.path);
      restored.size = size;
      Emit(std::move(restored));
      ids_->RemoveTrashed(id);
    }
    if (!ids_->AddFileId(id, local_name, parent)) {
      LOG_FATAL << "Failed to add file id.";
      SetError(TreeError::kUnknown, change.path, true);
      return false;
    }
  }
  Emit(std::move(change));
  return true;
}

bool ChangesConstructor::AddFolder(const std::string& id, std::string name,
                                   const std::string& parent_id, bool trashed, bool external,
                                   bool readonly) {
  using Change = FileSystem::Change;
  if (id == root_id_) {
    LOG_INFO << "Skipping root root folder change.";
    return true;
  }
  Change change(Change::FOLDER_CREATE, StartPath(id, name));
  // 1. The echo of the adapter's own work.
  if (trashed && expected_->TakeTrashing(id)) {
    LOG_INFO << "Skipping self-made trashing: \"" << change.path << "\" (" << id << ").";
    return true;
  }
  if (expected_->TakeFolder(id)) {
    LOG_INFO << "Skipping self-made folder creation: " << name << "; " << id;
    return true;
  }
  // 2. Its parent.
  std::string parent = parent_id;
  if (parent.empty()) {
    if (!external) {
      LOG_INFO << "Skipping non-external folder without parent in changes: " << name << "; " << id;
      return true;
    }
    parent = kExternalItemsFolderId;
  }
  change.id = id;
  change.readonly = readonly;
  // 3. What happened to it. A folder being made by the adapter right now may show up here before
  // its request has answered.
  const bool known = ids_->HasFolder(id);
  if (trashed) {
    if (!known) {
      LOG_INFO << "Skipping trashing for non-existing folder: " << name << "; " << id;
      return true;
    }
    return RemoveKnownFolder(id, &change);
  }
  if (!known && expected_->ClaimFolderInFlight(parent, name, id)) {
    LOG_INFO << "Skipping self-made folder creation: " << name << "; " << id;
    return true;
  }
  const std::string old_name = known ? ids_->GetNameById(id) : std::string();
  if (known && !DetectMove(id, name, parent, false, &change)) {
    return false;
  }
  // 4. Where it is now.
  std::optional<std::string> parent_path = ids_->GetPathById(parent);
  if (!parent_path) {
    parked_changes_.push_back({name, id, parent, std::move(change)});
    return true;
  }
  if (change.type == Change::FOLDER_UPDATE) {
    change.path = JoinPath(*parent_path, change.path);
    Emit(std::move(change));
    return true;
  }
  std::string local_name;
  if (!PlaceUnderParent(id, name, *parent_path, parent, &change, &local_name)) {
    return false;
  }
  // 5. The id tree follows.
  bool done = change.type == Change::FOLDER_RENAME
                  ? ids_->MoveFolder(id, old_name, parent, local_name)
                  : ids_->AddFolderId(id, local_name, parent);
  if (!done) {
    LOG_FATAL << (change.type == Change::FOLDER_RENAME ? "Failed moving folder."
                                                       : "Failed to add folder.");
    SetError(TreeError::kUnknown, change.path, false);
    return false;
  }
  Emit(std::move(change));
  return true;
}

bool ChangesConstructor::RemoveKnownFile(const std::string& id, FileSystem::Change* change) {
  std::optional<std::string> path = ids_->GetPathById(id);
  std::string local_name = ids_->GetNameById(id);
  change->type = FileSystem::Change::FILE_DELETE;
  change->path = path ? *path : local_name;
  bool mapped = ids_->HasMappedName(id);
  if (!ids_->RemoveFile(local_name, id)) {
    LOG_FATAL << "Failed to remove file.";
    SetError(TreeError::kUnknown, change->path, true);
    return false;
  }
  if (mapped) {
    ids_->RemoveMappingInfo(id);
  }
  ids_->AddTrashed(id);
  LOG_INFO << "[DEBUG] Detected removed file \"" << change->path << "\" (" << id << ").";
  Emit(std::move(*change));
  return true;
}

bool ChangesConstructor::RemoveKnownFolder(const std::string& id, FileSystem::Change* change) {
  std::optional<std::string> path = ids_->GetPathById(id);
  std::string local_name = ids_->GetNameById(id);
  change->type = FileSystem::Change::FOLDER_DELETE;
  change->path = path ? *path : local_name;
  // The feed's own entries for everything below are expected, and dropped when they come: the
  // folder's deletion took them all.
  bool removed = false;
  expected_->Locked([&](GoogleSelfMadeChanges::Records& records) {
    std::vector<std::string> below;
    ids_->VisitSubtree(id, [&below, &id](const std::string& child) {
      if (child != id) {
        below.push_back(child);
      }
    });
    for (const std::string& child : below) {
      records.expected_trashings.insert(child);
      if (ids_->HasMappedName(child)) {
        ids_->RemoveMappingInfo(child);
      }
    }
    removed = ids_->RemoveFolder(local_name, id);
  });
  if (!removed) {
    LOG_FATAL << "Failed to remove folder id.";
    SetError(TreeError::kUnknown, change->path, false);
    return false;
  }
  if (ids_->HasMappedName(id) && !ids_->RemoveMappingInfo(id)) {
    LOG_FATAL << "Failed to remove mapping info.";
    return false;
  }
  Emit(std::move(*change));
  return true;
}

bool ChangesConstructor::DetectMove(const std::string& id, const std::string& name,
                                    const std::string& parent_id, bool is_file,
                                    FileSystem::Change* change) {
  using Change = FileSystem::Change;
  // 1. The name the server gave it last, and its parent then.
  const bool mapped = ids_->HasMappedName(id);
  std::string remote_name = mapped ? ids_->MappedGetOriginalName(id) : ids_->GetNameById(id);
  std::string old_parent = ids_->GetParentId(id);
  const bool renamed = remote_name != name;
  const bool moved = old_parent != parent_id;
  if (!renamed && !moved) {
    change->type = is_file ? Change::FILE_MODIFY : Change::FOLDER_UPDATE;
    return true;
  }
  const char* what = is_file ? "file" : "folder";
  if (renamed) {
    LOG_INFO << "[DEBUG] Detected " << what << " renaming from \"" << remote_name << "\" to \""
             << name << "\" (" << id << ").";
  }
  if (moved) {
    LOG_INFO << "[DEBUG] Detected " << what << " moving from \"" << old_parent << "\" to \""
             << parent_id << "\" (" << id << ").";
  }
  // 2. A rename or a move: the new name stands, the old path is kept for the change.
  change->type = is_file ? Change::FILE_RENAME : Change::FOLDER_RENAME;
  change->path = name;
  if (mapped && !ids_->RemoveMappingInfo(id)) {
    LOG_FATAL << "Failed to remove mapping info, id=" << id << ".";
    return false;
  }
  std::optional<std::string> old_path = ids_->GetPathById(id);
  if (!old_path) {
    LOG_FATAL << "Failed to get old item path \"" << name << "\" (" << id << ").";
    SetError(TreeError::kUnknown, name, is_file);
    return false;
  }
  change->old_path = *old_path;
  return true;
}

bool ChangesConstructor::PlaceUnderParent(const std::string& id, const std::string& name,
                                          const std::string& parent_path,
                                          const std::string& parent_id, FileSystem::Change* change,
                                          std::string* local_name) {
  *local_name = name;
  if (ids_->ParentHasFile(parent_id, name) || ids_->ParentHasFolder(parent_id, name)) {
    *local_name = ChooseUniqueName(parent_id, name);
    if (!ids_->AddMappingInfo(id, name, *local_name)) {
      LOG_FATAL << "Failed to add mapping info.";
      SetError(TreeError::kUnknown, JoinPath(parent_path, name), change->IsFileChange());
      return false;
    }
  }
  change->path = JoinPath(parent_path, *local_name);
  return true;
}

void ChangesConstructor::Emit(FileSystem::Change change) {
  has_changes_ = true;
  auto inside = [this](const std::string& path) {
    return path.compare(0, external_folder_name_.size(), external_folder_name_) == 0;
  };
  if (inside(change.path) || (!change.old_path.empty() && inside(change.old_path))) {
    AddExternalItemsFolder();
  }
  changes_out_->push_back(std::move(change));
}

bool ChangesConstructor::FinishAdoption() {
  if (parked_changes_.empty()) {
    return true;
  }
  for (const ParkedChange& parked : parked_changes_) {
    const bool is_file = parked.change.IsFileChange();
    const std::string local_name = ids_->GetNameById(parked.id);
    if (is_file && ids_->HasFile(parked.id) && !ids_->RemoveNotLinkedFile(local_name, parked.id)) {
      LOG_FATAL << "Failed to remove parentless file id.";
      return false;
    }
    if (!is_file && ids_->HasFolder(parked.id) &&
        !ids_->RemoveNotLinkedFolder(local_name, parked.id)) {
      LOG_FATAL << "Failed to remove parentless folder id.";
      return false;
    }
    LOG_WARNING << parked.name << "  " << parked.id << " ; parent_id=" << parked.parent_id;
  }
  LOG_WARNING << "Some parentless items exist while reading changes.";
  parked_changes_.clear();
  return true;
}

#include "services/RemoteFileIds.h"

#include <functional>

#if defined(__SANITIZE_THREAD__)
#define CORVANE_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CORVANE_TSAN 1
#endif
#endif
#ifdef CORVANE_TSAN
#include <sanitizer/tsan_interface.h>
#endif

#include "core/LoggerWrapper.h"
#include "services/RemoteFileIdsSerializerText.h"

namespace {

// Qt's lock lives in a library that ThreadSanitizer does not see into: tell it about each hand
// over, so that a run under it reports real races only.
void AnnotateAcquired([[maybe_unused]] QReadWriteLock* lock) {
#ifdef CORVANE_TSAN
  __tsan_acquire(lock);
#endif
}

void AnnotateReleasing([[maybe_unused]] QReadWriteLock* lock) {
#ifdef CORVANE_TSAN
  __tsan_release(lock);
#endif
}

// Holds the lock in the mode of its parameter for a scope.
template <void (QReadWriteLock::*kLock)()>
class Locker {
 public:
  explicit Locker(QReadWriteLock* lock) : lock_(lock) {
    (lock_->*kLock)();
    AnnotateAcquired(lock_);
  }
  ~Locker() {
    AnnotateReleasing(lock_);
    lock_->unlock();
  }
  Locker(const Locker&) = delete;
  Locker& operator=(const Locker&) = delete;

 private:
  QReadWriteLock* lock_;
};

using ReadLocker = Locker<&QReadWriteLock::lockForRead>;
using WriteLocker = Locker<&QReadWriteLock::lockForWrite>;

// The words of log lines for each kind of node.
template <typename Node>
struct Kind;
template <>
struct Kind<IdsTreeNode> {
  static constexpr bool kFolder = false;
  static constexpr const char* kLower = "file";
  static constexpr const char* kUpper = "File";
  static constexpr const char* kOther = "folder";
};
template <>
struct Kind<IdsTreeFolderNode> {
  static constexpr bool kFolder = true;
  static constexpr const char* kLower = "folder";
  static constexpr const char* kUpper = "Folder";
  static constexpr const char* kOther = "file";
};

// The child map of a folder that holds nodes of the given kind.
auto& ChildrenOf(IdsTreeFolderNode& folder, const IdsTreeNode*) {
  return folder.files;
}
auto& ChildrenOf(IdsTreeFolderNode& folder, const IdsTreeFolderNode*) {
  return folder.folders;
}

// True when the node sits in its parent's map under its own name.
template <typename Node>
bool IsInParent(const Node& node) {
  auto& children = ChildrenOf(*node.parent, &node);
  auto it = children.find(node.name);
  return it != children.end() && it->second.get() == &node;
}

// The node may be a file or a folder: a file and a folder of one name can be siblings.
bool IsListedInParent(const IdsTreeNode& node) {
  auto file = node.parent->files.find(node.name);
  if (file != node.parent->files.end() && file->second.get() == &node) {
    return true;
  }
  auto folder = node.parent->folders.find(node.name);
  return folder != node.parent->folders.end() && folder->second.get() == &node;
}

// A folder may not become a descendant of itself: CollectPath would never end.
bool WouldMakeCycle(const IdsTreeNode*, const IdsTreeFolderNode*) {
  return false;
}
bool WouldMakeCycle(const IdsTreeFolderNode* node, const IdsTreeFolderNode* new_parent) {
  for (const IdsTreeFolderNode* folder = new_parent; folder; folder = folder->parent) {
    if (folder == node) {
      return true;
    }
  }
  return false;
}

template <typename Map>
auto Find(const Map& map, std::string_view key) -> typename Map::mapped_type {
  auto it = map.find(key);
  return it == map.end() ? nullptr : it->second;
}

// Locks two trees in one order whichever side asks, so that two opposite swaps can't deadlock.
class PairWriteLocker {
 public:
  PairWriteLocker(QReadWriteLock* a, QReadWriteLock* b)
      : first_(std::less<QReadWriteLock*>()(a, b) ? a : b),
        second_(first_ == a ? b : a),
        first_locker_(first_),
        second_locker_(second_) {}

 private:
  QReadWriteLock* first_;
  QReadWriteLock* second_;
  WriteLocker first_locker_;
  WriteLocker second_locker_;
};

}  // namespace

RemoteFileIds::RemoteFileIds() : lock_(QReadWriteLock::Recursive) {}

RemoteFileIds::~RemoteFileIds() = default;

void RemoteFileIds::Init(const std::string& root_id) {
  WriteLocker locker(&lock_);
  // Children keep plain parent pointers: drop every node before the folders they point to.
  file_ids_.clear();
  folder_ids_.clear();
  trashed_.clear();
  mapped_names_.clear();
  root_ = std::make_shared<IdsTreeFolderNode>(root_id, std::string());
  folder_ids_.emplace(root_->id, root_);
  UpdateItemsCount();
}

bool RemoteFileIds::IsInit() const {
  ReadLocker locker(&lock_);
  return root_ != nullptr;
}

void RemoteFileIds::Swap(RemoteFileIds& other) {
  if (&other == this) {
    return;
  }
  PairWriteLocker locker(&lock_, &other.lock_);
  root_.swap(other.root_);
  folder_ids_.swap(other.folder_ids_);
  file_ids_.swap(other.file_ids_);
  trashed_.swap(other.trashed_);
  mapped_names_.swap(other.mapped_names_);
  UpdateItemsCount();
  other.UpdateItemsCount();
}

bool RemoteFileIds::AddFileId(const std::string& id, const std::string& name,
                              const std::string& parent_id) {
  return AddFileId(id, name, parent_id, false);
}

bool RemoteFileIds::AddFolderId(const std::string& id, const std::string& name,
                                const std::string& parent_id) {
  return AddFolderId(id, name, parent_id, false);
}

bool RemoteFileIds::AddNotLinkedFileId(const std::string& id) {
  return AddFileId(id, std::string(), std::string(), true);
}

bool RemoteFileIds::AddNotLinkedFolderId(const std::string& id) {
  return AddFolderId(id, std::string(), std::string(), true);
}

bool RemoteFileIds::AddFileId(const std::string& id, const std::string& name,
                              const std::string& parent_id, bool not_linked) {
  return AddItem(file_ids_, id, name, parent_id, not_linked);
}

bool RemoteFileIds::AddFolderId(const std::string& id, const std::string& name,
                                const std::string& parent_id, bool not_linked) {
  return AddItem(folder_ids_, id, name, parent_id, not_linked);
}

bool RemoteFileIds::LinkFileToParent(const std::string& id, const std::string& name,
                                     const std::string& parent_id) {
  return LinkItem(file_ids_, id, name, parent_id);
}

bool RemoteFileIds::LinkFolderToParent(const std::string& id, const std::string& name,
                                       const std::string& parent_id) {
  return LinkItem(folder_ids_, id, name, parent_id);
}

std::string RemoteFileIds::GetFileIdByPath(const std::string& path) const {
  ReadLocker locker(&lock_);
  if (!root_ || path.empty()) {
    return std::string();
  }
  return GetIdByPath(RequiredNodeType::kFile, root_, path, 0);
}

std::string RemoteFileIds::GetFolderIdByPath(const std::string& path) const {
  ReadLocker locker(&lock_);
  if (!root_) {
    return std::string();
  }
  return path.empty() ? root_->id : GetIdByPath(RequiredNodeType::kFolder, root_, path, 0);
}

std::string RemoteFileIds::GetIdByPath(RequiredNodeType type, const FolderPtr& from,
                                       std::string_view path, unsigned position) const {
  // 1. Walk down through the folders named before the last "/".
  const IdsTreeFolderNode* folder = from.get();
  std::size_t slash = path.find('/', position);
  while (slash != std::string_view::npos) {
    folder = Find(folder->folders, path.substr(position, slash - position)).get();
    if (!folder) {
      return std::string();
    }
    position = static_cast<unsigned>(slash + 1);
    slash = path.find('/', position);
  }
  // 2. The last component names an item of the required kind.
  std::string_view name = path.substr(position);
  const IdsTreeNode* found =
      type == RequiredNodeType::kFile
          ? Find(folder->files, name).get()
          : static_cast<const IdsTreeNode*>(Find(folder->folders, name).get());
  return found ? found->id : std::string();
}

std::optional<std::string> RemoteFileIds::GetPathById(const std::string& id) const {
  ReadLocker locker(&lock_);
  if (NodePtr file = Find(file_ids_, id)) {
    return CollectPath(file);
  }
  if (FolderPtr folder = Find(folder_ids_, id)) {
    return CollectPath(folder);
  }
  return std::nullopt;
}

std::optional<std::string> RemoteFileIds::CollectPath(const NodePtr& node) const {
  // 1. Climb to the root, checking that each node is where its parent says.
  std::size_t length = 0;
  const IdsTreeNode* top = node.get();
  for (; top->parent; top = top->parent) {
    if (!IsListedInParent(*top)) {
      LOG_FATAL << "Failed to find in parent.";
      return std::nullopt;
    }
    length += top->name.size() + 1;
  }
  if (top != root_.get()) {
    return std::nullopt;
  }
  // 2. Join the names from the far end, so that the string is built once.
  std::string path(length == 0 ? 0 : length - 1, '/');
  std::size_t end = path.size();
  for (const IdsTreeNode* item = node.get(); item->parent; item = item->parent) {
    end -= item->name.size();
    path.replace(end, item->name.size(), item->name);
    end = end == 0 ? 0 : end - 1;
  }
  return path;
}

bool RemoteFileIds::GetFileNameByPtr(const IdsTreeNode& node, std::string* name) const {
  if (!IsInParent(node)) {
    LOG_FATAL << "Failed to find name for item.";
    return false;
  }
  *name = node.name;
  return true;
}

bool RemoteFileIds::GetFolderNameByPtr(const IdsTreeFolderNode& node, std::string* name) const {
  if (!IsInParent(node)) {
    LOG_FATAL << "Failed to find name for item.";
    return false;
  }
  *name = node.name;
  return true;
}

std::string RemoteFileIds::GetNameById(const std::string& id) const {
  ReadLocker locker(&lock_);
  std::string name;
  if (NodePtr file = Find(file_ids_, id)) {
    if (!file->parent) {
      LOG_FATAL << "File with no parent.";
    } else {
      GetFileNameByPtr(*file, &name);
    }
    return name;
  }
  if (FolderPtr folder = Find(folder_ids_, id)) {
    if (folder == root_) {
      return name;
    }
    if (!folder->parent) {
      LOG_FATAL << "Non root folder with no parent.";
    } else {
      GetFolderNameByPtr(*folder, &name);
    }
    return name;
  }
  LOG_ERROR << "Id not found to get name: id=" << id;
  return name;
}

std::string RemoteFileIds::GetParentId(const std::string& id) const {
  ReadLocker locker(&lock_);
  if (NodePtr file = Find(file_ids_, id)) {
    if (!file->parent) {
      LOG_ERROR << "No parent in file: " << id << ", \"" << file->name << "\".";
      return std::string();
    }
    return file->parent->id;
  }
  if (FolderPtr folder = Find(folder_ids_, id)) {
    if (folder == root_) {
      LOG_ERROR << "There is no parent for root id: " << id;
      return std::string();
    }
    if (!folder->parent) {
      LOG_ERROR << "No parent in folder: " << id << ", \"" << folder->name << "\".";
      return std::string();
    }
    return folder->parent->id;
  }
  LOG_ERROR << "Id not found.";
  return std::string();
}

std::string RemoteFileIds::GetRootId() const {
  ReadLocker locker(&lock_);
  return root_ ? root_->id : std::string();
}

bool RemoteFileIds::HasFile(const std::string& id) const {
  ReadLocker locker(&lock_);
  return file_ids_.count(id) != 0;
}

bool RemoteFileIds::HasFolder(const std::string& id) const {
  ReadLocker locker(&lock_);
  return folder_ids_.count(id) != 0;
}

bool RemoteFileIds::IsDirectory(const std::string& id) const {
  // A lookup in a hash map that another thread rehashes may read freed buckets, so even this
  // momentary answer takes the read lock.
  ReadLocker locker(&lock_);
  return folder_ids_.count(id) != 0;
}

bool RemoteFileIds::ParentHasFile(const std::string& parent_id, const std::string& name) const {
  ReadLocker locker(&lock_);
  FolderPtr parent = Find(folder_ids_, parent_id);
  if (!parent) {
    LOG_ERROR << "Failed to find parent dir";
    return false;
  }
  return parent->files.count(name) != 0;
}

bool RemoteFileIds::ParentHasFolder(const std::string& parent_id, const std::string& name) const {
  ReadLocker locker(&lock_);
  FolderPtr parent = Find(folder_ids_, parent_id);
  if (!parent) {
    LOG_ERROR << "Failed to find parent dir";
    return false;
  }
  return parent->folders.count(name) != 0;
}

unsigned RemoteFileIds::GetItemsCount() const {
  return items_count_.load(std::memory_order_relaxed);
}

void RemoteFileIds::VisitSubtree(const std::string& folder_id,
                                 std::function<void(const std::string& id)> visitor) const {
  ReadLocker locker(&lock_);
  FolderPtr folder = Find(folder_ids_, folder_id);
  if (!folder) {
    LOG_ERROR << "No such folder id.";
    return;
  }
  VisitFolder(*folder, visitor);
}

void RemoteFileIds::VisitFolder(const IdsTreeFolderNode& folder,
                                const std::function<void(const std::string& id)>& visitor) const {
  visitor(folder.id);
  for (const auto& file : folder.files) {
    visitor(file.second->id);
  }
  for (const auto& child : folder.folders) {
    VisitFolder(*child.second, visitor);
  }
}

bool RemoteFileIds::MoveFileW(const std::string& id, const std::string& old_name,
                              const std::string& new_parent_id, const std::string& new_name) {
  return MoveItem(file_ids_, id, old_name, new_parent_id, new_name);
}

bool RemoteFileIds::MoveFolder(const std::string& id, const std::string& old_name,
                               const std::string& new_parent_id, const std::string& new_name) {
  return MoveItem(folder_ids_, id, old_name, new_parent_id, new_name);
}

bool RemoteFileIds::RemoveFile(const std::string& name, const std::string& id) {
  return RemoveFile(name, id, false);
}

bool RemoteFileIds::RemoveFolder(const std::string& name, const std::string& id) {
  return RemoveFolder(name, id, false);
}

bool RemoteFileIds::RemoveNotLinkedFile(const std::string& name, const std::string& id) {
  return RemoveFile(name, id, true);
}

bool RemoteFileIds::RemoveNotLinkedFolder(const std::string& name, const std::string& id) {
  return RemoveFolder(name, id, true);
}

bool RemoteFileIds::RemoveFile(const std::string& name, const std::string& id, bool not_linked) {
  WriteLocker locker(&lock_);
  NodePtr node = Find(file_ids_, id);
  if (!node) {
    LOG_ERROR << "No file found with id " << id;
    return false;
  }
  if (node->parent) {
    if (Find(node->parent->files, name) != node) {
      LOG_FATAL << "Invalid name.";
      return false;
    }
    node->parent->files.erase(name);
  } else if (!not_linked) {
    LOG_FATAL << "No parent, removing " << name << "(" << id << ").";
    return false;
  }
  file_ids_.erase(node->id);
  UpdateItemsCount();
  return true;
}

bool RemoteFileIds::RemoveFolder(const std::string& name, const std::string& id, bool not_linked) {
  WriteLocker locker(&lock_);
  FolderPtr node = Find(folder_ids_, id);
  if (!node) {
    LOG_ERROR << "No folder found with id " << id;
    return false;
  }
  if (node == root_) {
    LOG_ERROR << "The root folder can't be removed.";
    return false;
  }
  if (node->parent && Find(node->parent->folders, name) != node) {
    LOG_FATAL << "Invalid name.";
    return false;
  }
  if (!node->parent && !not_linked) {
    LOG_FATAL << "No parent, removing " << name << "(" << id << ").";
    return false;
  }
  if (!RemoveFolderContents(node)) {
    LOG_FATAL << "Failed remove.";
    UpdateItemsCount();
    return false;
  }
  if (node->parent) {
    node->parent->folders.erase(name);
  }
  folder_ids_.erase(node->id);
  UpdateItemsCount();
  return true;
}

bool RemoteFileIds::RemoveFolderContents(const FolderPtr& folder) {
  // 1. Files: each must be the node that the file index holds.
  for (const auto& file : folder->files) {
    auto it = file_ids_.find(file.second->id);
    if (it == file_ids_.end() || it->second != file.second) {
      LOG_FATAL << "Failed to find file. Corrupted, file id is " << file.second->id
                << " , parent id is " << folder->id << ".";
      return false;
    }
    file_ids_.erase(it);
  }
  folder->files.clear();
  // 2. Subfolders, depth first, each leaving the index once its own contents are gone.
  while (!folder->folders.empty()) {
    FolderPtr child = folder->folders.begin()->second;
    auto it = folder_ids_.find(child->id);
    if (it == folder_ids_.end() || it->second != child) {
      LOG_FATAL << "Corrupted.";
      return false;
    }
    if (!RemoveFolderContents(child)) {
      LOG_FATAL << "Failed to remove.";
      return false;
    }
    folder->folders.erase(folder->folders.begin());
    folder_ids_.erase(child->id);
  }
  return true;
}

void RemoteFileIds::AddTrashed(const std::string& id) {
  WriteLocker locker(&lock_);
  trashed_.insert(id);
}

void RemoteFileIds::RemoveTrashed(const std::string& id) {
  WriteLocker locker(&lock_);
  trashed_.erase(id);
}

bool RemoteFileIds::IsTrashed(const std::string& id) const {
  ReadLocker locker(&lock_);
  return trashed_.count(id) != 0;
}

bool RemoteFileIds::AddMappingInfo(const std::string& id, const std::string& original_name,
                                   const std::string& mapped_name) {
  WriteLocker locker(&lock_);
  if (!mapped_names_.emplace(id, std::make_pair(original_name, mapped_name)).second) {
    LOG_ERROR << "Mapping info already exists for id " << id << "; while trying to set "
              << original_name << " -> " << mapped_name;
    return false;
  }
  return true;
}

bool RemoteFileIds::RemoveMappingInfo(const std::string& id) {
  WriteLocker locker(&lock_);
  if (mapped_names_.erase(id) == 0) {
    LOG_ERROR << "No mapping info found for " << id;
    return false;
  }
  return true;
}

bool RemoteFileIds::HasMappedName(const std::string& id) const {
  ReadLocker locker(&lock_);
  return mapped_names_.count(id) != 0;
}

std::string RemoteFileIds::MappedGetMappedName(const std::string& id) const {
  ReadLocker locker(&lock_);
  auto it = mapped_names_.find(id);
  if (it == mapped_names_.end()) {
    LOG_ERROR << "File has no mapped name";
    return std::string();
  }
  return it->second.second;
}

std::string RemoteFileIds::MappedGetOriginalName(const std::string& id) const {
  ReadLocker locker(&lock_);
  auto it = mapped_names_.find(id);
  if (it == mapped_names_.end()) {
    LOG_ERROR << "File has no mapped name";
    return std::string();
  }
  return it->second.first;
}

bool RemoteFileIds::Serialize(const std::atomic<bool>* stop, std::ostream& out) const {
  ReadLocker locker(&lock_);
  return RemoteFileIdsSerializerText().Serialize(const_cast<RemoteFileIds*>(this), stop, out);
}

bool RemoteFileIds::Deserialize(const std::atomic<bool>* stop, std::stringstream& in,
                                RemoteFileIds* ids) {
  return RemoteFileIdsSerializerText().Deserialize(stop, ids, in);
}

template <typename Node>
bool RemoteFileIds::AddItem(Index<Node>& index, const std::string& id, const std::string& name,
                            const std::string& parent_id, bool not_linked) {
  if (!not_linked && parent_id.empty()) {
    LOG_FATAL << "Empty parent id while adding " << Kind<Node>::kLower << " " << name << " (" << id
              << ").";
    return false;
  }
  WriteLocker locker(&lock_);
  // 1. Find the parent, unless the item waits for it.
  IdsTreeFolderNode* parent = nullptr;
  if (!not_linked) {
    parent = Find(folder_ids_, parent_id).get();
    if (!parent) {
      LOG_ERROR << "No parent found with id " << parent_id;
      return false;
    }
  }
  // 2. An id lives in one index only.
  const bool taken = Kind<Node>::kFolder ? file_ids_.count(id) : folder_ids_.count(id);
  if (taken) {
    LOG_ERROR << "Id " << id << " is known as a " << Kind<Node>::kOther << " already.";
    return false;
  }
  // 3. A known id keeps its node, and its subtree, and moves; a new one gets a node.
  std::shared_ptr<Node> node = Find(index, id);
  const bool is_new = !node;
  if (is_new) {
    node = std::make_shared<Node>(id, std::string());
  }
  if (parent && !Attach(node, parent, name)) {
    return false;
  }
  if (is_new) {
    index.emplace(node->id, node);
  }
  // 4. An item added again is back from the trash.
  trashed_.erase(id);
  UpdateItemsCount();
  return true;
}

template <typename Node>
bool RemoteFileIds::LinkItem(const Index<Node>& index, const std::string& id,
                             const std::string& name, const std::string& parent_id) {
  WriteLocker locker(&lock_);
  IdsTreeFolderNode* parent = Find(folder_ids_, parent_id).get();
  if (!parent) {
    LOG_ERROR << "No parent found with id " << parent_id;
    return false;
  }
  std::shared_ptr<Node> node = Find(index, id);
  if (!node) {
    LOG_ERROR << "No " << Kind<Node>::kLower << " found with id " << id;
    return false;
  }
  if (node->parent) {
    LOG_ERROR << Kind<Node>::kUpper << " is already linked to " << node->parent->id;
    return false;
  }
  return Attach(node, parent, name);
}

template <typename Node>
bool RemoteFileIds::MoveItem(const Index<Node>& index, const std::string& id,
                             const std::string& old_name, const std::string& new_parent_id,
                             const std::string& new_name) {
  WriteLocker locker(&lock_);
  std::shared_ptr<Node> node = Find(index, id);
  if (!node) {
    LOG_FATAL << "Failed to find old " << Kind<Node>::kLower << " id.";
    return false;
  }
  IdsTreeFolderNode* new_parent = Find(folder_ids_, new_parent_id).get();
  if (!new_parent) {
    LOG_FATAL << "Failed to find new parent folder id.";
    return false;
  }
  if (!node->parent) {
    LOG_FATAL << "Parent is null.";
    return false;
  }
  if (Find(ChildrenOf(*node->parent, node.get()), old_name) != node) {
    LOG_FATAL << "Failed to find folder in parent. Structure is corrupted.";
    return false;
  }
  return Attach(node, new_parent, new_name);
}

template <typename Node>
bool RemoteFileIds::Attach(const std::shared_ptr<Node>& node, IdsTreeFolderNode* parent,
                           const std::string& name) {
  if (static_cast<const IdsTreeNode*>(node.get()) == root_.get() ||
      WouldMakeCycle(node.get(), parent)) {
    LOG_ERROR << "Can't put " << node->id << " under " << parent->id
              << ": it would be inside itself.";
    return false;
  }
  Detach(*node);
  auto& children = ChildrenOf(*parent, node.get());
  auto held = children.find(name);
  if (held != children.end()) {
    LOG_WARNING << "Name \"" << name << "\" in " << parent->id << " passes from "
                << held->second->id << " to " << node->id << ".";
    held->second->parent = nullptr;
    children.erase(held);
  }
  node->name = name;
  node->parent = parent;
  children.emplace(node->name, node);
  return true;
}

template <typename Node>
void RemoteFileIds::Detach(Node& node) {
  if (node.parent) {
    auto& children = ChildrenOf(*node.parent, &node);
    auto it = children.find(node.name);
    if (it != children.end() && it->second.get() == &node) {
      children.erase(it);
    }
    node.parent = nullptr;
  }
  node.name.clear();
}

void RemoteFileIds::UpdateItemsCount() {
  items_count_.store(static_cast<unsigned>(folder_ids_.size() + file_ids_.size()),
                     std::memory_order_relaxed);
}

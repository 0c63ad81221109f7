#include "core/Nodes.h"

#include <algorithm>
#include <functional>
#include <unordered_map>
#include <vector>

#include "core/UnicodeLower.h"

namespace {

bool AllComponentsValid(std::string_view path) {
  for (std::size_t start = 0;;) {
    std::size_t slash = path.find('/', start);
    if (!ChildNode::IsValidName(path.substr(start, slash - start)))
      return false;
    if (slash == std::string_view::npos)
      return true;
    start = slash + 1;
  }
}

}  // namespace

namespace detail {

bool NameLess::operator()(const ChildNode& a, const ChildNode& b) const {
  return a.GetName() < b.GetName();
}
bool NameLess::operator()(std::string_view a, const ChildNode& b) const {
  return a < std::string_view(b.GetName());
}
bool NameLess::operator()(const ChildNode& a, std::string_view b) const {
  return std::string_view(a.GetName()) < b;
}

}  // namespace detail

// ChildNode

void ChildNode::SetParent(FolderNode* parent) {
  static_assert(alignof(FolderNode) > kAllFlags, "the flags must fit below a folder's alignment");
  parent_and_flags_ = reinterpret_cast<std::uintptr_t>(parent) | Flags();
}

bool ChildNode::SetChanged(bool changed) {
  SetFlags(changed ? (Flags() | kChanged) : (Flags() & ~kChanged));
  return true;
}

bool ChildNode::SetTime(std::uint64_t time) {
  time_ = time;
  return true;
}

bool ChildNode::SetServiceItem(bool service_item) {
  SetFlags(service_item ? (Flags() | kServiceItem) : (Flags() & ~kServiceItem));
  return true;
}

std::string ChildNode::CollectPath() const {
  std::vector<const ChildNode*> chain;
  for (const ChildNode* node = this; node->GetParent() != nullptr; node = node->GetParent())
    chain.push_back(node);
  std::string path;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if (!path.empty())
      path += '/';
    path += (*it)->name_;
  }
  return path;
}

bool ChildNode::IsValidName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

bool ChildNode::SetName(std::string&& name) {
  if (GetParent() != nullptr || !IsValidName(name))
    return false;
  name_ = std::move(name);
  return true;
}

// FileNode

FileNode::FileNode(std::uint64_t inode, const SomeHash& hash, std::uint64_t size,
                   std::uint64_t time, bool readonly, bool changed)
    : hash(hash), size(size), inode_(inode) {
  SetTime(time);
  SetReadonly(readonly);
  SetChanged(changed);
}

bool FileNode::SetHash(const SomeHash& new_hash) {
  hash = new_hash;
  return true;
}

bool FileNode::SetProperties(const SomeHash& new_hash, std::uint64_t new_size, std::uint64_t time,
                             std::uint64_t inode) {
  hash = new_hash;
  size = new_size;
  inode_ = inode;
  return SetTime(time);
}

bool FileNode::SetReadonly(bool readonly) {
  SetFlags(
      static_cast<std::uint8_t>((Flags() & ~kReadonlyMask) | (readonly ? 1 << kReadonlyShift : 0)));
  return true;
}

bool FileNode::SetSize(std::uint64_t new_size, bool mark_changed) {
  size = new_size;
  return !mark_changed || SetChanged(true);
}

// FolderNode: teardown and creation

FolderNode::~FolderNode() {
  Clear();
}

void FolderNode::Clear() {
  // A deep chain of folders would overflow the stack if each destructor freed its subfolders:
  // detach every folder below onto a list first, so each one is empty when it is deleted.
  std::vector<FolderNode*> pending;
  auto take_folder = [&pending](FolderNode* folder) {
    folder->SetParent(nullptr);
    pending.push_back(folder);
  };
  auto delete_file = [](FileNode* file) { delete file; };
  ChildrenChanged();
  files_.clear_and_dispose(delete_file);
  folders_.clear_and_dispose(take_folder);
  while (!pending.empty()) {
    FolderNode* folder = pending.back();
    pending.pop_back();
    folder->files_.clear_and_dispose(delete_file);
    folder->folders_.clear_and_dispose(take_folder);
    delete folder;
  }
}

UniqueNodePtr<FileNode> FolderNode::MakeFile(std::string name, std::uint64_t size,
                                             const SomeHash& hash, std::uint64_t time,
                                             std::uint64_t inode, bool readonly) {
  UniqueNodePtr<FileNode> file(new FileNode(inode, hash, size, time, readonly, false));
  file->name_ = std::move(name);
  return file;
}

UniqueNodePtr<FolderNode> FolderNode::MakeFolder(std::string name, std::uint64_t time) const {
  UniqueNodePtr<FolderNode> folder = CreateInstance();
  folder->name_ = std::move(name);
  folder->SetTime(time);
  return folder;
}

UniqueNodePtr<FolderNode> FolderNode::CreateInstance() const {
  return std::make_unique<FolderNode>();
}

// FolderNode: lookups

// Case-insensitive lookups in a large folder go through an index from the hash of each lowered
// name to its nodes, made on the first such lookup (about 40 bytes a child) and kept in step with
// each child that comes or goes: the builders that look before each insertion would otherwise
// make it again for every child, which is quadratic in the size of the folder.
// A scan of scattered nodes costs a cache miss per child.
struct FolderNode::LowerIndex {
  std::unordered_multimap<std::size_t, FileNode*> files;
  std::unordered_multimap<std::size_t, FolderNode*> folders;

  template <typename T>
  std::unordered_multimap<std::size_t, T*>& Of() {
    if constexpr (std::is_same_v<T, FileNode>)
      return files;
    else
      return folders;
  }

  // `node` is a child of `folder` now.
  template <typename T>
  static void Added(const FolderNode& folder, T* node) {
    if (folder.lower_index_)
      folder.lower_index_->Of<T>().emplace(Hash(utils::UnicodeToLower(node->GetName())), node);
  }

  // `node`, still under the name it was indexed by, leaves `folder`.
  template <typename T>
  static void Leaving(const FolderNode& folder, T* node) {
    if (!folder.lower_index_)
      return;
    auto& nodes = folder.lower_index_->Of<T>();
    auto range = nodes.equal_range(Hash(utils::UnicodeToLower(node->GetName())));
    for (auto it = range.first; it != range.second; ++it) {
      if (it->second == node) {
        nodes.erase(it);
        return;
      }
    }
  }
};

void FolderNode::LowerIndexDeleter::operator()(LowerIndex* index) const {
  delete index;
}

void FolderNode::ChildrenChanged() {
  lower_index_.reset();
}

template <typename T, typename Visit>
void FolderNode::VisitLowerMatches(const detail::ChildSet<T>& const_set, const std::string& lowered,
                                   Visit visit) const {
  auto& set = const_cast<detail::ChildSet<T>&>(const_set);
  constexpr std::size_t kIndexedFrom = 32;
  if (set.size() < kIndexedFrom) {
    for (T& child : set) {
      if (utils::EqualsLowered(child.GetName(), lowered) && !visit(&child))
        return;
    }
    return;
  }
  if (!lower_index_) {
    lower_index_.reset(new LowerIndex);
    for (FileNode& file : const_cast<detail::ChildSet<FileNode>&>(files_))
      lower_index_->files.emplace(Hash(utils::UnicodeToLower(file.GetName())), &file);
    for (FolderNode& folder : const_cast<detail::ChildSet<FolderNode>&>(folders_))
      lower_index_->folders.emplace(Hash(utils::UnicodeToLower(folder.GetName())), &folder);
  }
  auto range = lower_index_->Of<T>().equal_range(Hash(lowered));
  for (auto it = range.first; it != range.second; ++it) {
    if (utils::EqualsLowered(it->second->GetName(), lowered) && !visit(it->second))
      return;
  }
}

std::size_t FolderNode::Hash(const std::string& lowered) {
  return std::hash<std::string>()(lowered);
}

template <typename T>
detail::ChildIter<T> FolderNode::Find(const detail::ChildSet<T>& const_set, std::string_view name,
                                      bool case_insensitive, bool* ambiguous) const {
  // The sets belong to this folder; lookups hand out iterators that may change the children.
  auto& set = const_cast<detail::ChildSet<T>&>(const_set);
  if (ambiguous != nullptr)
    *ambiguous = false;
  auto exact = set.find(name, detail::NameLess());
  if (!case_insensitive)
    return detail::ChildIter<T>(exact);

  T* first = exact == set.end() ? nullptr : &*exact;
  std::size_t others = 0;
  VisitLowerMatches(set, utils::UnicodeToLower(name), [&](T* match) {
    if (exact != set.end() && match == &*exact)
      return true;
    ++others;
    if (exact == set.end() && (first == nullptr || match->GetName() < first->GetName()))
      first = match;
    return true;
  });
  if (ambiguous != nullptr)
    *ambiguous = (exact != set.end() ? 1 : 0) + others > 1;
  return first == nullptr ? detail::ChildIter<T>(set.end())
                          : detail::ChildIter<T>(set.iterator_to(*first));
}

FolderNode::FileIterator FolderNode::FindFile(std::string_view name, bool case_insensitive,
                                              bool* ambiguous) const {
  return Find(files_, name, case_insensitive, ambiguous);
}

FolderNode::FolderIterator FolderNode::FindFolder(std::string_view name, bool case_insensitive,
                                                  bool* ambiguous) const {
  return Find(folders_, name, case_insensitive, ambiguous);
}

FileNode* FolderNode::GetFile(std::string_view name, bool case_insensitive, bool* ambiguous) const {
  FileIterator it = FindFile(name, case_insensitive, ambiguous);
  return it == FilesEnd() ? nullptr : *it;
}

FolderNode* FolderNode::GetFolder(std::string_view name, bool case_insensitive,
                                  bool* ambiguous) const {
  FolderIterator it = FindFolder(name, case_insensitive, ambiguous);
  return it == FoldersEnd() ? nullptr : *it;
}

bool FolderNode::HasFile(std::string_view name, bool case_insensitive) const {
  return GetFile(name, case_insensitive) != nullptr;
}

bool FolderNode::HasFolder(std::string_view name, bool case_insensitive) const {
  return GetFolder(name, case_insensitive) != nullptr;
}

bool FolderNode::HasChild(std::string_view name, bool case_insensitive) const {
  return HasFile(name, case_insensitive) || HasFolder(name, case_insensitive);
}

bool FolderNode::HasFileNamedLike(const ChildNode* node, bool case_insensitive,
                                  bool* ambiguous) const {
  return NamedLike(files_, node, case_insensitive, ambiguous);
}

bool FolderNode::HasFolderNamedLike(const ChildNode* node, bool case_insensitive,
                                    bool* ambiguous) const {
  return NamedLike(folders_, node, case_insensitive, ambiguous);
}

template <typename T>
bool FolderNode::NamedLike(const detail::ChildSet<T>& set, const ChildNode* node,
                           bool case_insensitive, bool* ambiguous) const {
  if (ambiguous != nullptr)
    *ambiguous = false;
  if (!case_insensitive) {
    auto it = set.find(std::string_view(node->GetName()), detail::NameLess());
    return it != set.end() && &*it != node;
  }
  std::size_t matches = 0;
  VisitLowerMatches(set, utils::UnicodeToLower(node->GetName()), [&](const T* match) {
    if (match != node)
      ++matches;
    return matches < 2;
  });
  if (ambiguous != nullptr)
    *ambiguous = matches > 1;
  return matches > 0;
}

bool FolderNode::IsEmpty() const {
  return files_.empty() && folders_.empty();
}

FolderNode::FileIterator FolderNode::FilesBegin() const {
  return FileIterator(const_cast<detail::ChildSet<FileNode>&>(files_).begin());
}
FolderNode::FileIterator FolderNode::FilesEnd() const {
  return FileIterator(const_cast<detail::ChildSet<FileNode>&>(files_).end());
}
FolderNode::FolderIterator FolderNode::FoldersBegin() const {
  return FolderIterator(const_cast<detail::ChildSet<FolderNode>&>(folders_).begin());
}
FolderNode::FolderIterator FolderNode::FoldersEnd() const {
  return FolderIterator(const_cast<detail::ChildSet<FolderNode>&>(folders_).end());
}

// FolderNode: changes

ChildNode* FolderNode::ChildNamed(std::string_view name, const ChildNode* moving) const {
  auto file = files_.find(name, detail::NameLess());
  if (file != files_.end() && &*file != moving)
    return const_cast<FileNode*>(&*file);
  auto folder = folders_.find(name, detail::NameLess());
  if (folder != folders_.end() && &*folder != moving)
    return const_cast<FolderNode*>(&*folder);
  return nullptr;
}

template <typename T>
FolderNode::ResultInsert<T> FolderNode::InsertTry(detail::ChildSet<T>& set,
                                                  UniqueNodePtr<T>&& node) {
  ResultInsert<T> result;
  if (!node || node->GetParent() != nullptr || !IsValidName(node->GetName())) {
    result.status = ResultInsert<T>::BAD_NAME;
    return result;
  }
  result.existing = ChildNamed(node->GetName(), nullptr);
  if (result.existing != nullptr) {
    result.status = ResultInsert<T>::EXISTS;
    return result;
  }
  if constexpr (std::is_same_v<T, FolderNode>) {
    // Only a folder with subfolders can hold this one; a fresh node skips the walk up.
    if (this == node.get() || (!node->folders_.empty() && IsInside(node.get()))) {
      result.status = ResultInsert<T>::LOOP;
      return result;
    }
  }
  T* raw = node.release();
  raw->SetParent(this);
  set.insert(*raw);
  LowerIndex::Added(*this, raw);
  result.status = ResultInsert<T>::INSERTED;
  result.node = raw;
  return result;
}

FolderNode::ResultInsert<FileNode> FolderNode::InsertFileTry(UniqueNodePtr<FileNode>&& node) {
  return InsertTry(files_, std::move(node));
}

FolderNode::ResultInsert<FolderNode> FolderNode::InsertFolderTry(UniqueNodePtr<FolderNode>&& node) {
  return InsertTry(folders_, std::move(node));
}

template <typename T>
FolderNode::ResultInsert<T> FolderNode::RenameTry(detail::ChildSet<T>& set, detail::ChildIter<T> it,
                                                  std::string&& new_name) {
  ResultInsert<T> result;
  if (!IsValidName(new_name)) {
    result.status = ResultInsert<T>::BAD_NAME;
    return result;
  }
  T* node = *it;
  result.existing = ChildNamed(new_name, node);
  if (result.existing != nullptr) {
    result.status = ResultInsert<T>::EXISTS;
    return result;
  }
  LowerIndex::Leaving(*this, node);
  set.erase(it.base());
  node->name_ = std::move(new_name);
  set.insert(*node);
  LowerIndex::Added(*this, node);
  result.status = ResultInsert<T>::INSERTED;
  result.node = node;
  return result;
}

FolderNode::ResultInsert<FileNode> FolderNode::RenameFileTry(FileIterator it,
                                                             std::string new_name) {
  return RenameTry(files_, it, std::move(new_name));
}

FolderNode::ResultInsert<FolderNode> FolderNode::RenameFolderTry(FolderIterator it,
                                                                 std::string new_name) {
  return RenameTry(folders_, it, std::move(new_name));
}

template <typename T>
UniqueNodePtr<T> FolderNode::Remove(detail::ChildSet<T>& set, detail::ChildIter<T> it) {
  T* node = *it;
  LowerIndex::Leaving(*this, node);
  set.erase(it.base());
  node->SetParent(nullptr);
  return UniqueNodePtr<T>(node);
}

UniqueNodePtr<FileNode> FolderNode::RemoveFile(FileIterator it) {
  return Remove(files_, it);
}

UniqueNodePtr<FolderNode> FolderNode::RemoveFolder(FolderIterator it) {
  return Remove(folders_, it);
}

FileNode* FolderNode::CreateFileW(std::string_view name, std::uint64_t size, const SomeHash& hash,
                                  std::uint64_t time, std::uint64_t inode, bool readonly) {
  return InsertFileTry(MakeFile(std::string(name), size, hash, time, inode, readonly)).node;
}

FolderNode* FolderNode::CreateFolder(std::string_view name, std::uint64_t time) {
  return InsertFolderTry(MakeFolder(std::string(name), time)).node;
}

bool FolderNode::DeleteFileW(std::string_view name) {
  FileIterator it = FindFile(name);
  if (it == FilesEnd())
    return false;
  RemoveFile(it);
  return true;
}

bool FolderNode::DeleteFolder(std::string_view name) {
  FolderIterator it = FindFolder(name);
  if (it == FoldersEnd())
    return false;
  RemoveFolder(it);
  return true;
}

bool FolderNode::IsInside(const FolderNode* ancestor) const {
  for (const FolderNode* folder = this; folder != nullptr; folder = folder->GetParent()) {
    if (folder == ancestor)
      return true;
  }
  return false;
}

template <>
detail::ChildSet<FileNode>& FolderNode::Children<FileNode>() {
  return files_;
}

template <>
detail::ChildSet<FolderNode>& FolderNode::Children<FolderNode>() {
  return folders_;
}

template <typename T>
FolderNode::ResultInsert<T> FolderNode::MoveFrom(FolderNode* from, std::string_view name,
                                                 std::string&& new_name) {
  ResultInsert<T> result;
  if (from == nullptr) {
    return result;
  }
  detail::ChildSet<T>& from_set = from->Children<T>();
  auto it = from_set.find(name, detail::NameLess());
  if (it == from_set.end())
    return result;
  T* node = &*it;
  if (from == this)
    return RenameTry(from_set, detail::ChildIter<T>(it), std::move(new_name));
  if (!IsValidName(new_name)) {
    result.status = ResultInsert<T>::BAD_NAME;
    return result;
  }
  result.existing = ChildNamed(new_name, nullptr);
  if (result.existing != nullptr) {
    result.status = ResultInsert<T>::EXISTS;
    return result;
  }
  if constexpr (std::is_same_v<T, FolderNode>) {
    if (IsInside(node)) {
      result.status = ResultInsert<T>::LOOP;
      return result;
    }
  }
  LowerIndex::Leaving(*from, node);
  from_set.erase(it);
  node->name_ = std::move(new_name);
  node->SetParent(this);
  Children<T>().insert(*node);
  LowerIndex::Added(*this, node);
  result.status = ResultInsert<T>::INSERTED;
  result.node = node;
  return result;
}

bool FolderNode::MoveFileW(FolderNode* from, std::string_view name, FolderNode* to,
                           std::string new_name) {
  return to != nullptr && to->MoveFrom<FileNode>(from, name, std::move(new_name));
}

bool FolderNode::MoveFolder(FolderNode* from, std::string_view name, FolderNode* to,
                            std::string new_name) {
  return to != nullptr && to->MoveFrom<FolderNode>(from, name, std::move(new_name));
}

FolderNode::ResultInsert<FolderNode> FolderNode::MoveFolderFromTry(FolderNode* from,
                                                                   std::string_view name,
                                                                   std::string new_name) {
  return MoveFrom<FolderNode>(from, name, std::move(new_name));
}

bool FolderNode::DeepCopyContentFrom(const FolderNode* other) {
  // A source below this folder would go with the Clear; one above it would grow while copied.
  if (other == nullptr || other->IsInside(this) || IsInside(other))
    return false;
  Clear();
  // Copies level by level with an explicit list, for the same reason as Clear.
  std::vector<std::pair<const FolderNode*, FolderNode*>> pending{{other, this}};
  while (!pending.empty()) {
    auto [source, target] = pending.back();
    pending.pop_back();
    target->SetFlags(source->Flags());
    for (const FileNode& file : source->files_) {
      UniqueNodePtr<FileNode> copy =
          MakeFile(file.GetName(), file.size, file.hash, file.GetTime(), file.inode_, false);
      copy->SetFlags(file.Flags());
      copy->SetParent(target);
      target->files_.insert(target->files_.end(), *copy.release());
    }
    for (const FolderNode& folder : source->folders_) {
      UniqueNodePtr<FolderNode> copy = target->MakeFolder(folder.GetName(), folder.GetTime());
      copy->SetParent(target);
      FolderNode* raw = copy.release();
      target->folders_.insert(target->folders_.end(), *raw);
      pending.emplace_back(&folder, raw);
    }
  }
  SetFlags(other->Flags());
  return true;
}

// FolderNode: paths

std::tuple<FolderNode*, std::string_view> FolderNode::Walk(std::string_view path,
                                                           bool case_insensitive, bool* ambiguous,
                                                           bool create,
                                                           FolderNode** first_created) {
  if (ambiguous != nullptr)
    *ambiguous = false;
  if (first_created != nullptr)
    *first_created = nullptr;
  // A path that would fail half-way creates nothing.
  if (create && !AllComponentsValid(path))
    return {nullptr, std::string_view()};
  FolderNode* folder = this;
  std::string_view rest = path;
  for (;;) {
    std::size_t slash = rest.find('/');
    std::string_view name = rest.substr(0, slash);
    if (!IsValidName(name))
      return {nullptr, std::string_view()};
    if (slash == std::string_view::npos)
      return {folder, name};
    bool step_ambiguous = false;
    FolderNode* next = folder->GetFolder(name, case_insensitive, &step_ambiguous);
    if (ambiguous != nullptr)
      *ambiguous = *ambiguous || step_ambiguous;
    if (next == nullptr && create) {
      next = folder->CreateFolder(name);
      if (first_created != nullptr && *first_created == nullptr)
        *first_created = next;
    }
    if (next == nullptr)
      return {nullptr, std::string_view()};
    folder = next;
    rest = rest.substr(slash + 1);
  }
}

std::tuple<FolderNode*, std::string_view> FolderNode::TraversePath(std::string_view path,
                                                                   bool case_insensitive,
                                                                   bool* ambiguous) const {
  return const_cast<FolderNode*>(this)->Walk(path, case_insensitive, ambiguous, false, nullptr);
}

FolderNode* FolderNode::GetFolderAtPath(std::string_view path, bool case_insensitive) const {
  if (path.empty())
    return const_cast<FolderNode*>(this);
  auto [parent, name] = TraversePath(path, case_insensitive);
  return parent == nullptr ? nullptr : parent->GetFolder(name, case_insensitive);
}

FolderNode* FolderNode::TraversePathAndCreateDirs(std::string_view path, std::string_view* name,
                                                  bool case_insensitive, bool* ambiguous,
                                                  FolderNode** first_created) {
  auto [parent, last] = Walk(path, case_insensitive, ambiguous, true, first_created);
  if (parent != nullptr && name != nullptr)
    *name = last;
  return parent;
}

// FolderNode: whole subtree

std::uint64_t FolderNode::FolderSize(WithServiceItems with_service_items) const {
  std::uint64_t total = 0;
  std::vector<const FolderNode*> pending{this};
  while (!pending.empty()) {
    const FolderNode* folder = pending.back();
    pending.pop_back();
    for (const FileNode& file : folder->files_) {
      if (with_service_items.value() || !file.IsServiceItem())
        total += file.size;
    }
    for (const FolderNode& child : folder->folders_) {
      if (with_service_items.value() || !child.IsServiceItem())
        pending.push_back(&child);
    }
  }
  return total;
}

bool FolderNode::SetChangedDown() {
  std::vector<FolderNode*> pending{this};
  while (!pending.empty()) {
    FolderNode* folder = pending.back();
    pending.pop_back();
    folder->SetChanged(true);
    for (FileNode& file : folder->files_)
      file.SetChanged(true);
    for (FolderNode& child : folder->folders_)
      pending.push_back(&child);
  }
  return true;
}

bool FolderNode::SetReadonly(ReadonlyStatus status) {
  SetFlags(static_cast<std::uint8_t>((Flags() & ~kReadonlyMask) | (status << kReadonlyShift)));
  return true;
}

// The in-memory tree that the client shows as a disk: folders own their children, kept in two
// name-sorted containers (files and folders), so a listing of millions of items stays compact.
//
//   FolderNode root;
//   FolderNode* docs = root.CreateFolder("docs");
//   FileNode* file = docs->CreateFileW("a.txt", 12, SomeHash(std::string("etag")), mtime);
//   auto [parent, name] = root.TraversePath("docs/a.txt");
//   for (auto it = parent->FilesBegin(); it != parent->FilesEnd(); ++it) use(it->GetName());
//
// Operations answer false (or a failed ResultInsert) and never log: the caller knows what the
// failure means. A name that is empty, ".", "..", or holds '/' or a NUL byte is refused, so no
// listing of a server can place an item outside the folder it describes.
//
// Case-insensitive lookups compare the Unicode lower case of the names; when more than one child
// matches, `*ambiguous` turns true and an exact match, if any, is preferred.
//
// Not thread-safe: one thread at a time works on one tree.
#pragma once

#include <boost/intrusive/set.hpp>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>

#include "core/SomeHash.h"
#include "core/TaggedBool.h"

class ChildNode;
class FileNode;
class FolderNode;

// Owner of a node that belongs to no folder yet. Deleting a folder frees its whole subtree
// without recursion, so a plain deleter does.
template <typename T>
using UniqueNodePtr = std::unique_ptr<T>;

namespace detail {

// The node carries its own links (three words), so a child costs no allocation besides itself.
using NodeHook =
    boost::intrusive::set_base_hook<boost::intrusive::optimize_size<true>,
                                    boost::intrusive::link_mode<boost::intrusive::normal_link>>;

struct NameLess {
  bool operator()(const ChildNode& a, const ChildNode& b) const;
  bool operator()(std::string_view a, const ChildNode& b) const;
  bool operator()(const ChildNode& a, std::string_view b) const;
};

template <typename T>
using ChildSet = boost::intrusive::set<T, boost::intrusive::base_hook<NodeHook>,
                                       boost::intrusive::compare<NameLess>,
                                       boost::intrusive::constant_time_size<true>>;

// Iterator over the children of one kind, in name order. `*it` and `it->` give the node.
template <typename T>
class ChildIter {
 public:
  using Base = typename ChildSet<T>::iterator;
  using iterator_category = std::bidirectional_iterator_tag;
  using value_type = T*;
  using difference_type = std::ptrdiff_t;
  using pointer = T*;
  using reference = T*;

  ChildIter() = default;
  explicit ChildIter(Base base) : base_(base) {}

  T* operator*() const { return &*base_; }
  T* operator->() const { return &*base_; }
  ChildIter& operator++() {
    ++base_;
    return *this;
  }
  ChildIter operator++(int) {
    ChildIter old = *this;
    ++base_;
    return old;
  }
  ChildIter& operator--() {
    --base_;
    return *this;
  }
  ChildIter operator--(int) {
    ChildIter old = *this;
    --base_;
    return old;
  }
  bool operator==(const ChildIter& other) const { return base_ == other.base_; }
  bool operator!=(const ChildIter& other) const { return base_ != other.base_; }
  Base base() const { return base_; }

 private:
  Base base_;
};

}  // namespace detail

class ChildNode : public detail::NodeHook {
 public:
  ChildNode(const ChildNode&) = delete;
  ChildNode& operator=(const ChildNode&) = delete;
  virtual ~ChildNode() = default;

  const std::string& GetName() const { return name_; }
  FolderNode* GetParent() const {
    return reinterpret_cast<FolderNode*>(parent_and_flags_ & ~std::uintptr_t{kAllFlags});
  }
  std::uint64_t GetTime() const { return time_; }
  bool IsChanged() const { return Flags() & kChanged; }
  // An item the service keeps for itself (metainfo and the like), left out of a folder's size
  // unless asked for.
  bool IsServiceItem() const { return Flags() & kServiceItem; }

  // The setters answer true: they cannot fail on a valid node.
  bool SetChanged(bool changed);
  bool SetTime(std::uint64_t time);
  bool SetServiceItem(bool service_item);

  // The path from the root, names joined by '/', no leading slash; the root's is empty.
  std::string CollectPath() const;

  // False for "", ".", "..", and names holding '/' or a NUL byte.
  static bool IsValidName(std::string_view name);

 protected:
  ChildNode() = default;
  ChildNode(std::string&& name, std::uint64_t time) : name_(std::move(name)), time_(time) {}

  // Refuses an invalid name and a node that sits in a folder (its place depends on its name).
  bool SetName(std::string&& name);

  enum FlagBits : std::uint8_t {
    kChanged = 1,
    kServiceItem = 2,
    kReadonlyShift = 2,  // two bits from here: the readonly status
    kReadonlyMask = 3 << kReadonlyShift,
    kAllFlags = kChanged | kServiceItem | kReadonlyMask,
  };
  std::uint8_t Flags() const { return static_cast<std::uint8_t>(parent_and_flags_ & kAllFlags); }
  void SetFlags(std::uint8_t flags) {
    parent_and_flags_ = (parent_and_flags_ & ~std::uintptr_t{kAllFlags}) | flags;
  }

 private:
  friend class FolderNode;

  void SetParent(FolderNode* parent);

  std::string name_;
  // The flags live in the low bits of the parent's address (folders are aligned for it): a
  // byte of its own would cost eight in every node.
  std::uintptr_t parent_and_flags_ = 0;
  std::uint64_t time_ = 0;
};

class FileNode : public ChildNode {
 public:
  // Read freely; change through the setters, which keep the node's state in step.
  SomeHash hash;
  std::uint64_t size = 0;

  std::uint64_t GetInode() const { return inode_; }
  bool IsReadonly() const { return Flags() & kReadonlyMask; }

  bool SetHash(const SomeHash& new_hash);
  bool SetProperties(const SomeHash& new_hash, std::uint64_t new_size, std::uint64_t time,
                     std::uint64_t inode);
  bool SetReadonly(bool readonly);
  // `mark_changed` also sets the changed mark.
  bool SetSize(std::uint64_t new_size, bool mark_changed);

 private:
  friend class FolderNode;

  // `changed` starts the node with the changed mark.
  FileNode(std::uint64_t inode, const SomeHash& hash, std::uint64_t size, std::uint64_t time,
           bool readonly, bool changed);

  std::uint64_t inode_ = 0;
};

class alignas(16) FolderNode : public ChildNode {
 public:
  using FileIterator = detail::ChildIter<FileNode>;
  using FolderIterator = detail::ChildIter<FolderNode>;
  using WithServiceItems = TaggedBool<struct WithServiceItemsTag>;

  enum ReadonlyStatus : std::uint8_t {
    kWritable = 0,
    kReadonly = 1,
    kReadonlyLocked = 2,  // an emulated folder that takes no changes at all
  };

  // The answer of the Try operations. On EXISTS, `existing` is the child of either kind that
  // holds the name; the node offered stays with the caller.
  template <typename T>
  struct ResultInsert {
    enum Status { INSERTED, EXISTS, BAD_NAME, NOT_FOUND, LOOP };
    Status status = NOT_FOUND;
    T* node = nullptr;  // the node in its new place, when INSERTED
    ChildNode* existing = nullptr;

    explicit operator bool() const { return status == INSERTED; }
  };

  // A root; children are made by their parent.
  FolderNode() = default;
  // Frees the subtree without recursion.
  ~FolderNode() override;

  // A detached file node to insert later with InsertFileTry. The name is checked on insertion.
  static UniqueNodePtr<FileNode> MakeFile(std::string name, std::uint64_t size,
                                          const SomeHash& hash, std::uint64_t time,
                                          std::uint64_t inode = 0, bool readonly = false);
  // A detached folder of this folder's kind (see CreateInstance), named `name`.
  UniqueNodePtr<FolderNode> MakeFolder(std::string name, std::uint64_t time = 0) const;
  // An empty, unnamed folder of the same dynamic type as this one.
  virtual UniqueNodePtr<FolderNode> CreateInstance() const;

  // Lookups. With `case_insensitive`, `*ambiguous` (when given) tells whether several children
  // match; an exact match wins, else the first in name order.
  virtual FileNode* GetFile(std::string_view name, bool case_insensitive = false,
                            bool* ambiguous = nullptr) const;
  virtual FolderNode* GetFolder(std::string_view name, bool case_insensitive = false,
                                bool* ambiguous = nullptr) const;
  virtual FileIterator FindFile(std::string_view name, bool case_insensitive = false,
                                bool* ambiguous = nullptr) const;
  virtual FolderIterator FindFolder(std::string_view name, bool case_insensitive = false,
                                    bool* ambiguous = nullptr) const;
  virtual bool HasFile(std::string_view name, bool case_insensitive = false) const;
  virtual bool HasFolder(std::string_view name, bool case_insensitive = false) const;
  // Whether another file (folder) than `node` bears its name.
  virtual bool HasFileNamedLike(const ChildNode* node, bool case_insensitive,
                                bool* ambiguous = nullptr) const;
  virtual bool HasFolderNamedLike(const ChildNode* node, bool case_insensitive,
                                  bool* ambiguous = nullptr) const;
  bool HasChild(std::string_view name, bool case_insensitive = false) const;
  bool IsEmpty() const;

  virtual FileIterator FilesBegin() const;
  virtual FileIterator FilesEnd() const;
  virtual FolderIterator FoldersBegin() const;
  virtual FolderIterator FoldersEnd() const;

  // Creation answers the new node, or null for an invalid name or a name that a child of either
  // kind already holds (exact comparison).
  FileNode* CreateFileW(std::string_view name, std::uint64_t size, const SomeHash& hash,
                        std::uint64_t time, std::uint64_t inode = 0, bool readonly = false);
  FolderNode* CreateFolder(std::string_view name, std::uint64_t time = 0);
  // False when there is no such child (exact name).
  bool DeleteFileW(std::string_view name);
  bool DeleteFolder(std::string_view name);

  // Moves the child `name` of `from` into `to` as `new_name`. False when the source is missing,
  // the target name is invalid or taken, or a folder would go inside itself.
  static bool MoveFileW(FolderNode* from, std::string_view name, FolderNode* to,
                        std::string new_name);
  static bool MoveFolder(FolderNode* from, std::string_view name, FolderNode* to,
                         std::string new_name);
  // Takes the folder `name` of `from` into this folder as `new_name`.
  ResultInsert<FolderNode> MoveFolderFromTry(FolderNode* from, std::string_view name,
                                             std::string new_name);

  // Takes the node when its name is valid and free; else the node stays in `node`.
  virtual ResultInsert<FileNode> InsertFileTry(UniqueNodePtr<FileNode>&& node);
  virtual ResultInsert<FolderNode> InsertFolderTry(UniqueNodePtr<FolderNode>&& node);
  virtual ResultInsert<FileNode> RenameFileTry(FileIterator it, std::string new_name);
  virtual ResultInsert<FolderNode> RenameFolderTry(FolderIterator it, std::string new_name);
  // Detaches the child and hands it to the caller.
  virtual UniqueNodePtr<FileNode> RemoveFile(FileIterator it);
  virtual UniqueNodePtr<FolderNode> RemoveFolder(FolderIterator it);

  // Replaces the content of this folder by a copy of the content of `other`. False when one of
  // the two lies inside the other (or they are the same).
  virtual bool DeepCopyContentFrom(const FolderNode* other);
  // Frees every child.
  virtual void Clear();

  // Paths are relative to this folder, components joined by '/'. The empty path is this folder.
  FolderNode* GetFolderAtPath(std::string_view path, bool case_insensitive = false) const;
  // The folder that holds the last component of `path`, and that component; {nullptr, {}} when
  // a folder on the way is missing or a component is invalid. The name is a view into `path`.
  std::tuple<FolderNode*, std::string_view> TraversePath(std::string_view path,
                                                         bool case_insensitive = false,
                                                         bool* ambiguous = nullptr) const;
  // As TraversePath, creating the missing folders on the way. `*name` receives the last
  // component; `*first_created` (when given) the topmost folder made, or null.
  FolderNode* TraversePathAndCreateDirs(std::string_view path, std::string_view* name,
                                        bool case_insensitive = false, bool* ambiguous = nullptr,
                                        FolderNode** first_created = nullptr);

  // The bytes of all files below, service items only when asked for.
  std::uint64_t FolderSize(WithServiceItems with_service_items) const;
  // Direct children of each kind.
  std::size_t FileCount() const { return files_.size(); }
  std::size_t FolderCount() const { return folders_.size(); }

  // Marks this folder and everything below as changed.
  bool SetChangedDown();
  bool SetReadonly(ReadonlyStatus status);
  ReadonlyStatus GetReadonly() const {
    return static_cast<ReadonlyStatus>((Flags() & kReadonlyMask) >> kReadonlyShift);
  }

 private:
  struct LowerIndex;
  struct LowerIndexDeleter {
    void operator()(LowerIndex* index) const;
  };

  // Forgets the case-insensitive index, when the children all go at once.
  void ChildrenChanged();
  template <typename T, typename Visit>
  void VisitLowerMatches(const detail::ChildSet<T>& set, const std::string& lowered,
                         Visit visit) const;
  static std::size_t Hash(const std::string& lowered);
  template <typename T>
  detail::ChildIter<T> Find(const detail::ChildSet<T>& set, std::string_view name,
                            bool case_insensitive, bool* ambiguous) const;
  template <typename T>
  bool NamedLike(const detail::ChildSet<T>& set, const ChildNode* node, bool case_insensitive,
                 bool* ambiguous) const;
  // The child of either kind named `name`, leaving `moving` out.
  ChildNode* ChildNamed(std::string_view name, const ChildNode* moving) const;
  template <typename T>
  ResultInsert<T> InsertTry(detail::ChildSet<T>& set, UniqueNodePtr<T>&& node);
  template <typename T>
  ResultInsert<T> RenameTry(detail::ChildSet<T>& set, detail::ChildIter<T> it,
                            std::string&& new_name);
  template <typename T>
  UniqueNodePtr<T> Remove(detail::ChildSet<T>& set, detail::ChildIter<T> it);
  template <typename T>
  ResultInsert<T> MoveFrom(FolderNode* from, std::string_view name, std::string&& new_name);
  template <typename T>
  detail::ChildSet<T>& Children();
  std::tuple<FolderNode*, std::string_view> Walk(std::string_view path, bool case_insensitive,
                                                 bool* ambiguous, bool create,
                                                 FolderNode** first_created);
  bool IsInside(const FolderNode* ancestor) const;

  detail::ChildSet<FileNode> files_;
  detail::ChildSet<FolderNode> folders_;
  mutable std::unique_ptr<LowerIndex, LowerIndexDeleter> lower_index_;
};

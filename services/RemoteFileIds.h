// RemoteFileIds: the thread-safe tree of item ids of a service that addresses items by id.
//
//   ids.Init(root_id);
//   ids.AddFolderId(folder_id, "Photos", root_id);
//   ids.AddFileId(file_id, "a.jpg", folder_id);
//   ids.GetFileIdByPath("Photos/a.jpg");  // file_id
//   ids.GetPathById(file_id);             // "Photos/a.jpg"
//
// Items may be known by id before their parent is (not linked items); they are attached later by
// LinkFileToParent / LinkFolderToParent. A name that is unusable locally lives in the tree under
// its mapped name, and the mapping table tells the original.
//
// One instance is shared by every adapter of an account: each operation takes the recursive
// read-write lock itself, so that a visitor of VisitSubtree may call the read operations again.
// The visitor must not change the tree.
#pragma once

#include <QReadWriteLock>

#include <atomic>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "services/Fnv1aHash.h"

struct IdsTreeFolderNode;

struct IdsTreeNode {
  IdsTreeNode(std::string node_id, std::string node_name)
      : id(std::move(node_id)), name(std::move(node_name)) {}

  IdsTreeFolderNode* parent = nullptr;
  const std::string id;
  // The key of this node in its parent's child map; empty while not linked. The child maps key
  // by a view of it, so that a name is held once.
  std::string name;
};

struct IdsTreeFolderNode : IdsTreeNode {
  using IdsTreeNode::IdsTreeNode;

  std::unordered_map<std::string_view, std::shared_ptr<IdsTreeNode>, Fnv1aHash> files;
  std::unordered_map<std::string_view, std::shared_ptr<IdsTreeFolderNode>, Fnv1aHash> folders;
};

class RemoteFileIds {
 public:
  RemoteFileIds();
  ~RemoteFileIds();
  RemoteFileIds(const RemoteFileIds&) = delete;
  RemoteFileIds& operator=(const RemoteFileIds&) = delete;

  void Init(const std::string& root_id);
  bool IsInit() const;
  void Swap(RemoteFileIds& other);

  bool AddFileId(const std::string& id, const std::string& name, const std::string& parent_id);
  bool AddFolderId(const std::string& id, const std::string& name, const std::string& parent_id);
  bool AddNotLinkedFileId(const std::string& id);
  bool AddNotLinkedFolderId(const std::string& id);
  bool LinkFileToParent(const std::string& id, const std::string& name,
                        const std::string& parent_id);
  bool LinkFolderToParent(const std::string& id, const std::string& name,
                          const std::string& parent_id);

  std::string GetFileIdByPath(const std::string& path) const;
  std::string GetFolderIdByPath(const std::string& path) const;
  std::optional<std::string> GetPathById(const std::string& id) const;
  std::string GetNameById(const std::string& id) const;
  std::string GetParentId(const std::string& id) const;
  std::string GetRootId() const;
  bool HasFile(const std::string& id) const;
  bool HasFolder(const std::string& id) const;
  bool IsDirectory(const std::string& id) const;
  bool ParentHasFile(const std::string& parent_id, const std::string& name) const;
  bool ParentHasFolder(const std::string& parent_id, const std::string& name) const;
  // Lock-free: a momentary answer while other threads change the tree.
  unsigned GetItemsCount() const;
  // The folder first, then its files, then each subfolder in the same manner, under the read
  // lock throughout.
  void VisitSubtree(const std::string& folder_id,
                    std::function<void(const std::string& id)> visitor) const;

  bool MoveFileW(const std::string& id, const std::string& old_name,
                 const std::string& new_parent_id, const std::string& new_name);
  bool MoveFolder(const std::string& id, const std::string& old_name,
                  const std::string& new_parent_id, const std::string& new_name);
  bool RemoveFile(const std::string& name, const std::string& id);
  bool RemoveFolder(const std::string& name, const std::string& id);
  bool RemoveNotLinkedFile(const std::string& name, const std::string& id);
  bool RemoveNotLinkedFolder(const std::string& name, const std::string& id);

  void AddTrashed(const std::string& id);
  void RemoveTrashed(const std::string& id);
  bool IsTrashed(const std::string& id) const;

  bool AddMappingInfo(const std::string& id, const std::string& original_name,
                      const std::string& mapped_name);
  bool RemoveMappingInfo(const std::string& id);
  bool HasMappedName(const std::string& id) const;
  std::string MappedGetMappedName(const std::string& id) const;
  std::string MappedGetOriginalName(const std::string& id) const;

  // The text form of RemoteFileIdsSerializerText.
  bool Serialize(const std::atomic<bool>* stop, std::ostream& out) const;
  static bool Deserialize(const std::atomic<bool>* stop, std::stringstream& in, RemoteFileIds* ids);

 private:
  friend class RemoteFileIdsSerializer;

  enum class RequiredNodeType { kFile = 0, kFolder = 1 };
  using FolderPtr = std::shared_ptr<IdsTreeFolderNode>;
  using NodePtr = std::shared_ptr<IdsTreeNode>;
  template <typename Node>
  using Index = std::unordered_map<std::string_view, std::shared_ptr<Node>, Fnv1aHash>;

  bool AddFileId(const std::string& id, const std::string& name, const std::string& parent_id,
                 bool not_linked);
  bool AddFolderId(const std::string& id, const std::string& name, const std::string& parent_id,
                   bool not_linked);
  bool RemoveFile(const std::string& name, const std::string& id, bool not_linked);
  bool RemoveFolder(const std::string& name, const std::string& id, bool not_linked);
  bool RemoveFolderContents(const FolderPtr& folder);

  std::string GetIdByPath(RequiredNodeType type, const FolderPtr& from, std::string_view path,
                          unsigned position) const;
  std::optional<std::string> CollectPath(const NodePtr& node) const;
  bool GetFileNameByPtr(const IdsTreeNode& node, std::string* name) const;
  bool GetFolderNameByPtr(const IdsTreeFolderNode& node, std::string* name) const;
  void VisitFolder(const IdsTreeFolderNode& folder,
                   const std::function<void(const std::string& id)>& visitor) const;

  template <typename Node>
  bool AddItem(Index<Node>& index, const std::string& id, const std::string& name,
               const std::string& parent_id, bool not_linked);
  template <typename Node>
  bool LinkItem(const Index<Node>& index, const std::string& id, const std::string& name,
                const std::string& parent_id);
  template <typename Node>
  bool MoveItem(const Index<Node>& index, const std::string& id, const std::string& old_name,
                const std::string& new_parent_id, const std::string& new_name);
  // Puts a node under a parent by name. A node of the same kind that held the name is left not
  // linked. Refuses to move the root or a folder into its own subtree.
  template <typename Node>
  bool Attach(const std::shared_ptr<Node>& node, IdsTreeFolderNode* parent,
              const std::string& name);
  template <typename Node>
  void Detach(Node& node);
  void UpdateItemsCount();

  FolderPtr root_;
  Index<IdsTreeFolderNode> folder_ids_;
  Index<IdsTreeNode> file_ids_;
  std::unordered_set<std::string, Fnv1aHash> trashed_;
  std::unordered_map<std::string, std::pair<std::string, std::string>, Fnv1aHash> mapped_names_;
  mutable QReadWriteLock lock_;
  std::atomic<unsigned> items_count_{0};
};

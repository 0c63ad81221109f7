// The constructors that turn Drive's file resources into a tree of unique names.
//
// Drive is no tree: an item names its parents by id, may have several or none, may belong to
// someone else, and a listing may bring a child before its parent. ConstructorBase reads one item
// at a time and classifies it; TreeConstructor builds the core's FolderNode tree and the id tree
// of a full listing from it.
//
//   TreeConstructor constructor(ids, &root, shared_items_enabled, "Доступные мне", mapper, &docs);
//   for (each page) {
//     for (each item of "files") if (!constructor.AddItem(item, &size)) fail(constructor.Error());
//     if (!constructor.AdoptItems()) fail(...);
//   }
//   constructor.FinishAdoption();
//   constructor.LogTotals();
//
// One constructor serves one listing, on one thread.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

#include <vector>

#include "core/FileSystem.h"
#include "core/Json.h"
#include "core/Nodes.h"
#include "core/RemoteNameMapper.h"
#include "core/SomeHash.h"

class GoogleDocs;
class GoogleSelfMadeChanges;
class RemoteFileIds;

// Why a tree could not be built; GetLastErrorDescription words it for the user.
struct TreeError {
  enum Reason : std::int32_t {
    kNone = 0,
    kUnknown = 1,
    kDuplicate = 2,
    kSeveralFolders = 3,
    kNoLocation = 4,
    kSharedDuplicate = 5,
  };
  std::int32_t reason = kNone;
  std::string path;  // the path or name of the item that failed
  bool is_file = true;
};

class ConstructorBase {
 public:
  // The made-up Drive id of the emulated folder that holds the items other people shared with the
  // account and that have no parent the account can see.
  static const std::string kExternalItemsFolderId;

  ConstructorBase(std::shared_ptr<RemoteFileIds> ids, bool shared_items_enabled,
                  std::string external_folder_name, const RemoteNameMapper* name_mapper,
                  GoogleDocs* docs);
  virtual ~ConstructorBase();
  ConstructorBase(const ConstructorBase&) = delete;
  ConstructorBase& operator=(const ConstructorBase&) = delete;

  virtual bool FinishAdoption() = 0;

  // One file resource. `size_out` (may be null) receives the size of a plain file. False: the
  // listing can't go on, Error() tells why.
  bool AddItem(const utils::json::json_tree& item, std::int64_t* size_out);
  TreeError Error() const { return error_; }

 protected:
  virtual bool AddFile(const std::string& id, std::string name, const std::string& parent_id,
                       std::uint64_t size, std::int64_t mtime, const HashGoogle& hash,
                       std::int64_t version, bool trashed, bool external, bool readonly) = 0;
  virtual bool AddFolder(const std::string& id, std::string name, const std::string& parent_id,
                         bool trashed, bool external, bool readonly) = 0;

  void AddExternalItemsFolder();
  static std::string ChooseUniqueName(const FolderNode& folder, const std::string& name);
  std::string ChooseUniqueName(const std::string& parent_id, const std::string& name) const;
  void SetError(std::int32_t reason, std::string path, bool is_file);

  std::shared_ptr<RemoteFileIds> ids_;
  const bool shared_items_enabled_;
  const std::string external_folder_name_;

 private:
  // The file part of AddItem: hash, Google document, AddFile.
  bool AddFileItem(const utils::json::json_tree& item, const std::string& id, std::string name,
                   const std::string& parent_id, bool trashed, bool external, bool readonly,
                   std::int64_t* size_out);

  bool external_folder_added_ = false;
  TreeError error_;
  const RemoteNameMapper* name_mapper_;
  GoogleDocs* docs_;
};

class TreeConstructor : public ConstructorBase {
 public:
  // `root` is the empty tree to fill; the id tree must be initialized with the root's id.
  TreeConstructor(std::shared_ptr<RemoteFileIds> ids, FolderNode* root, bool shared_items_enabled,
                  std::string external_folder_name, const RemoteNameMapper* name_mapper,
                  GoogleDocs* docs);

  // Links the parked items whose parent has come; called after every page.
  bool AdoptItems();
  // The last adoption; items whose parent never came are dropped from both trees.
  bool FinishAdoption() override;
  void LogTotals() const;
  std::uint64_t ItemsCount() const { return folders_count_ + files_count_ + trashed_count_; }

 protected:
  bool AddFile(const std::string& id, std::string name, const std::string& parent_id,
               std::uint64_t size, std::int64_t mtime, const HashGoogle& hash, std::int64_t version,
               bool trashed, bool external, bool readonly) override;
  bool AddFolder(const std::string& id, std::string name, const std::string& parent_id,
                 bool trashed, bool external, bool readonly) override;

 private:
  template <typename Node>
  struct Parked {
    std::string id;
    std::string parent_id;
    UniqueNodePtr<Node> node;
  };

  // Whether the id was met already (the first listing of an id wins); counts a trashed item.
  bool AlreadyKnownOrTrashed(const std::string& id, const std::string& parent_id, bool trashed);
  // Where a file and a folder differ while they are placed: their parking, their calls on the
  // id tree, their lines.
  template <typename Node>
  struct Kind;

  // Puts the node under `parent`, under a free name if its own is taken; `*chosen` receives that
  // name, or stays empty. A folder placed becomes known by its id `id`.
  bool InsertNode(const std::string& id, FolderNode* parent, UniqueNodePtr<FileNode>* node,
                  std::string* chosen);
  bool InsertNode(const std::string& id, FolderNode* parent, UniqueNodePtr<FolderNode>* node,
                  std::string* chosen);
  // A new item linked at once when its parent is known, else parked till it comes.
  template <typename Node>
  bool Place(const std::string& id, const std::string& name, const std::string& parent,
             UniqueNodePtr<Node> node);
  // The parked items of one kind whose parent has come.
  template <typename Node>
  bool Adopt();
  std::string PathOf(const FolderNode* folder) const;

  FolderNode* root_;
  std::list<Parked<FileNode>> parentless_files_;
  std::list<Parked<FolderNode>> parentless_folders_;
  std::unordered_map<std::string, FolderNode*> folders_by_id_;
  std::uint64_t folders_count_ = 0;
  std::uint64_t files_count_ = 0;
  std::uint64_t trashed_count_ = 0;
};

// Turns the items of one page of the change feed into FileSystem::Change values, keeping the id
// tree current and dropping the echoes of the adapter's own work.
//
//   ChangesConstructor constructor(ids, false, "Доступные мне", mapper, &docs, &expected, root_id,
//                                  &changes);
//   for (each entry of "changes") if (!constructor.AddItem(entry.file, nullptr)) fail(...);
//   constructor.FinishAdoption();
class ChangesConstructor : public ConstructorBase {
 public:
  ChangesConstructor(std::shared_ptr<RemoteFileIds> ids, bool shared_items_enabled,
                     std::string external_folder_name, const RemoteNameMapper* name_mapper,
                     GoogleDocs* docs, GoogleSelfMadeChanges* expected, std::string root_id,
                     std::vector<FileSystem::Change>* changes_out);

  // Changes whose parent never came in this page are dropped: a later change of the item
  // brings it.
  bool FinishAdoption() override;
  bool HasChanges() const { return has_changes_; }

 protected:
  bool AddFile(const std::string& id, std::string name, const std::string& parent_id,
               std::uint64_t size, std::int64_t mtime, const HashGoogle& hash, std::int64_t version,
               bool trashed, bool external, bool readonly) override;
  bool AddFolder(const std::string& id, std::string name, const std::string& parent_id,
                 bool trashed, bool external, bool readonly) override;

 private:
  struct ParkedChange {
    std::string name;
    std::string id;
    std::string parent_id;
    FileSystem::Change change;
  };

  // The path of the change as the id tree knows the item: its mapped name if it has one.
  std::string StartPath(const std::string& id, const std::string& name) const;
  bool RemoveKnownFile(const std::string& id, FileSystem::Change* change);
  bool RemoveKnownFolder(const std::string& id, FileSystem::Change* change);
  // A rename or a move: the old path, and the mapping of the old name gone. `what` is "file" or
  // "folder" for the log.
  bool DetectMove(const std::string& id, const std::string& name, const std::string& parent_id,
                  bool is_file, FileSystem::Change* change);
  // Below the parent's path, under a free name for a new or moved item; `*local_name` receives
  // the name the item has here.
  bool PlaceUnderParent(const std::string& id, const std::string& name,
                        const std::string& parent_path, const std::string& parent_id,
                        FileSystem::Change* change, std::string* local_name);
  void Emit(FileSystem::Change change);

  GoogleSelfMadeChanges* expected_;
  const std::string root_id_;
  std::vector<FileSystem::Change>* changes_out_;
  std::list<ParkedChange> parked_changes_;
  bool has_changes_ = false;
};

// CloudAccount: the one account model that every service dialect serves. Items with parents
// (several allowed), content or only its digests, times, revisions, trash, public links, custom
// properties and sharing; the quota; a change journal with a monotonic sequence; upload sessions
// that persist the bytes they took.
//
//   emulators::CloudAccount account("0");
//   emulators::Item docs, report;
//   account.CreateFolder(account.RootId(), "Docs", &docs);
//   account.CreateFile(docs.id, "report.pdf", "%PDF...", 1700000000000, &report);
//   for (const emulators::JournalEntry& entry : account.ChangesSince(cursor, 100)) { ... }
//
// Every operation keeps the journal: a dialect turns its sequence into the service's own cursors,
// page tokens or delta links. All members are safe from any thread (one lock, never held while a
// caller's function runs); items come out as copies.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "emulators/ContentHashes.h"

namespace emulators {

enum class ItemKind { kFolder, kFile };

struct Item {
  std::string id;
  std::vector<std::string> parents;  // empty for the root
  std::string name;
  ItemKind kind = ItemKind::kFile;
  std::uint64_t size = 0;
  // The bytes; null when only the digests are kept (a file above the account's keep limit).
  std::shared_ptr<const std::string> content;
  // The bytes are emulators::PatternBytes from offset 0, made when read (a large seeded file).
  bool generated = false;
  ContentDigests digests;
  std::int64_t created_ms = 0;
  std::int64_t modified_ms = 0;
  std::uint64_t revision = 1;  // grows with every change of the item itself
  bool shared_with_me = false;
  bool trashed = false;  // trashed itself; an item under a trashed folder is gone from listings
  std::string public_link;
  std::map<std::string, std::string> properties;

  bool IsFolder() const { return kind == ItemKind::kFolder; }
};

enum class ChangeKind { kCreated, kModified, kMoved, kTrashed, kRestored, kDeleted, kUpdated };

const char* ChangeKindName(ChangeKind kind);

struct JournalEntry {
  std::uint64_t sequence = 0;
  ChangeKind kind = ChangeKind::kCreated;
  Item item;  // after the change; as it was for kDeleted
  std::vector<std::string> old_parents;
  std::string old_name;
};

enum class AccountError {
  kNone,
  kNotFound,
  kNotAFolder,
  kNotAFile,
  kNameTaken,
  kInvalidName,
  kCycle,  // a folder moved into itself
  kNoSpace,
  kSessionMissing,
  kBadOffset,     // an upload piece that doesn't start where the session stands
  kSizeMismatch,  // more bytes than announced, or a commit of an incomplete session
};

const char* AccountErrorName(AccountError error);

// Whether two items of one folder may carry the same name (Google Drive allows it).
enum class SameNames { kRefuse, kAllow };

struct UploadSpec {
  std::string parent_id;  // a new file: where it goes
  std::string name;
  std::string target_id;                  // a new version of this file instead
  std::uint64_t total_size = UINT64_MAX;  // unknown until the commit
  std::int64_t modified_ms = 0;
  std::uint64_t granularity = 1;  // persisted bytes are a multiple of it, but for the last piece
  std::int64_t lifetime_ms = 7 * 24 * 3600 * 1000LL;
};

struct UploadState {
  std::string id;
  UploadSpec spec;
  std::uint64_t persisted = 0;
  std::int64_t expires_ms = 0;
};

class CloudAccount {
 public:
  explicit CloudAccount(std::string root_id = "root", SameNames same_names = SameNames::kRefuse);
  ~CloudAccount();
  CloudAccount(const CloudAccount&) = delete;
  CloudAccount& operator=(const CloudAccount&) = delete;

  // The account's clock in milliseconds (the system's unless a dialect's tests give another).
  void SetClock(std::function<std::int64_t()> now_ms);
  // Ids of new items: the dialect's form for the n-th item made.
  void SetIdMaker(std::function<std::string(std::uint64_t n, ItemKind kind)> make);
  // Files larger than this keep only their digests.
  void SetKeepContentLimit(std::uint64_t bytes);
  void SetTotalSpace(std::uint64_t bytes);
  std::uint64_t TotalSpace() const;
  std::uint64_t UsedSpace() const;  // every file not deleted for good, trashed ones included

  // 1. Reading.
  std::string RootId() const { return root_id_; }
  std::optional<Item> Find(const std::string& id) const;
  // Trashed itself or below a trashed folder.
  bool IsInTrash(const std::string& id) const;
  // The children of a folder in the order they were made, without trashed ones unless asked;
  // `offset` and `limit` cut a page, `total` receives the count of all.
  std::vector<Item> Children(const std::string& folder_id, bool with_trashed = false,
                             std::size_t offset = 0, std::size_t limit = SIZE_MAX,
                             std::size_t* total = nullptr) const;
  std::optional<Item> ChildByName(const std::string& folder_id, const std::string& name,
                                  bool case_insensitive = false) const;
  // "a/b/c" below the root, through items not in the trash.
  std::optional<Item> FindByPath(const std::string& path) const;
  // The path of an item below the root through its first parents; empty for the root.
  std::string PathOf(const std::string& id) const;
  std::vector<Item> AllItems() const;
  std::size_t ItemCount() const;

  // 2. Changing; each adds to the journal and answers the item as it now is.
  AccountError CreateFolder(const std::string& parent_id, const std::string& name, Item* out);
  AccountError CreateFile(const std::string& parent_id, const std::string& name,
                          std::string content, std::int64_t modified_ms, Item* out);
  AccountError ReplaceContent(const std::string& id, std::string content, std::int64_t modified_ms,
                              Item* out);
  // As CreateFile and ReplaceContent, for bytes that were hashed as they came and not kept.
  AccountError CreateFileByDigests(const std::string& parent_id, const std::string& name,
                                   std::uint64_t size, const ContentDigests& digests,
                                   std::int64_t modified_ms, Item* out);
  AccountError ReplaceByDigests(const std::string& id, std::uint64_t size,
                                const ContentDigests& digests, std::int64_t modified_ms, Item* out);
  AccountError Rename(const std::string& id, const std::string& name, Item* out);
  // New parents, and a new name unless empty.
  AccountError Move(const std::string& id, const std::vector<std::string>& parent_ids,
                    const std::string& name, Item* out);
  AccountError Trash(const std::string& id, Item* out);
  AccountError Restore(const std::string& id, Item* out);
  // For good, with everything below it.
  AccountError Delete(const std::string& id);
  // An empty value removes the property.
  AccountError SetProperty(const std::string& id, const std::string& key, const std::string& value,
                           Item* out);
  AccountError SetPublicLink(const std::string& id, const std::string& link, Item* out);
  AccountError SetSharedWithMe(const std::string& id, bool shared, Item* out);
  AccountError SetModified(const std::string& id, std::int64_t modified_ms, Item* out);

  // 3. The journal.
  std::uint64_t Sequence() const;  // of the newest entry; 0 for none
  // Sequences at or below this are forgotten: a cursor older than it is expired.
  std::uint64_t ForgottenUpTo() const;
  void ForgetJournal();
  std::vector<JournalEntry> ChangesSince(std::uint64_t sequence, std::size_t limit) const;

  // 4. Upload sessions. A piece must start at the persisted offset; the session keeps at most
  // what the next persist limit allows, rounded down to its granularity.
  std::string OpenUpload(const UploadSpec& spec);
  std::optional<UploadState> FindUpload(const std::string& session_id) const;
  AccountError AppendUpload(const std::string& session_id, std::uint64_t offset,
                            const std::string& data, std::uint64_t* persisted);
  // Where a session's bytes go, for services that name the file only when they commit; the
  // session's lifetime and what it holds stay.
  AccountError RetargetUpload(const std::string& session_id, const UploadSpec& spec);
  // Makes the file (or its new version) of a session that holds all its bytes.
  AccountError CommitUpload(const std::string& session_id, Item* out);
  void DropUpload(const std::string& session_id);
  void ExpireUploads();
  // The next append persists at most this many of the bytes it receives.
  void LimitNextPersist(std::uint64_t bytes);

  // 5. Bulk: a local folder's tree under `parent_id`; a file of `size` pattern bytes.
  bool SeedFromFolder(const std::string& local_dir, const std::string& parent_id,
                      std::string* error);
  AccountError CreateGeneratedFile(const std::string& parent_id, const std::string& name,
                                   std::uint64_t size, Item* out);

 private:
  struct Record;
  struct Upload;

  std::int64_t Now() const;
  Record* Get(const std::string& id);
  const Record* Get(const std::string& id) const;
  bool IsInTrashLocked(const std::string& id) const;
  bool NameTaken(const std::string& folder_id, const std::string& name,
                 const std::string& except_id) const;
  AccountError CheckNewChild(const std::string& parent_id, const std::string& name,
                             const std::string& except_id) const;
  Item& AddItem(const std::string& parent_id, const std::string& name, ItemKind kind);
  void SetContent(Item* item, std::string content);
  void SetDigests(Item* item, std::uint64_t size, const ContentDigests& digests);
  // The one road of new files and of new content, around how the item gets its bytes.
  AccountError AddFile(const std::string& parent_id, const std::string& name, std::uint64_t size,
                       std::int64_t modified_ms, const std::function<void(Item&)>& fill, Item* out);
  AccountError Rewrite(const std::string& id, std::int64_t modified_ms,
                       const std::function<void(Item&)>& fill, Item* out);
  void Journal(ChangeKind kind, const Item& item, std::vector<std::string> old_parents = {},
               std::string old_name = std::string());
  void Touch(Item* item, ChangeKind kind, std::vector<std::string> old_parents = {},
             std::string old_name = std::string());
  void Unlink(const std::string& id);
  // The one road of the changes that touch a single item's attributes.
  AccountError UpdateItem(const std::string& id, ChangeKind kind,
                          const std::function<void(Item&)>& change, Item* out);
  std::string PathOfLocked(const std::string& id) const;

  const std::string root_id_;
  const SameNames same_names_;
  mutable std::mutex mutex_;
  std::function<std::int64_t()> now_ms_;
  std::function<std::string(std::uint64_t, ItemKind)> make_id_;
  std::uint64_t made_ = 0;
  std::uint64_t keep_limit_ = 256ull << 20;
  std::uint64_t total_space_ = 15ull << 30;
  std::unordered_map<std::string, std::unique_ptr<Record>> items_;
  std::vector<JournalEntry> journal_;
  std::uint64_t sequence_ = 0;
  std::uint64_t forgotten_ = 0;
  std::unordered_map<std::string, std::unique_ptr<Upload>> uploads_;
  std::uint64_t uploads_made_ = 0;
  std::uint64_t next_persist_limit_ = UINT64_MAX;
};

}  // namespace emulators

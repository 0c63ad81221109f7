#include "emulators/CloudAccount.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <set>

#include "emulators/HttpServer.h"

namespace emulators {

struct CloudAccount::Record {
  Item item;
  std::vector<std::string> children;  // in the order they came
};

struct CloudAccount::Upload {
  UploadState state;
  ContentHasher hasher;
  std::string bytes;
  bool keep = true;
};

namespace {

std::string DefaultId(std::uint64_t n, ItemKind) {
  // Looks like an opaque service id, and stays unique and stable for a given order of making.
  char text[24];
  std::snprintf(text, sizeof(text), "%016llx",
                static_cast<unsigned long long>(n * 0x9E3779B97F4A7C15ull));
  return text;
}

std::int64_t SystemNowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool SameName(const std::string& a, const std::string& b, bool case_insensitive) {
  if (!case_insensitive) {
    return a == b;
  }
  return QString::fromStdString(a).compare(QString::fromStdString(b), Qt::CaseInsensitive) == 0;
}

}  // namespace

const char* ChangeKindName(ChangeKind kind) {
  switch (kind) {
    case ChangeKind::kCreated:
      return "created";
    case ChangeKind::kModified:
      return "modified";
    case ChangeKind::kMoved:
      return "moved";
    case ChangeKind::kTrashed:
      return "trashed";
    case ChangeKind::kRestored:
      return "restored";
    case ChangeKind::kDeleted:
      return "deleted";
    case ChangeKind::kUpdated:
      return "updated";
  }
  return "unknown";
}

const char* AccountErrorName(AccountError error) {
  switch (error) {
    case AccountError::kNone:
      return "none";
    case AccountError::kNotFound:
      return "not found";
    case AccountError::kNotAFolder:
      return "not a folder";
    case AccountError::kNotAFile:
      return "not a file";
    case AccountError::kNameTaken:
      return "name taken";
    case AccountError::kInvalidName:
      return "invalid name";
    case AccountError::kCycle:
      return "folder into itself";
    case AccountError::kNoSpace:
      return "no space";
    case AccountError::kSessionMissing:
      return "no such upload session";
    case AccountError::kBadOffset:
      return "offset is not where the session stands";
    case AccountError::kSizeMismatch:
      return "size differs from the announced one";
  }
  return "unknown";
}

CloudAccount::CloudAccount(std::string root_id, SameNames same_names)
    : root_id_(std::move(root_id)),
      same_names_(same_names),
      now_ms_(SystemNowMs),
      make_id_(DefaultId) {
  auto root = std::make_unique<Record>();
  root->item.id = root_id_;
  root->item.kind = ItemKind::kFolder;
  root->item.created_ms = root->item.modified_ms = Now();
  items_.emplace(root_id_, std::move(root));
}

CloudAccount::~CloudAccount() = default;

void CloudAccount::SetClock(std::function<std::int64_t()> now_ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  now_ms_ = std::move(now_ms);
}

void CloudAccount::SetIdMaker(std::function<std::string(std::uint64_t, ItemKind)> make) {
  std::lock_guard<std::mutex> lock(mutex_);
  make_id_ = std::move(make);
}

void CloudAccount::SetKeepContentLimit(std::uint64_t bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  keep_limit_ = bytes;
}

void CloudAccount::SetTotalSpace(std::uint64_t bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  total_space_ = bytes;
}

std::uint64_t CloudAccount::TotalSpace() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return total_space_;
}

std::uint64_t CloudAccount::UsedSpace() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::uint64_t used = 0;
  for (const auto& entry : items_) {
    used += entry.second->item.size;
  }
  return used;
}

std::int64_t CloudAccount::Now() const {
  return now_ms_();
}

CloudAccount::Record* CloudAccount::Get(const std::string& id) {
  auto found = items_.find(id);
  return found == items_.end() ? nullptr : found->second.get();
}

const CloudAccount::Record* CloudAccount::Get(const std::string& id) const {
  auto found = items_.find(id);
  return found == items_.end() ? nullptr : found->second.get();
}

std::optional<Item> CloudAccount::Find(const std::string& id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Record* record = Get(id);
  return record ? std::optional<Item>(record->item) : std::nullopt;
}

bool CloudAccount::IsInTrash(const std::string& id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return IsInTrashLocked(id);
}

bool CloudAccount::IsInTrashLocked(const std::string& id) const {
  // In the trash when every road to the root passes a trashed item.
  const Record* record = Get(id);
  if (!record) {
    return false;
  }
  if (record->item.trashed) {
    return true;
  }
  if (record->item.parents.empty()) {
    return false;
  }
  for (const std::string& parent : record->item.parents) {
    if (!IsInTrashLocked(parent)) {
      return false;
    }
  }
  return true;
}

std::vector<Item> CloudAccount::Children(const std::string& folder_id, bool with_trashed,
                                         std::size_t offset, std::size_t limit,
                                         std::size_t* total) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Item> page;
  std::size_t count = 0;
  if (const Record* folder = Get(folder_id)) {
    for (const std::string& child_id : folder->children) {
      const Item& child = Get(child_id)->item;
      if (child.trashed && !with_trashed) {
        continue;
      }
      if (count >= offset && page.size() < limit) {
        page.push_back(child);
      }
      ++count;
    }
  }
  if (total) {
    *total = count;
  }
  return page;
}

std::optional<Item> CloudAccount::ChildByName(const std::string& folder_id, const std::string& name,
                                              bool case_insensitive) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (const Record* folder = Get(folder_id)) {
    for (const std::string& child_id : folder->children) {
      const Item& child = Get(child_id)->item;
      if (!child.trashed && SameName(child.name, name, case_insensitive)) {
        return child;
      }
    }
  }
  return std::nullopt;
}

std::optional<Item> CloudAccount::FindByPath(const std::string& path) const {
  std::string id = root_id_;
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t slash = path.find('/', start);
    std::string name = path.substr(start, slash == std::string::npos ? slash : slash - start);
    start = slash == std::string::npos ? path.size() : slash + 1;
    if (name.empty()) {
      continue;
    }
    std::optional<Item> child = ChildByName(id, name);
    if (!child) {
      return std::nullopt;
    }
    id = child->id;
  }
  return Find(id);
}

std::string CloudAccount::PathOf(const std::string& id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return PathOfLocked(id);
}

std::string CloudAccount::PathOfLocked(const std::string& id) const {
  std::vector<const std::string*> names;
  std::set<std::string> seen;
  for (const Record* record = Get(id); record && !record->item.parents.empty();
       record = Get(record->item.parents.front())) {
    if (!seen.insert(record->item.id).second) {
      break;
    }
    names.push_back(&record->item.name);
  }
  std::string path;
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    path += (path.empty() ? "" : "/") + **name;
  }
  return path;
}

std::vector<Item> CloudAccount::AllItems() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Item> all;
  all.reserve(items_.size());
  // Parents before children, so that a reader can build the tree in one pass.
  std::deque<std::string> queue{root_id_};
  std::set<std::string> seen;
  while (!queue.empty()) {
    const Record* record = Get(queue.front());
    queue.pop_front();
    if (!record || !seen.insert(record->item.id).second) {
      continue;
    }
    all.push_back(record->item);
    queue.insert(queue.end(), record->children.begin(), record->children.end());
  }
  for (const auto& entry : items_) {
    if (!seen.count(entry.first)) {
      all.push_back(entry.second->item);  // parentless: shared with me from outside
    }
  }
  return all;
}

std::size_t CloudAccount::ItemCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return items_.size();
}

bool CloudAccount::NameTaken(const std::string& folder_id, const std::string& name,
                             const std::string& except_id) const {
  const Record* folder = Get(folder_id);
  for (const std::string& child_id : folder->children) {
    const Item& child = Get(child_id)->item;
    if (child.id != except_id && !child.trashed && child.name == name) {
      return true;
    }
  }
  return false;
}

AccountError CloudAccount::CheckNewChild(const std::string& parent_id, const std::string& name,
                                         const std::string& except_id) const {
  const Record* parent = Get(parent_id);
  if (!parent) {
    return AccountError::kNotFound;
  }
  if (!parent->item.IsFolder()) {
    return AccountError::kNotAFolder;
  }
  if (name.empty()) {
    return AccountError::kInvalidName;
  }
  if (same_names_ == SameNames::kRefuse && NameTaken(parent_id, name, except_id)) {
    return AccountError::kNameTaken;
  }
  return AccountError::kNone;
}

Item& CloudAccount::AddItem(const std::string& parent_id, const std::string& name, ItemKind kind) {
  auto record = std::make_unique<Record>();
  Item& item = record->item;
  do {
    item.id = make_id_(++made_, kind);
  } while (items_.count(item.id) || item.id == root_id_);
  item.parents = {parent_id};
  item.name = name;
  item.kind = kind;
  item.created_ms = item.modified_ms = Now();
  Get(parent_id)->children.push_back(item.id);
  return items_.emplace(item.id, std::move(record)).first->second->item;
}

void CloudAccount::SetContent(Item* item, std::string content) {
  item->size = content.size();
  item->digests = ContentHasher::Of(content);
  item->generated = false;
  item->content = content.size() <= keep_limit_
                      ? std::make_shared<const std::string>(std::move(content))
                      : nullptr;
}

void CloudAccount::SetDigests(Item* item, std::uint64_t size, const ContentDigests& digests) {
  item->size = size;
  item->digests = digests;
  item->generated = false;
  item->content = nullptr;
}

void CloudAccount::Journal(ChangeKind kind, const Item& item, std::vector<std::string> old_parents,
                           std::string old_name) {
  journal_.push_back(
      JournalEntry{++sequence_, kind, item, std::move(old_parents), std::move(old_name)});
}

void CloudAccount::Touch(Item* item, ChangeKind kind, std::vector<std::string> old_parents,
                         std::string old_name) {
  ++item->revision;
  Journal(kind, *item, std::move(old_parents), std::move(old_name));
}

AccountError CloudAccount::CreateFolder(const std::string& parent_id, const std::string& name,
                                        Item* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  AccountError error = CheckNewChild(parent_id, name, std::string());
  if (error != AccountError::kNone) {
    return error;
  }
  Item& item = AddItem(parent_id, name, ItemKind::kFolder);
  Journal(ChangeKind::kCreated, item);
  if (out)
    *out = item;
  return AccountError::kNone;
}

AccountError CloudAccount::CreateFile(const std::string& parent_id, const std::string& name,
                                      std::string content, std::int64_t modified_ms, Item* out) {
  std::uint64_t size = content.size();
  return AddFile(
      parent_id, name, size, modified_ms,
      [&](Item& item) { SetContent(&item, std::move(content)); }, out);
}

AccountError CloudAccount::CreateFileByDigests(const std::string& parent_id,
                                               const std::string& name, std::uint64_t size,
                                               const ContentDigests& digests,
                                               std::int64_t modified_ms, Item* out) {
  return AddFile(
      parent_id, name, size, modified_ms, [&](Item& item) { SetDigests(&item, size, digests); },
      out);
}

AccountError CloudAccount::AddFile(const std::string& parent_id, const std::string& name,
                                   std::uint64_t size, std::int64_t modified_ms,
                                   const std::function<void(Item&)>& fill, Item* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  AccountError error = CheckNewChild(parent_id, name, std::string());
  if (error != AccountError::kNone) {
    return error;
  }
  if (size > total_space_) {
    return AccountError::kNoSpace;
  }
  Item& item = AddItem(parent_id, name, ItemKind::kFile);
  fill(item);
  if (modified_ms > 0)
    item.modified_ms = modified_ms;
  Journal(ChangeKind::kCreated, item);
  if (out)
    *out = item;
  return AccountError::kNone;
}

AccountError CloudAccount::CreateGeneratedFile(const std::string& parent_id,
                                               const std::string& name, std::uint64_t size,
                                               Item* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  AccountError error = CheckNewChild(parent_id, name, std::string());
  if (error != AccountError::kNone) {
    return error;
  }
  Item& item = AddItem(parent_id, name, ItemKind::kFile);
  ContentHasher hasher;
  std::vector<std::uint8_t> block(1 << 20);
  for (std::uint64_t done = 0; done < size;) {
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - done));
    PatternBytes(done, block.data(), n);
    hasher.Update(block.data(), n);
    done += n;
  }
  item.size = size;
  item.digests = hasher.Finish();
  item.generated = true;
  Journal(ChangeKind::kCreated, item);
  if (out)
    *out = item;
  return AccountError::kNone;
}

AccountError CloudAccount::ReplaceContent(const std::string& id, std::string content,
                                          std::int64_t modified_ms, Item* out) {
  return Rewrite(
      id, modified_ms, [&](Item& item) { SetContent(&item, std::move(content)); }, out);
}

AccountError CloudAccount::ReplaceByDigests(const std::string& id, std::uint64_t size,
                                            const ContentDigests& digests, std::int64_t modified_ms,
                                            Item* out) {
  return Rewrite(
      id, modified_ms, [&](Item& item) { SetDigests(&item, size, digests); }, out);
}

AccountError CloudAccount::Rewrite(const std::string& id, std::int64_t modified_ms,
                                   const std::function<void(Item&)>& fill, Item* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  Record* record = Get(id);
  if (!record)
    return AccountError::kNotFound;
  if (record->item.IsFolder())
    return AccountError::kNotAFile;
  fill(record->item);
  record->item.modified_ms = modified_ms > 0 ? modified_ms : Now();
  Touch(&record->item, ChangeKind::kModified);
  if (out)
    *out = record->item;
  return AccountError::kNone;
}

AccountError CloudAccount::Rename(const std::string& id, const std::string& name, Item* out) {
  std::vector<std::string> parents;
  if (std::optional<Item> item = Find(id)) {
    parents = item->parents;
  }
  return Move(id, parents, name, out);
}

AccountError CloudAccount::Move(const std::string& id, const std::vector<std::string>& parent_ids,
                                const std::string& name, Item* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  Record* record = Get(id);
  if (!record)
    return AccountError::kNotFound;
  if (id == root_id_ || parent_ids.empty())
    return AccountError::kInvalidName;
  const std::string& new_name = name.empty() ? record->item.name : name;
  // 1. Every new parent is a folder that takes the name and lies outside the item.
  for (const std::string& parent_id : parent_ids) {
    AccountError error = CheckNewChild(parent_id, new_name, id);
    if (error != AccountError::kNone)
      return error;
    std::deque<std::string> ancestors{parent_id};
    while (!ancestors.empty()) {
      std::string ancestor = ancestors.front();
      ancestors.pop_front();
      if (ancestor == id)
        return AccountError::kCycle;
      if (const Record* above = Get(ancestor)) {
        ancestors.insert(ancestors.end(), above->item.parents.begin(), above->item.parents.end());
      }
    }
  }
  // 2. Unlink from the old parents, link to the new ones.
  std::vector<std::string> old_parents = record->item.parents;
  std::string old_name = record->item.name;
  Unlink(id);
  for (const std::string& parent_id : parent_ids) {
    Get(parent_id)->children.push_back(id);
  }
  record->item.parents = parent_ids;
  record->item.name = new_name;
  Touch(&record->item, ChangeKind::kMoved, std::move(old_parents), std::move(old_name));
  if (out)
    *out = record->item;
  return AccountError::kNone;
}

void CloudAccount::Unlink(const std::string& id) {
  for (const std::string& parent_id : Get(id)->item.parents) {
    if (Record* parent = Get(parent_id)) {
      auto& children = parent->children;
      children.erase(std::remove(children.begin(), children.end(), id), children.end());
    }
  }
}

AccountError CloudAccount::Trash(const std::string& id, Item* out) {
  if (id == root_id_)
    return AccountError::kInvalidName;
  return UpdateItem(
      id, ChangeKind::kTrashed, [&](Item& item) { item.trashed = true; }, out);
}

AccountError CloudAccount::Restore(const std::string& id, Item* out) {
  return UpdateItem(
      id, ChangeKind::kRestored, [&](Item& item) { item.trashed = false; }, out);
}

AccountError CloudAccount::Delete(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!Get(id))
    return AccountError::kNotFound;
  if (id == root_id_)
    return AccountError::kInvalidName;
  // Children first, so that the journal never names an item whose parent is already gone; a
  // child with another parent stays there.
  std::vector<std::string> order;
  std::deque<std::string> queue{id};
  while (!queue.empty()) {
    std::string next = queue.front();
    queue.pop_front();
    order.push_back(next);
    for (const std::string& child_id : Get(next)->children) {
      if (Get(child_id)->item.parents.size() == 1) {
        queue.push_back(child_id);
      }
    }
  }
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    Record* record = Get(*it);
    for (const std::string& child_id : record->children) {
      Record* child = Get(child_id);
      if (child && child->item.parents.size() > 1) {
        auto& parents = child->item.parents;
        parents.erase(std::remove(parents.begin(), parents.end(), *it), parents.end());
      }
    }
    Unlink(*it);
    Journal(ChangeKind::kDeleted, record->item);
    items_.erase(*it);
  }
  return AccountError::kNone;
}

AccountError CloudAccount::SetProperty(const std::string& id, const std::string& key,
                                       const std::string& value, Item* out) {
  return UpdateItem(
      id, ChangeKind::kUpdated,
      [&](Item& item) {
        if (value.empty()) {
          item.properties.erase(key);
        } else {
          item.properties[key] = value;
        }
      },
      out);
}

AccountError CloudAccount::SetPublicLink(const std::string& id, const std::string& link,
                                         Item* out) {
  return UpdateItem(
      id, ChangeKind::kUpdated, [&](Item& item) { item.public_link = link; }, out);
}

AccountError CloudAccount::SetSharedWithMe(const std::string& id, bool shared, Item* out) {
  return UpdateItem(
      id, ChangeKind::kUpdated, [&](Item& item) { item.shared_with_me = shared; }, out);
}

AccountError CloudAccount::SetModified(const std::string& id, std::int64_t modified_ms, Item* out) {
  return UpdateItem(
      id, ChangeKind::kUpdated, [&](Item& item) { item.modified_ms = modified_ms; }, out);
}

AccountError CloudAccount::UpdateItem(const std::string& id, ChangeKind kind,
                                      const std::function<void(Item&)>& change, Item* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  Record* record = Get(id);
  if (!record)
    return AccountError::kNotFound;
  change(record->item);
  Touch(&record->item, kind);
  if (out)
    *out = record->item;
  return AccountError::kNone;
}

std::uint64_t CloudAccount::Sequence() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sequence_;
}

std::uint64_t CloudAccount::ForgottenUpTo() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return forgotten_;
}

void CloudAccount::ForgetJournal() {
  std::lock_guard<std::mutex> lock(mutex_);
  journal_.clear();
  forgotten_ = sequence_;
}

std::vector<JournalEntry> CloudAccount::ChangesSince(std::uint64_t sequence,
                                                     std::size_t limit) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto first = std::upper_bound(
      journal_.begin(), journal_.end(), sequence,
      [](std::uint64_t value, const JournalEntry& entry) { return value < entry.sequence; });
  std::vector<JournalEntry> page;
  for (; first != journal_.end() && page.size() < limit; ++first) {
    page.push_back(*first);
  }
  return page;
}

std::string CloudAccount::OpenUpload(const UploadSpec& spec) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto upload = std::make_unique<Upload>();
  upload->state.id = "session-" + DefaultId(++uploads_made_, ItemKind::kFile);
  upload->state.spec = spec;
  upload->state.expires_ms = Now() + spec.lifetime_ms;
  // A session of unknown size keeps its bytes until they pass the limit.
  upload->keep = spec.total_size == UINT64_MAX || spec.total_size <= keep_limit_;
  std::string id = upload->state.id;
  uploads_.emplace(id, std::move(upload));
  return id;
}

std::optional<UploadState> CloudAccount::FindUpload(const std::string& session_id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = uploads_.find(session_id);
  if (found == uploads_.end() || found->second->state.expires_ms < Now()) {
    return std::nullopt;
  }
  return found->second->state;
}

AccountError CloudAccount::AppendUpload(const std::string& session_id, std::uint64_t offset,
                                        const std::string& data, std::uint64_t* persisted) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = uploads_.find(session_id);
  if (found == uploads_.end() || found->second->state.expires_ms < Now()) {
    return AccountError::kSessionMissing;
  }
  Upload& upload = *found->second;
  UploadState& state = upload.state;
  *persisted = state.persisted;
  if (offset != state.persisted) {
    return AccountError::kBadOffset;
  }
  if (state.spec.total_size != UINT64_MAX && offset + data.size() > state.spec.total_size) {
    return AccountError::kSizeMismatch;
  }
  // 1. What this piece persists: all of it, unless a limit cuts it to a granularity step.
  std::uint64_t take = data.size();
  if (next_persist_limit_ != UINT64_MAX) {
    take = std::min<std::uint64_t>(take, next_persist_limit_);
    next_persist_limit_ = UINT64_MAX;
    bool completes = offset + take == state.spec.total_size;
    if (!completes && state.spec.granularity > 1) {
      take -= (offset + take) % state.spec.granularity;
      take = std::min<std::uint64_t>(take, data.size());
    }
  }
  // 2. Keep it.
  upload.hasher.Update(data.data(), static_cast<std::size_t>(take));
  if (upload.keep) {
    upload.bytes.append(data, 0, static_cast<std::size_t>(take));
    upload.keep = upload.bytes.size() <= keep_limit_;
    if (!upload.keep)
      upload.bytes.clear();
  }
  state.persisted += take;
  *persisted = state.persisted;
  return AccountError::kNone;
}

AccountError CloudAccount::RetargetUpload(const std::string& session_id, const UploadSpec& spec) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = uploads_.find(session_id);
  if (found == uploads_.end() || found->second->state.expires_ms < Now()) {
    return AccountError::kSessionMissing;
  }
  UploadSpec& kept = found->second->state.spec;
  const std::int64_t lifetime_ms = kept.lifetime_ms;
  kept = spec;
  kept.lifetime_ms = lifetime_ms;
  return AccountError::kNone;
}

AccountError CloudAccount::CommitUpload(const std::string& session_id, Item* out) {
  std::unique_ptr<Upload> upload;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = uploads_.find(session_id);
    if (found == uploads_.end() || found->second->state.expires_ms < Now()) {
      return AccountError::kSessionMissing;
    }
    const UploadState& state = found->second->state;
    if (state.spec.total_size != UINT64_MAX && state.persisted != state.spec.total_size) {
      return AccountError::kSizeMismatch;
    }
    upload = std::move(found->second);
    uploads_.erase(found);
  }
  // 1. The new file or version, through the ordinary operations (they keep the journal).
  const UploadSpec& spec = upload->state.spec;
  std::string bytes = std::move(upload->bytes);
  AccountError error =
      spec.target_id.empty()
          ? CreateFile(spec.parent_id, spec.name, std::move(bytes), spec.modified_ms, out)
          : ReplaceContent(spec.target_id, std::move(bytes), spec.modified_ms, out);
  if (error != AccountError::kNone || upload->keep) {
    return error;
  }
  // 2. A large file keeps only what the session hashed.
  std::lock_guard<std::mutex> lock(mutex_);
  Item& item = Get(out->id)->item;
  item.size = upload->state.persisted;
  item.digests = upload->hasher.Finish();
  item.content = nullptr;
  journal_.back().item = item;
  *out = item;
  return AccountError::kNone;
}

void CloudAccount::DropUpload(const std::string& session_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  uploads_.erase(session_id);
}

void CloudAccount::ExpireUploads() {
  std::lock_guard<std::mutex> lock(mutex_);
  uploads_.clear();
}

void CloudAccount::LimitNextPersist(std::uint64_t bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  next_persist_limit_ = bytes;
}

bool CloudAccount::SeedFromFolder(const std::string& local_dir, const std::string& parent_id,
                                  std::string* error) {
  QDir dir(QString::fromStdString(local_dir));
  if (!dir.exists()) {
    *error = "no folder " + local_dir;
    return false;
  }
  const auto entries = dir.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                                         QDir::Name | QDir::DirsFirst);
  for (const QFileInfo& entry : entries) {
    std::string name = entry.fileName().toStdString();
    Item made;
    AccountError result;
    if (entry.isDir()) {
      result = CreateFolder(parent_id, name, &made);
      if (result == AccountError::kNone &&
          !SeedFromFolder(entry.filePath().toStdString(), made.id, error)) {
        return false;
      }
    } else {
      QFile file(entry.filePath());
      if (!file.open(QIODevice::ReadOnly)) {
        *error = "cannot read " + entry.filePath().toStdString();
        return false;
      }
      QByteArray bytes = file.readAll();
      result = CreateFile(parent_id, name, std::string(bytes.constData(), bytes.size()),
                          entry.lastModified().toMSecsSinceEpoch(), &made);
    }
    if (result != AccountError::kNone) {
      *error = name + ": " + AccountErrorName(result);
      return false;
    }
  }
  return true;
}

}  // namespace emulators

#include "services/DropboxListing.h"

#include "core/RemoteFileSystem.h"
#include "core/TimeUtils.h"
#include "services/RemoteDropboxUtils.h"

namespace {

DropboxEntry::Kind KindOf(const std::string& tag) {
  if (tag == "folder") {
    return DropboxEntry::kFolder;
  }
  if (tag == "file") {
    return DropboxEntry::kFile;
  }
  return tag == "deleted" ? DropboxEntry::kDeleted : DropboxEntry::kUnknown;
}

constexpr std::size_t kContentHashHexLength = 64;
// Far above the 255 characters Dropbox and the client's disks allow in a name.
constexpr std::size_t kMaxNameBytes = 1024;

bool HasOverlongName(const std::string& path) {
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) {
      end = path.size();
    }
    if (end - start > kMaxNameBytes) {
      return true;
    }
    start = end + 1;
  }
  return false;
}

}  // namespace

bool ReadDropboxPage(const utils::json::json_tree& json, DropboxPage* page, std::string* missing) {
  page->has_more = dropbox::ReadBool(json, "has_more", false);
  page->cursor = dropbox::ReadString(json, "cursor");
  auto entries = utils::json::Member(json, "entries");
  page->entries = entries ? &*entries : nullptr;
  if (page->cursor.empty()) {
    *missing = "cursor";
    return false;
  }
  if (!page->entries || !page->entries->data().empty()) {
    *missing = "entries";
    return false;
  }
  return true;
}

DropboxEntry ReadDropboxEntry(const utils::json::json_tree& json) {
  DropboxEntry entry;
  auto tag = utils::json::Member(json, ".tag");
  entry.kind = tag && tag->empty() ? KindOf(tag->data()) : DropboxEntry::kUnknown;
  // 1. The path: canonical once its leading slash is gone, or the entry is not used.
  entry.path = dropbox::ReadString(json, "path_display");
  if (entry.path.empty()) {
    entry.problem = DropboxEntry::kEmptyPath;
    return entry;
  }
  RemoteFileSystem::RemoveFirstSlashIfExists(&entry.path);
  if (entry.path.find('\0') != std::string::npos || HasOverlongName(entry.path) ||
      (!entry.path.empty() && !FileSystem::IsCanonicalPath(entry.path))) {
    entry.problem = DropboxEntry::kBadPath;
    return entry;
  }
  if (entry.kind != DropboxEntry::kFile) {
    return entry;
  }
  // 2. A file's size, time and content.
  if (!dropbox::ReadUint64(json, "size", &entry.size) || entry.size > INT64_MAX) {
    entry.problem = DropboxEntry::kBadSize;
    return entry;
  }
  entry.time = utils::ParseISODateTime(dropbox::ReadString(json, "client_modified"));
  entry.rev = dropbox::ReadString(json, "rev");
  HashDropbox hash;
  const std::string hex = dropbox::ReadString(json, "content_hash");
  if (hex.size() == kContentHashHexLength) {
    hash = HashDropbox::FromHexString(hex);
  }
  hash.rev = entry.rev;
  entry.hash = SomeHash(hash);
  return entry;
}

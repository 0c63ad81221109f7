#include "services/YandexItems.h"

#include <charconv>

#include "core/LoggerWrapper.h"
#include "core/RemoteNameMapper.h"
#include "core/TimeUtils.h"

namespace yandex_items {
namespace {

std::string Text(const utils::json::json_tree& node, const char* key) {
  const auto child = utils::json::Child(node, key);
  return child ? child->data() : std::string();
}

bool IsDecimal(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// A REST path ("disk:/a") below the mount; a path without the prefix is nowhere on the disk.
Place LocalDiskPath(const std::string& path, const Mount& mount, std::string* local) {
  const std::string_view prefix(kDiskPrefix);
  if (path.compare(0, prefix.size(), prefix) != 0) {
    LOG_WARNING << "Path without \"" << kDiskPrefix << "\": " << path;
    return Place::kOutside;
  }
  return LocalPath(std::string_view(path).substr(prefix.size()), mount, local);
}

template <std::size_t N>
HashBase<N> ReadDigest(const std::string& text) {
  return text.empty() ? HashBase<N>() : HashBase<N>::FromHexString(text);
}

DeltaOutcome ReadFileFields(const utils::json::json_tree& item, FileSystem::Change* change) {
  change->time = ReadModified(item, "resource.modified");
  if (!ReadFileSize(item, "resource.size", &change->size)) {
    return DeltaOutcome::kFatal;
  }
  const HashYandex hash = ReadHash(item, "resource.md5", "resource.sha256");
  if (hash.md5.IsZero() || hash.sha256.IsZero()) {
    return DeltaOutcome::kNoHash;
  }
  change->hash = SomeHash(hash);
  return DeltaOutcome::kChange;
}

DeltaOutcome UnknownChangeType(const std::string& changeType) {
  LOG_WARNING << "Unknown change type: " << changeType;
  return DeltaOutcome::kFatal;
}

DeltaOutcome ReadFileDelta(const utils::json::json_tree& item, const std::string& changeType,
                           FileSystem::Change* change) {
  if (changeType == "deleted") {
    change->type = FileSystem::Change::FILE_DELETE;
    return DeltaOutcome::kChange;
  }
  if (changeType == "new" || changeType == "changed") {
    change->type =
        changeType == "new" ? FileSystem::Change::FILE_CREATE : FileSystem::Change::FILE_MODIFY;
    return ReadFileFields(item, change);
  }
  return UnknownChangeType(changeType);
}

// A folder moved within the mount is created at its new place from the old one; moved out of the
// mount it is gone, and moved in it is new.
DeltaOutcome ReadFolderMove(const utils::json::json_tree& item, const Mount& mount, Place from,
                            FileSystem::Change* change) {
  std::string target;
  if (LocalDiskPath(Text(item, "new_path"), mount, &target) != Place::kInside) {
    change->type = FileSystem::Change::FOLDER_DELETE;
    return from == Place::kInside ? DeltaOutcome::kChange : DeltaOutcome::kSkip;
  }
  change->type = FileSystem::Change::FOLDER_CREATE;
  if (from == Place::kInside) {
    change->old_path = std::move(change->path);
  }
  change->path = std::move(target);
  return DeltaOutcome::kChange;
}

DeltaOutcome ReadFolderDelta(const utils::json::json_tree& item, const std::string& changeType,
                             const Mount& mount, Place place, FileSystem::Change* change) {
  if (changeType == "moved") {
    return ReadFolderMove(item, mount, place, change);
  }
  if (place != Place::kInside) {
    return DeltaOutcome::kSkip;
  }
  if (changeType == "changed") {
    LOG_INFO << "Skipped changed directory event for \"" << change->path << "\"";
    return DeltaOutcome::kSkip;
  }
  if (changeType == "deleted" || changeType == "new") {
    change->type =
        changeType == "new" ? FileSystem::Change::FOLDER_CREATE : FileSystem::Change::FOLDER_DELETE;
    return DeltaOutcome::kChange;
  }
  return UnknownChangeType(changeType);
}

}  // namespace

Place RelativeToMount(std::string_view path, std::string_view root, std::string_view* relative) {
  if (!root.empty()) {
    if (path == root) {
      return Place::kMountedRoot;
    }
    if (path.size() <= root.size() || path.compare(0, root.size(), root) != 0 ||
        path[root.size()] != '/') {
      return Place::kOutside;
    }
    path.remove_prefix(root.size() + 1);
  }
  *relative = path;
  return path.empty() ? Place::kMountedRoot : Place::kInside;
}

Place LocalPath(std::string_view path, const Mount& mount, std::string* local) {
  std::string_view relative;
  const Place place = RelativeToMount(path, mount.root, &relative);
  if (place != Place::kInside) {
    return place;
  }
  bool changed = false;
  mount.nameMapper->UnmapPathToLocal(std::string(relative), local, &changed);
  if (!changed) {
    local->assign(relative);
  }
  return place;
}

bool ReadFileSize(const utils::json::json_tree& node, const char* key, std::uint64_t* size) {
  const std::string text = Text(node, key);
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, *size);
  if (text.empty() || error != std::errc() || stop != end || *size > kMaxFileSize) {
    LOG_WARNING << "Invalid file size.";
    return false;
  }
  return true;
}

HashYandex ReadHash(const utils::json::json_tree& node, const char* md5Key, const char* sha256Key) {
  HashYandex hash;
  hash.md5 = ReadDigest<16>(Text(node, md5Key));
  hash.sha256 = ReadDigest<32>(Text(node, sha256Key));
  if (hash.md5.IsZero() || hash.sha256.IsZero()) {
    hash.Clear();
  }
  return hash;
}

std::uint64_t ReadModified(const utils::json::json_tree& node, const char* key) {
  std::int64_t seconds = 0;
  if (!utils::TryParseISODateTime(Text(node, key), &seconds) || seconds < 0) {
    LOG_WARNING << "Failed to parse modification date.";
    return 0;
  }
  return static_cast<std::uint64_t>(seconds);
}

bool ReadSnapshotItem(const utils::json::json_tree& item, const Mount& mount, SnapshotItem* out) {
  out->place = LocalDiskPath(Text(item, "path"), mount, &out->path);
  if (out->place != Place::kInside) {
    return true;
  }
  out->isFile = Text(item, "type") == "file";
  out->published = !Text(item, "public_url").empty();
  out->time = ReadModified(item, "modified");
  if (!out->isFile) {
    return true;
  }
  if (!ReadFileSize(item, "size", &out->size)) {
    return false;
  }
  out->hash = ReadHash(item, "md5", "sha256");
  if (out->hash.IsZero()) {
    LOG_WARNING << "Invalid file hash.";
    return false;
  }
  return true;
}

DeltaOutcome ReadDeltaItem(const utils::json::json_tree& item, const Mount& mount,
                           FileSystem::Change* change, std::string* revision) {
  *revision = Text(item, "revision");
  const Place place = LocalDiskPath(Text(item, "path"), mount, &change->path);
  const std::string changeType = Text(item, "change_type");
  if (Text(item, "type") != "file") {
    return ReadFolderDelta(item, changeType, mount, place, change);
  }
  if (place != Place::kInside) {
    return DeltaOutcome::kSkip;
  }
  return ReadFileDelta(item, changeType, change);
}

bool IsLaterRevision(const std::string& candidate, const std::string& current) {
  if (IsDecimal(candidate) && IsDecimal(current) && candidate.size() != current.size()) {
    return candidate.size() > current.size();
  }
  return candidate > current;
}

}  // namespace yandex_items

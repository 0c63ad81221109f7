// YandexItems: the items of Yandex Disk's JSON snapshot and delta feed, read into nodes and
// changes, and the paths of both forms placed below the mounted folder.
//
// A REST path reads "disk:/Docs/a.txt"; the binary snapshot's "/Docs/a.txt". Both are made
// relative to the mounted folder ("Docs" of "disk:/Docs") and then local by the name mapper:
//
//   std::string local;
//   if (yandex_items::LocalPath(item_path, mount, &local) == yandex_items::Place::kInside) ...
//
// Every reader logs what it refuses and never throws.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/FileSystem.h"
#include "core/Json.h"
#include "core/SomeHash.h"

class RemoteNameMapper;

namespace yandex_items {

// The largest file the disk holds: 1 TiB.
constexpr std::uint64_t kMaxFileSize = 1099511627776ull;
constexpr char kDiskPrefix[] = "disk:/";

enum class Place { kInside, kMountedRoot, kOutside };

struct Mount {
  std::string root;  // remote form without slashes at either end; empty for the whole disk
  const RemoteNameMapper* nameMapper = nullptr;
};

// `path` (a leading "/" or "disk:/" already gone) relative to the mounted folder, in `*relative`.
Place RelativeToMount(std::string_view path, std::string_view root, std::string_view* relative);
// A REST or binary path as a local path below the mount.
Place LocalPath(std::string_view path, const Mount& mount, std::string* local);

// "size" of at most kMaxFileSize; false (logged "Invalid file size.") otherwise.
bool ReadFileSize(const utils::json::json_tree& node, const char* key, std::uint64_t* size);
// Both hex digests; zero when either is missing, malformed or all zero.
HashYandex ReadHash(const utils::json::json_tree& node, const char* md5Key, const char* sha256Key);
// An ISO time in seconds; 0 (logged "Failed to parse modification date.") when it isn't one.
std::uint64_t ReadModified(const utils::json::json_tree& node, const char* key);

// One item of a snapshot page: where it lies, and whether it is a file.
struct SnapshotItem {
  Place place = Place::kOutside;
  std::string path;  // local
  bool isFile = false;
  bool published = false;
  std::uint64_t size = 0;
  HashYandex hash;
  std::uint64_t time = 0;
};
// False for a file whose size or hash is missing or invalid (logged): it is left out.
bool ReadSnapshotItem(const utils::json::json_tree& item, const Mount& mount, SnapshotItem* out);

enum class DeltaOutcome {
  kChange,  // `*change` is filled
  kSkip,    // nothing to apply: outside the mount, or a folder's own attributes
  kNoHash,  // a file whose hashes the server hasn't computed yet
  kFatal,   // an item the feed can't go on from (logged)
};
// One item of a deltas page. `*revision` receives the item's "revision".
DeltaOutcome ReadDeltaItem(const utils::json::json_tree& item, const Mount& mount,
                           FileSystem::Change* change, std::string* revision);

// True when `candidate` names a later revision than `current`: by value for numbers, else by text.
bool IsLaterRevision(const std::string& candidate, const std::string& current);

}  // namespace yandex_items

// YandexSnapshot: a subtree of the account as Yandex Disk's WebDAV "index&v=3" GET delivers it, a
// packed stream of entries with no header and no trailer, and the walk that orders it.
//
//   std::uint64_t count = 0;
//   std::string body = emulators::BinarySnapshot(account, "Docs", &count);
//   // answered with "Item-Count: <count>"
//
// An entry is a type byte, 1 for a file: the raw MD5 (16 bytes), the raw SHA-256 (32 bytes), the
// size and the path length as ULEB64, the path; 2 for a folder: the path length as ULEB64 and
// the path. Paths are UTF-8 from the disk's root without a leading "/" ("Docs/a.txt"). A folder
// comes before everything below it, and a folder's files come together right after it, so that
// a reader's parent cache hits.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "emulators/CloudAccount.h"

namespace emulators {

// Little-endian base 128, seven bits to a byte, the top bit set on all but the last.
void AppendUleb64(std::uint64_t value, std::string* out);

// Everything below `folder` (not in the trash), a folder's files first, then each subfolder
// followed by its own subtree. `path` is the folder's path; children get "path/name".
void WalkTree(const CloudAccount& account, const Item& folder, const std::string& path,
              const std::function<void(const Item&, const std::string&)>& visit);

// The entries of the folder at `path` ("" for the whole disk) and of all below it; a mounted
// folder's own record comes first, the disk's root has none. `count` receives the entries.
std::string BinarySnapshot(const CloudAccount& account, const Item& folder, const std::string& path,
                           std::uint64_t* count);

}  // namespace emulators

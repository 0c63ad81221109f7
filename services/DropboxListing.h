// DropboxListing: one page of "files/list_folder" (or its "continue") as the adapter reads it.
//
//   DropboxPage page;
//   if (!ReadDropboxPage(json, &page)) ...            // no cursor or no entries: the page is bad
//   for (const auto& item : page.entries) {
//     DropboxEntry entry = ReadDropboxEntry(item.second);
//     if (entry.kind == DropboxEntry::kFile) ... entry.path, entry.size, entry.hash ...
//   }
//
// Only the keys the adapter needs are read; a wrong type reads as missing, and nothing throws.
#pragma once

#include <cstdint>
#include <string>

#include "core/Json.h"
#include "core/SomeHash.h"

struct DropboxPage {
  bool has_more = false;
  std::string cursor;
  const utils::json::json_tree* entries = nullptr;  // inside the page's tree
};

struct DropboxEntry {
  enum Kind { kFolder, kFile, kDeleted, kUnknown };
  enum Problem { kNone, kEmptyPath, kBadPath, kBadSize };

  Kind kind = kUnknown;
  Problem problem = kNone;
  std::string path;  // "path_display" without its leading slash
  std::uint64_t size = 0;
  std::int64_t time = 0;  // "client_modified", seconds
  SomeHash hash;          // "content_hash" with the "rev"
  std::string rev;
};

// False when the page lacks its cursor (`*missing` = "cursor") or its entries ("entries").
bool ReadDropboxPage(const utils::json::json_tree& json, DropboxPage* page, std::string* missing);

DropboxEntry ReadDropboxEntry(const utils::json::json_tree& entry);

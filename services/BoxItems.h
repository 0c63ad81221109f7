// BoxItems: the items of a Box folder listing as the adapter reads them, and the page around
// them ("entries", then "next_marker" or "total_count" and "offset").
//
//   rest_api::BoxItemsPage page;
//   if (rest_api::ParseBoxItemsPage(tree, &page)) {
//     for (const rest_api::BoxItem& item : page.items) { ... }
//   }
//
// An entry the adapter can't use (unknown type, no id, no parent, a name no file system takes,
// a size that is no number) is logged and left out; the rest of the page stands.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/Json.h"

namespace rest_api {

struct BoxItem {
  bool folder = false;
  std::string id;
  std::string name;
  std::string parent_id;
  std::string sha1;  // files
  std::string etag;
  std::uint64_t size = 0;  // files
  std::uint64_t time = 0;  // "content_modified_at", seconds of the Unix epoch
};

struct BoxItemsPage {
  std::vector<BoxItem> items;
  std::size_t entries = 0;  // usable or not
  std::string next_marker;  // empty on the last page of marker paging
  // Offset paging, where the server chose it.
  std::optional<std::uint64_t> total_count;
  std::uint64_t offset = 0;
};

// Longest name taken, in bytes: Box's 255 characters of up to four bytes.
constexpr std::size_t kMaxBoxNameBytes = 1020;

// One element of "entries". False, with `*problem` set, for an entry to leave out.
bool ParseBoxItem(const utils::json::json_tree& entry, BoxItem* item, std::string* problem);
// A whole page. False when it has no "entries" list; unusable entries are logged and skipped.
bool ParseBoxItemsPage(const utils::json::json_tree& page, BoxItemsPage* out);
// A decimal count of at most 2^63 - 1; false for anything else.
bool ParseBoxNumber(const std::string& text, std::uint64_t* value);
// An ISO 8601 time with its offset, in seconds; 0 when it isn't one.
std::uint64_t ParseBoxTime(const std::string& text);

}  // namespace rest_api

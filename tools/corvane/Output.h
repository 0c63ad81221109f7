// Output: how corvane prints items, changes and failures, as text for people or one JSON object
// a line for programs.
//
//   file         12  2023-11-14 22:13:20  a/b.txt  "2a-60a1"
//   folder        -  2023-11-14 22:13:20  a
//   {"path": "a/b.txt", "type": "file", "size": 12, "mtime": 1700000000, "hash": "\"2a-60a1\""}
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "core/FileSystem.h"
#include "core/RemoteFileSystem.h"

class FolderNode;

namespace corvane {

struct Item {
  std::string path;
  bool folder = false;
  std::uint64_t size = 0;
  std::uint64_t mtime = 0;
  SomeHash hash;
};

// Calls `visit` for every item below `root`, in byte order of the paths.
void VisitTreeInPathOrder(const FolderNode& root, const std::function<void(const Item&)>& visit);
// Calls `visit` for every entry of a listing of `folder`, in byte order of the paths; sorts the
// listing's folders and files by name on the way.
void VisitListingInPathOrder(const std::string& folder, RemoteFileSystem::FolderListing* listing,
                             const std::function<void(const Item&)>& visit);

// `text` as a JSON string literal, quotes included; valid JSON whatever the bytes.
std::string JsonString(std::string_view text);
// `text` safe for a terminal and for line-based readers: control characters, backslashes and
// bytes that are no UTF-8 appear as escapes, so that a name can neither forge a line nor drive the
// terminal.
std::string TerminalText(std::string_view text);
std::string FormatItem(const Item& item, bool json);
std::string FormatChange(const FileSystem::Change& change, bool json);
// "2023-11-14 22:13:20", UTC.
std::string FormatTime(std::uint64_t seconds);
// "1.5 MiB (1572864 bytes)".
std::string FormatBytes(std::uint64_t bytes);

// The path of the folder that holds `path` ("" for an item at the root) and the item's name.
std::pair<std::string, std::string> SplitParent(const std::string& path);

}  // namespace corvane

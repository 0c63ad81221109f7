#include "Output.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <utility>

#include "core/Nodes.h"

namespace corvane {
namespace {

std::string Join(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

void SortByPath(std::vector<Item>* items) {
  std::sort(items->begin(), items->end(),
            [](const Item& a, const Item& b) { return a.path < b.path; });
}

}  // namespace

namespace {

// One step of the walk in path order. A folder stands twice among its siblings: itself under its
// name, and its contents under its name and "/", so that byte order of the keys is byte order of
// the full paths ("a/b-x" comes before "a/b/c").
struct WalkEntry {
  std::string key;
  const FileNode* file = nullptr;
  const FolderNode* folder = nullptr;
  bool contents = false;
};

struct WalkFrame {
  std::string path;
  std::vector<WalkEntry> entries;
  std::size_t next = 0;
};

WalkFrame MakeFrame(const FolderNode& folder, std::string path) {
  WalkFrame frame{std::move(path), {}, 0};
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it) {
    frame.entries.push_back({std::string(it->GetName()), *it, nullptr, false});
  }
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    std::string name(it->GetName());
    frame.entries.push_back({name + "/", nullptr, *it, true});
    frame.entries.push_back({std::move(name), nullptr, *it, false});
  }
  std::sort(frame.entries.begin(), frame.entries.end(),
            [](const WalkEntry& a, const WalkEntry& b) { return a.key < b.key; });
  return frame;
}

}  // namespace

void VisitTreeInPathOrder(const FolderNode& root, const std::function<void(const Item&)>& visit) {
  // Only the folders on the current path are held, never a list of the whole tree, and an
  // explicit stack: a real account nests deeper than a thread's stack likes.
  std::vector<WalkFrame> stack;
  stack.push_back(MakeFrame(root, std::string()));
  while (!stack.empty()) {
    WalkFrame& frame = stack.back();
    if (frame.next == frame.entries.size()) {
      stack.pop_back();
      continue;
    }
    const WalkEntry& entry = frame.entries[frame.next++];
    if (entry.file) {
      visit({Join(frame.path, entry.key), false, entry.file->size, entry.file->GetTime(),
             entry.file->hash});
    } else if (!entry.contents) {
      visit({Join(frame.path, entry.key), true, 0, entry.folder->GetTime(), SomeHash()});
    } else {
      std::string path = Join(frame.path, std::string(entry.folder->GetName()));
      stack.push_back(MakeFrame(*entry.folder, std::move(path)));
    }
  }
}

std::vector<Item> ListingItems(const std::string& folder,
                               const RemoteFileSystem::FolderListing& listing) {
  std::vector<Item> items;
  for (const std::string& name : listing.folders) {
    items.push_back({Join(folder, name), true, 0, 0, SomeHash()});
  }
  for (const auto& [name, props] : listing.files) {
    items.push_back({Join(folder, name), false, props.size, props.time, props.hash});
  }
  SortByPath(&items);
  return items;
}

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string FormatTime(std::uint64_t seconds) {
  std::time_t time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

std::string FormatBytes(std::uint64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  char text[64];
  if (unit == 0) {
    std::snprintf(text, sizeof(text), "%llu B", static_cast<unsigned long long>(bytes));
  } else {
    std::snprintf(text, sizeof(text), "%.1f %s (%llu bytes)", value, kUnits[unit],
                  static_cast<unsigned long long>(bytes));
  }
  return text;
}

std::string FormatItem(const Item& item, bool json) {
  std::ostringstream line;
  if (json) {
    line << "{\"path\": " << JsonString(item.path)
         << ", \"type\": " << (item.folder ? "\"folder\"" : "\"file\"");
    if (!item.folder) {
      line << ", \"size\": " << item.size;
    }
    line << ", \"mtime\": " << item.mtime;
    if (!item.folder) {
      line << ", \"hash\": " << JsonString(item.hash.ToHexString());
    }
    line << "}";
    return line.str();
  }
  char head[64];
  if (item.folder) {
    std::snprintf(head, sizeof(head), "folder %12s  ", "-");
  } else {
    std::snprintf(head, sizeof(head), "file   %12llu  ",
                  static_cast<unsigned long long>(item.size));
  }
  // A listing tells no time for folders: a dash rather than the epoch.
  line << head << (item.mtime ? FormatTime(item.mtime) : std::string(19, ' ') + "-") << "  "
       << item.path;
  if (!item.folder && !item.hash.IsEmpty()) {
    line << "  " << item.hash.ToDisplayString();
  }
  return line.str();
}

std::string FormatChange(const FileSystem::Change& change, bool json) {
  std::ostringstream line;
  const char* type = FileSystem::Change::TypeName(change.type);
  if (json) {
    line << "{\"type\": " << JsonString(type) << ", \"path\": " << JsonString(change.path)
         << ", \"old_path\": " << JsonString(change.old_path) << ", \"size\": " << change.size
         << ", \"hash\": " << JsonString(change.hash.ToHexString()) << "}";
    return line.str();
  }
  line << type << "  " << change.path;
  if (!change.old_path.empty()) {
    line << "  (was " << change.old_path << ")";
  }
  if (change.size) {
    line << "  " << change.size << " bytes";
  }
  if (!change.hash.IsEmpty()) {
    line << "  " << change.hash.ToDisplayString();
  }
  return line.str();
}

std::pair<std::string, std::string> SplitParent(const std::string& path) {
  std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {std::string(), path};
  }
  return {path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace corvane

#include "Output.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <optional>
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
  // A folder of a million entries would otherwise be copied twenty times over while it grows.
  items.reserve(listing.folders.size() + listing.files.size());
  for (const std::string& name : listing.folders) {
    items.push_back({Join(folder, name), true, 0, 0, SomeHash()});
  }
  for (const auto& [name, props] : listing.files) {
    items.push_back({Join(folder, name), false, props.size, props.time, props.hash});
  }
  SortByPath(&items);
  return items;
}

namespace {

// The code point of the UTF-8 sequence at the start of `text` and its length; nothing for a byte
// that starts no valid sequence (stray continuation, overlong form, surrogate, beyond U+10FFFF).
std::optional<std::pair<char32_t, std::size_t>> NextCodePoint(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) {
    return std::make_pair(static_cast<char32_t>(lead), std::size_t{1});
  }
  std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
  if (length == 0 || lead > 0xF4 || text.size() < length) {
    return std::nullopt;
  }
  char32_t point = lead & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) {
      return std::nullopt;
    }
    point = (point << 6) | (next & 0x3F);
  }
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (point < kSmallest[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
    return std::nullopt;
  }
  return std::make_pair(point, length);
}

bool IsControl(char32_t point) {
  return point < 0x20 || (point >= 0x7F && point <= 0x9F);
}

std::string Hex(const char* format, unsigned value) {
  char text[16];
  std::snprintf(text, sizeof(text), format, value);
  return text;
}

}  // namespace

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  while (!text.empty()) {
    auto next = NextCodePoint(text);
    if (!next) {
      // JSON has no way to carry a raw byte: the replacement character keeps the line valid.
      out += "\\ufffd";
      text.remove_prefix(1);
      continue;
    }
    const auto [point, length] = *next;
    if (point == '"' || point == '\\') {
      out += '\\';
      out += static_cast<char>(point);
    } else if (point == '\n') {
      out += "\\n";
    } else if (point == '\r') {
      out += "\\r";
    } else if (point == '\t') {
      out += "\\t";
    } else if (IsControl(point)) {
      out += Hex("\\u%04x", static_cast<unsigned>(point));
    } else {
      out.append(text.data(), length);
    }
    text.remove_prefix(length);
  }
  return out + "\"";
}

std::string TerminalText(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    auto next = NextCodePoint(text);
    if (!next) {
      out += Hex("\\x%02x", static_cast<unsigned char>(text[0]));
      text.remove_prefix(1);
      continue;
    }
    const auto [point, length] = *next;
    if (point == '\\') {
      out += "\\\\";
    } else if (IsControl(point)) {
      out += point < 0x80 ? Hex("\\x%02x", static_cast<unsigned>(point))
                          : Hex("\\u%04x", static_cast<unsigned>(point));
    } else {
      out.append(text.data(), length);
    }
    text.remove_prefix(length);
  }
  return out;
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
       << TerminalText(item.path);
  if (!item.folder && !item.hash.IsEmpty()) {
    line << "  " << TerminalText(item.hash.ToDisplayString());
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
  line << type << "  " << TerminalText(change.path);
  if (!change.old_path.empty()) {
    line << "  (was " << TerminalText(change.old_path) << ")";
  }
  if (change.size) {
    line << "  " << change.size << " bytes";
  }
  if (!change.hash.IsEmpty()) {
    line << "  " << TerminalText(change.hash.ToDisplayString());
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

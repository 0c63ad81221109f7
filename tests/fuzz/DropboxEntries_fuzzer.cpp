// Any bytes as a "files/list_folder" page: no crash, and every entry the reader accepts has a
// canonical path, a file size that fits the tree, and a hash only when its hex was whole.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/FileSystem.h"
#include "services/DropboxListing.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  utils::json::json_tree tree;
  if (!fuzz::ParseJson(data, size, &tree)) {
    return 0;
  }
  DropboxPage page;
  std::string missing;
  if (!ReadDropboxPage(tree, &page, &missing)) {
    return 0;
  }
  for (const auto& item : *page.entries) {
    const DropboxEntry entry = ReadDropboxEntry(item.second);
    if (entry.problem != DropboxEntry::kNone) {
      continue;
    }
    if ((!entry.path.empty() && !FileSystem::IsCanonicalPath(entry.path)) ||
        entry.path.find('\0') != std::string::npos || entry.size > INT64_MAX) {
      std::abort();
    }
  }
  return 0;
}

#include "services/ParseFolderListener.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "core/LoggerWrapper.h"
#include "core/Nodes.h"

namespace auxil {

namespace {

void LogDuplicate(const std::string& name) {
  LOG_WARNING << "Duplicate name in a listing, the first one kept: " << name;
}

// The positions of the entries whose name an earlier entry, or a name of `taken`, already has.
template <typename Entry, typename NameOf>
std::vector<bool> LaterTwins(const std::vector<Entry>& entries, NameOf nameOf,
                             const std::vector<std::string>& taken) {
  std::vector<std::uint32_t> order(entries.size());
  std::iota(order.begin(), order.end(), 0);
  // Ties broken by position, as a stable sort would, without the buffer a stable sort takes.
  std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
    const int compared = nameOf(entries[a]).compare(nameOf(entries[b]));
    return compared < 0 || (compared == 0 && a < b);
  });
  std::vector<bool> twin(entries.size(), false);
  for (std::size_t i = 0; i < order.size(); ++i) {
    const std::string& name = nameOf(entries[order[i]]);
    twin[order[i]] = (i > 0 && nameOf(entries[order[i - 1]]) == name) ||
                     std::binary_search(taken.begin(), taken.end(), name);
  }
  return twin;
}

template <typename Entry, typename NameOf>
void DropTwins(std::vector<Entry>* entries, NameOf nameOf, const std::vector<std::string>& taken) {
  const std::vector<bool> twin = LaterTwins(*entries, nameOf, taken);
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries->size(); ++i) {
    if (twin[i]) {
      LogDuplicate(nameOf((*entries)[i]));
    } else {
      if (kept != i) {
        (*entries)[kept] = std::move((*entries)[i]);
      }
      ++kept;
    }
  }
  entries->resize(kept);
}

}  // namespace

bool ParseFolderToFolderNode::AddFolder(std::string&& name) {
  if (folder->CreateFolder(name) != nullptr) {
    return true;
  }
  // A folder is kept over a file of its name, as a listing keeps it.
  if (folder->GetFolder(name) != nullptr) {
    LogDuplicate(name);
    return true;
  }
  if (folder->DeleteFileW(name)) {
    LogDuplicate(name);
    return folder->CreateFolder(name) != nullptr;
  }
  return false;
}

bool ParseFolderToFolderNode::AddFile(std::string&& name, std::uint64_t size,
                                      std::uint64_t modified, const std::string& etag) {
  // Without an etag a file's version can't be compared: the server lacks what the sync needs.
  if (etag.empty()) {
    noEtag = true;
    return false;
  }
  if (folder->CreateFileW(name, size, makeHash(etag), modified) != nullptr) {
    return true;
  }
  if (folder->GetFolder(name) != nullptr || folder->GetFile(name) != nullptr) {
    LogDuplicate(name);
    return true;
  }
  return false;
}

bool ParseFolderToListing::AddFolder(std::string&& name) {
  listing->folders.push_back(std::move(name));
  return true;
}

bool ParseFolderToListing::AddFile(std::string&& name, std::uint64_t size, std::uint64_t modified,
                                   const std::string& etag) {
  if (etag.empty()) {
    noEtag = true;
    return false;
  }
  listing->files.emplace_back(std::move(name),
                              FileSystem::FileProperties(makeHash(etag), 0, size, modified, false));
  return true;
}

void KeepFirstOfEachName(RemoteFileSystem::FolderListing* listing) {
  const auto folderName = [](const std::string& name) -> const std::string& { return name; };
  DropTwins(&listing->folders, folderName, {});
  std::vector<std::string> folders = listing->folders;
  std::sort(folders.begin(), folders.end());
  DropTwins(
      &listing->files,
      [](const std::pair<std::string, FileSystem::FileProperties>& file) -> const std::string& {
        return file.first;
      },
      folders);
}

}  // namespace auxil

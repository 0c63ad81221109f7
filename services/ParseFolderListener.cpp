#include "services/ParseFolderListener.h"

#include "core/Nodes.h"

namespace auxil {

bool ParseFolderToFolderNode::AddFolder(std::string&& name) {
  return folder->CreateFolder(name) != nullptr;
}

bool ParseFolderToFolderNode::AddFile(std::string&& name, std::uint64_t size,
                                      std::uint64_t modified, const std::string& etag) {
  // Without an etag a file's version can't be compared: the server lacks what the sync needs.
  if (etag.empty()) {
    noEtag = true;
    return false;
  }
  return folder->CreateFileW(name, size, makeHash(etag), modified) != nullptr;
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

}  // namespace auxil

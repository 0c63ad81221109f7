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

}  // namespace auxil

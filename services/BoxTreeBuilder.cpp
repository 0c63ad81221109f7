#include "services/BoxTreeBuilder.h"

#include "core/LoggerWrapper.h"

namespace rest_api {

BoxTreeBuilder::BoxTreeBuilder(FolderNode* root, RemoteFileIds* ids, const std::string& root_id,
                               Unmap unmap)
    : ids_(ids), unmap_(std::move(unmap)) {
  folders_.emplace(root_id, root);
}

std::uint64_t BoxTreeBuilder::AddPage(const BoxItemsPage& page, std::vector<std::string>* folders) {
  if (page.entries == 0) {
    LOG_INFO << "Empty entires list in dir listing response.";
  }
  std::uint64_t bytes = 0;
  for (const BoxItem& item : page.items) {
    auto parent = folders_.find(item.parent_id);
    if (parent == folders_.end()) {
      LOG_WARNING << (item.folder ? "Null parent node for folder " : "Null parent node for file ")
                  << item.id;
      continue;
    }
    const std::string name = unmap_(item.name);
    if (item.folder && AddFolder(item, parent->second, name)) {
      folders->push_back(item.id);
    } else if (!item.folder && AddFile(item, parent->second, name)) {
      bytes += item.size;
    }
  }
  return bytes;
}

bool BoxTreeBuilder::AddFile(const BoxItem& item, FolderNode* parent, const std::string& name) {
  // Box's names are unique without regard to case; a second one in that sense can't be a file
  // of its own here.
  if (parent->HasChild(name, true)) {
    LOG_WARNING << "Failed to create file \"" << parent->CollectPath() << "/" << name << "\".";
    return false;
  }
  SomeHash hash(HashBox{item.sha1, item.etag});
  if (!parent->CreateFileW(name, item.size, hash, item.time)) {
    LOG_WARNING << "Failed to create file \"" << parent->CollectPath() << "/" << name << "\".";
    return false;
  }
  if (!ids_->AddFileId(item.id, name, item.parent_id)) {
    LOG_WARNING << "Failed to add file \"" << name << "\" in id tree.";
  }
  return true;
}

bool BoxTreeBuilder::AddFolder(const BoxItem& item, FolderNode* parent, const std::string& name) {
  if (folders_.count(item.id) || parent->HasChild(name, true)) {
    LOG_WARNING << "Folder already exists: " << parent->CollectPath() << "/" << name;
    return false;
  }
  FolderNode* folder = parent->CreateFolder(name, item.time);
  if (!folder) {
    LOG_WARNING << "Failed creating folder \"" << parent->CollectPath() << "/" << name << "\".";
    return false;
  }
  if (!ids_->AddFolderId(item.id, name, item.parent_id)) {
    LOG_WARNING << "Failed to add folder \"" << name << "\" in id tree.";
  }
  folders_.emplace(item.id, folder);
  return true;
}

}  // namespace rest_api

// rest_api::BoxTreeBuilder: fills the core's tree and an id tree from pages of Box items, one
// level of folders after the other. Items whose parent isn't known yet, names the tree refuses
// and a second name that differs only in case are logged and left out.
//
//   rest_api::BoxTreeBuilder builder(root, &ids, root_id, unmap);
//   std::vector<std::string> next_level;
//   builder.AddPage(page, &next_level);
#pragma once

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/Nodes.h"
#include "services/BoxItems.h"
#include "services/RemoteFileIds.h"

namespace rest_api {

class BoxTreeBuilder {
 public:
  using Unmap = std::function<std::string(const std::string& remote_name)>;

  BoxTreeBuilder(FolderNode* root, RemoteFileIds* ids, const std::string& root_id, Unmap unmap);

  // Adds the items of a page; the ids of the folders made go to `*folders`. Answers the bytes of
  // the files added.
  std::uint64_t AddPage(const BoxItemsPage& page, std::vector<std::string>* folders);

 private:
  bool AddFile(const BoxItem& item, FolderNode* parent, const std::string& name);
  bool AddFolder(const BoxItem& item, FolderNode* parent, const std::string& name);

  RemoteFileIds* ids_;
  Unmap unmap_;
  std::unordered_map<std::string, FolderNode*> folders_;
};

}  // namespace rest_api

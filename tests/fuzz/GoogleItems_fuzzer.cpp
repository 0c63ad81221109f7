// Any bytes as a page of Drive's file resources, fed to the tree constructor item by item: no
// crash, no leak, and whatever the constructor accepts, the node tree and the id tree agree on.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "core/Json.h"
#include "core/Nodes.h"
#include "services/GoogleDocs.h"
#include "services/GoogleTreeConstructors.h"
#include "services/RemoteFileIds.h"
#include "tests/fuzz/FuzzInput.h"

namespace {

void CheckAgreement(const FolderNode& folder, const RemoteFileIds& ids, const std::string& prefix) {
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it) {
    if (ids.GetFileIdByPath(prefix + it->GetName()).empty()) {
      std::abort();
    }
  }
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    CheckAgreement(**it, ids, prefix + it->GetName() + "/");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::QuietLog();
  utils::json::json_tree page;
  if (!fuzz::ParseJson(data, size, &page)) {
    return 0;
  }
  auto ids = std::make_shared<RemoteFileIds>();
  ids->Init("root");
  FolderNode root;
  GoogleDocs docs;
  TreeConstructor constructor(ids, &root, true, "Shared", nullptr, &docs);
  auto files = utils::json::Member(page, "files");
  if (!files) {
    return 0;
  }
  for (const auto& entry : *files) {
    std::int64_t item_size = 0;
    if (!constructor.AddItem(entry.second, &item_size) || !constructor.AdoptItems()) {
      return 0;
    }
  }
  if (constructor.FinishAdoption()) {
    CheckAgreement(root, *ids, std::string());
  }
  return 0;
}

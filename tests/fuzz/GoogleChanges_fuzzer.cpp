// Any bytes as a page of Drive's change feed, fed to the change constructor entry by entry over an
// id tree that already knows a few items: no crash, no leak, and every change of an item it hands
// out names the item by a relative, non-empty path.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/Json.h"
#include "services/GoogleDocs.h"
#include "services/GoogleSelfMadeChanges.h"
#include "services/GoogleTreeConstructors.h"
#include "services/RemoteFileIds.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::QuietLog();
  utils::json::json_tree page;
  if (!fuzz::ParseJson(data, size, &page)) {
    return 0;
  }
  // 1. A drive the feed can rename, move and trash in.
  auto ids = std::make_shared<RemoteFileIds>();
  ids->Init("root");
  ids->AddFolderId("A", "a", "root");
  ids->AddFolderId("B", "b", "A");
  ids->AddFileId("f", "f.txt", "B");
  ids->AddFileId("g", "g.txt", "root");
  ids->AddTrashed("t");
  GoogleDocs docs;
  GoogleSelfMadeChanges expected;
  expected.ExpectTrashing("g");
  expected.ExpectFolder("B");
  std::vector<FileSystem::Change> changes;
  ChangesConstructor constructor(ids, true, "Shared", nullptr, &docs, &expected, "root", &changes);
  // 2. The page.
  auto entries = utils::json::Member(page, "changes");
  if (!entries) {
    return 0;
  }
  for (const auto& entry : *entries) {
    auto file = utils::json::Member(entry.second, "file");
    if (file && !constructor.AddItem(*file, nullptr)) {
      return 0;
    }
  }
  if (!constructor.FinishAdoption()) {
    return 0;
  }
  for (const FileSystem::Change& change : changes) {
    if (change.path.empty() || change.path[0] == '/') {
      std::abort();
    }
  }
  return 0;
}

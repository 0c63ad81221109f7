// Any bytes as a "properties/search" page: no crash, and every group the reader keeps has named
// fields and comes from a match that isn't deleted.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "services/DropboxFileProperties.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  utils::json::json_tree tree;
  if (!fuzz::ParseJson(data, size, &tree)) {
    return 0;
  }
  std::vector<dropbox::PropertyGroup> groups;
  std::string cursor;
  dropbox::ReadPropertySearchPage(tree, &groups, &cursor);
  for (const dropbox::PropertyGroup& group : groups) {
    for (const auto& field : group.fields) {
      if (field.first.empty()) {
        std::abort();
      }
    }
  }
  return 0;
}

// Any bytes as a page of Box items: no crash, and every item read is one the tree can take.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/LoggerWrapper.h"
#include "services/BoxItems.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = LoggerWrapper::SetLogFile("/dev/null");
  (void)quiet;
  utils::json::json_tree tree;
  if (!fuzz::ParseJson(data, size, &tree))
    return 0;
  rest_api::BoxItemsPage page;
  if (!rest_api::ParseBoxItemsPage(tree, &page))
    return 0;
  for (const rest_api::BoxItem& item : page.items) {
    if (item.id.empty() || item.parent_id.empty() || item.name.empty() || item.name == ".." ||
        item.name.find('/') != std::string::npos || item.name.size() > rest_api::kMaxBoxNameBytes ||
        page.items.size() > page.entries) {
      std::abort();
    }
  }
  return 0;
}

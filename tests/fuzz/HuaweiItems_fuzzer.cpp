// Any body through the Huawei item parser, as a listing page would bring it: no crash, and an
// item that parses has an id, a parent and a name the tree can hold.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Json.h"
#include "core/Nodes.h"
#include "services/RemoteHuaweiUtils.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::QuietLog();
  utils::json::json_tree page;
  if (!fuzz::ParseJson(data, size, &page)) {
    return 0;
  }
  auto files = utils::json::Child(page, "files");
  if (!files) {
    return 0;
  }
  for (const auto& file : *files) {
    huawei::Item item;
    std::string error;
    if (huawei::ParseItem(file.second, &item, &error) &&
        (item.id.empty() || item.parent_id.empty() || !ChildNode::IsValidName(item.name))) {
      std::abort();
    }
  }
  return 0;
}

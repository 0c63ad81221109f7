// Any bytes as a delta page: each item of "value" goes through the drive item reader. No crash,
// and an item it accepts keeps its facts consistent (a file is never a folder too).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Json.h"
#include "services/GraphDriveItem.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  utils::json::json_tree page;
  std::string error;
  if (!utils::json::Parse(std::string(reinterpret_cast<const char*>(data), size), &page, &error))
    return 0;
  auto value = utils::json::Member(page, "value");
  if (!value)
    return 0;
  for (const auto& entry : *value) {
    GraphDriveItem item;
    if (GraphDriveItem::Parse(entry.second, &item, &error) && item.isFile && item.isFolder)
      std::abort();
  }
  return 0;
}

// Any bytes as a page of Yandex Disk's JSON snapshot or delta feed: each item of "items" goes
// through both readers, with and without a mounted folder. No crash, and what they accept lies
// inside the mount: a change or a node always has a path.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Json.h"
#include "services/YandexItems.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/support/PassThroughNameMapper.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  utils::json::json_tree page;
  if (!fuzz::ParseJson(data, size, &page)) {
    return 0;
  }
  const auto items = utils::json::Member(page, "items");
  if (!items) {
    return 0;
  }
  test::PassThroughNameMapper mapper;
  for (const char* root : {"", "Docs"}) {
    const yandex_items::Mount mount{root, &mapper};
    for (const auto& [key, item] : *items) {
      yandex_items::SnapshotItem node;
      if (yandex_items::ReadSnapshotItem(item, mount, &node) &&
          node.place == yandex_items::Place::kInside && node.path.empty()) {
        std::abort();
      }
      FileSystem::Change change;
      std::string revision;
      if (yandex_items::ReadDeltaItem(item, mount, &change, &revision) ==
              yandex_items::DeltaOutcome::kChange &&
          change.path.empty()) {
        std::abort();
      }
    }
  }
  return 0;
}

// Box on its emulator: the hash is the SHA-1 Box reports, with the item's etag.
#include <string>

#include "contract/EmulatorTarget.h"

namespace {
const contract::Registration kBox("box", [] {
  return std::make_unique<contract::EmulatorTarget>(
      "box", CloudServiceId::BOX, [](const emulators::Item& item) {
        return SomeHash(HashBox{item.digests.sha1, std::to_string(item.revision)});
      });
});
}  // namespace

// Huawei Drive on its emulator: the hash the adapter reports is the item's "contentVersion".
#include "contract/EmulatorTarget.h"
#include "emulators/HuaweiDialect.h"

namespace {

const contract::Registration kHuawei("huawei", [] {
  return std::make_unique<contract::EmulatorTarget>(
      "huawei", CloudServiceId::HUAWEI,
      [](const emulators::Item& item) { return SomeHash(item.digests.sha256.substr(0, 32)); });
});

}  // namespace

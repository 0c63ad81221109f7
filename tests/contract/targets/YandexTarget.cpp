// Yandex Disk on its emulator: the disk reports an MD5 and a SHA-256 of each file, which together
// are the adapter's hash. A mounted folder loads through the binary snapshot, whose records carry
// no time: every file takes the time of the snapshot. Content moves by the links of the REST API.
#include "contract/EmulatorTarget.h"
#include "core/SomeHash.h"

namespace {

class YandexTarget : public contract::EmulatorTarget {
 public:
  YandexTarget()
      : EmulatorTarget("yandex", CloudServiceId::YANDEX, [](const emulators::Item& item) {
          return SomeHash(HashYandex::FromHexString(item.digests.md5 + item.digests.sha256));
        }) {}
  bool HashIsContentDigest() const override { return true; }
  bool TreeHasFileTimes() const override { return false; }
  bool FiltersOwnFolderEchoes() const override { return false; }
};

const contract::Registration kYandex("yandex", [] { return std::make_unique<YandexTarget>(); });

}  // namespace

// Yandex Disk on its emulator: the disk reports an MD5 and a SHA-256 of each file, which together
// are the adapter's hash. A mounted folder loads through the binary snapshot, whose records carry
// no time: every file takes the time of the snapshot. Uploads and resource operations come with
// the next piece of the adapter, so the row lists the account and follows its feed.
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
  bool ServesItemOperations() const override { return false; }
  bool TreeHasFileTimes() const override { return false; }
};

const contract::Registration kYandex("yandex", [] { return std::make_unique<YandexTarget>(); });

}  // namespace

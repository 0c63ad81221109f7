// OneDrive on its emulator: Graph reports the QuickXor digest (base64) that our calculator makes
// too. An empty file's QuickXor is all zeros, which HashOneDrive reads as unknown, so its hash is
// left out of the comparison. Files move through RenameFileImpl, since one PATCH renames and moves
// at once.
#include <QByteArray>

#include <algorithm>
#include <array>

#include "contract/EmulatorTarget.h"
#include "core/SomeHash.h"

namespace {

HashOneDrive QuickXorOf(const emulators::Item& item) {
  HashOneDrive hash;
  QByteArray raw = QByteArray::fromBase64(QByteArray::fromStdString(item.digests.quickxor));
  std::array<std::uint8_t, 20> bytes{};
  if (raw.size() == static_cast<int>(bytes.size())) {
    std::copy(raw.begin(), raw.end(), bytes.begin());
    hash.quick_xor = HashBase<20>(bytes);
  }
  return hash;
}

class OneDriveTarget : public contract::EmulatorTarget {
 public:
  OneDriveTarget()
      : EmulatorTarget("onedrive", CloudServiceId::ONEDRIVE, [](const emulators::Item& item) {
          return item.size == 0 ? SomeHash() : SomeHash(QuickXorOf(item));
        }) {}
  bool MovesByRename() const override { return true; }
  bool HashIsContentDigest() const override { return true; }
};

const contract::Registration kOneDrive("onedrive",
                                       [] { return std::make_unique<OneDriveTarget>(); });

}  // namespace

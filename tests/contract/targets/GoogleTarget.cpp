// Google Drive on its emulator. Drive reports an MD5; the adapter knows no digest of an empty
// file, so it has the zero hash there.
#include "contract/EmulatorTarget.h"
#include "core/SomeHash.h"

namespace {

class GoogleTarget : public contract::EmulatorTarget {
 public:
  GoogleTarget()
      : EmulatorTarget("google", CloudServiceId::GOOGLE, [](const emulators::Item& item) {
          return SomeHash(item.size == 0 ? HashGoogle()
                                         : HashGoogle::FromHexString(item.digests.md5));
        }) {}
};

const contract::Registration kGoogle("google", [] { return std::make_unique<GoogleTarget>(); });

}  // namespace

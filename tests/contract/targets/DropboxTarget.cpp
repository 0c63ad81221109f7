// Dropbox on its emulator. The hash is Dropbox's content hash (a rev beside it names a version,
// not content, and takes no part in comparing); the adapter's calculator computes the same digest
// over the bytes.
#include "contract/EmulatorTarget.h"
#include "core/SomeHash.h"

namespace {

class DropboxTarget : public contract::EmulatorTarget {
 public:
  DropboxTarget()
      : EmulatorTarget("dropbox", CloudServiceId::DROPBOX, [](const emulators::Item& item) {
          return SomeHash(HashDropbox::FromHexString(item.digests.dropbox));
        }) {}
  bool HashIsContentDigest() const override { return true; }
};

const contract::Registration kDropbox("dropbox", [] { return std::make_unique<DropboxTarget>(); });

}  // namespace

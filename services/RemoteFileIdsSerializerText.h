// RemoteFileIdsSerializerText: the text form of a RemoteFileIds, six lines per item.
//
//   Photos/a.jpg      path ("root" for the root)
//   1AbC...           id
//   0                 "1" for a folder
//   0                 "1" when trashed
//   <original name>   empty unless the item has a mapped name
//   <mapped name>
//
// Other sections may follow in the same stream behind a line "public_link_ids" in the place of
// a path: reading stops right behind that line.
#pragma once

#include "services/RemoteFileIdsSerializer.h"

class RemoteFileIdsSerializerText : public RemoteFileIdsSerializer {
 public:
  static constexpr const char* kEndOfIdsMarker = "public_link_ids";

  bool Serialize(RemoteFileIds* ids, const std::atomic<bool>* stop, std::ostream& out) override;
  bool Deserialize(const std::atomic<bool>* stop, RemoteFileIds* ids,
                   std::stringstream& in) override;
};

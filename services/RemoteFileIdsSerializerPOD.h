// RemoteFileIdsSerializerPOD: the binary form of a RemoteFileIds, little-endian.
//
//   uint32 format version (1), uint32 record list version (1), uint32 record count, then per
//   record: uint8 folder flag, uint8 trash flag, and four strings (uint32 length + bytes): path
//   ("root" for the root), id, original name, mapped name.
//
// A reader refuses versions newer than its own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/Pods.h"
#include "services/RemoteFileIdsSerializer.h"

namespace serialized_tree_helper {
// No value for pods::Error::kNoError.
std::optional<std::string> GetPODSerializationErrorText(pods::Error error);
}  // namespace serialized_tree_helper

class RemoteFileIdsSerializerPOD : public RemoteFileIdsSerializer {
 public:
  static constexpr std::uint32_t kFormatVersion = 1;
  static constexpr std::uint32_t kRecordListVersion = 1;

  bool Serialize(RemoteFileIds* ids, const std::atomic<bool>* stop, std::ostream& out) override;
  bool Deserialize(const std::atomic<bool>* stop, RemoteFileIds* ids,
                   std::stringstream& in) override;

 private:
  static pods::Error Write(const std::vector<Record>& records, std::ostream& out);
  static pods::Error Read(std::istream& in, std::vector<Record>* records);
};

// Any bytes given to the binary reader: no crash, no leak, no allocation that the input's
// lengths claim but its bytes do not back, and a tree that saves again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "core/LoggerWrapper.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileIdsSerializerPOD.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = LoggerWrapper::SetLogFile("/dev/null");
  (void)quiet;
  std::stringstream in(std::string(reinterpret_cast<const char*>(data), size));
  RemoteFileIds ids;
  RemoteFileIdsSerializerPOD pod;
  pod.Deserialize(nullptr, &ids, in);
  std::ostringstream out;
  if (!pod.Serialize(&ids, nullptr, out)) {
    std::abort();
  }
  return 0;
}

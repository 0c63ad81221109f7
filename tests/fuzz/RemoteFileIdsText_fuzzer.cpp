// Any bytes given to the text reader: no crash, no leak, and whatever was read is a tree whose
// every item has a path and which saves again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "core/LoggerWrapper.h"
#include "services/RemoteFileIds.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = LoggerWrapper::SetLogFile("/dev/null");
  (void)quiet;
  std::stringstream in(std::string(reinterpret_cast<const char*>(data), size));
  RemoteFileIds ids;
  RemoteFileIds::Deserialize(nullptr, in, &ids);
  if (ids.IsInit()) {
    ids.VisitSubtree(ids.GetRootId(), [&](const std::string& id) {
      if (!ids.GetPathById(id)) {
        std::abort();
      }
    });
  }
  std::ostringstream out;
  if (!ids.Serialize(nullptr, out)) {
    std::abort();
  }
  return 0;
}

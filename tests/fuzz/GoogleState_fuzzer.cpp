// Any bytes given as a saved Google state: no crash, no leak, and a state that reads is one whose
// id tree names each item by a path and saves again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "core/LoggerWrapper.h"
#include "services/GoogleDocs.h"
#include "services/GoogleResourceKeys.h"
#include "services/GoogleStateReader.h"
#include "services/GoogleStateWriter.h"
#include "services/RemoteFileIds.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = LoggerWrapper::SetLogFile("/dev/null");
  (void)quiet;
  std::stringstream in(std::string(reinterpret_cast<const char*>(data), size));
  GoogleStateReader state;
  if (!state.Read(nullptr, in)) {
    return 0;
  }
  state.ids->VisitSubtree(state.ids->GetRootId(), [&](const std::string& id) {
    if (!state.ids->GetPathById(id)) {
      std::abort();
    }
  });
  std::ostringstream out;
  if (!GoogleStateWriter::Write(nullptr,
                                {state.page_token, *state.ids, state.public_link_paths, *state.docs,
                                 *state.resource_keys},
                                out)) {
    std::abort();
  }
  return 0;
}

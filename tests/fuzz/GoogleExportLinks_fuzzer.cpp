// Any bytes as a document's "exportLinks": no crash, and a link chosen only when it names the
// format it exports in.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Json.h"
#include "services/GoogleDocsReader.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  utils::json::json_tree links;
  if (!fuzz::ParseJson(data, size, &links)) {
    return 0;
  }
  google::ExportLink link;
  if (google::ChooseExportLink(links, &link) &&
      (link.extension.empty() ||
       link.url.find("exportFormat=" + link.extension) == std::string::npos)) {
    std::abort();
  }
  return 0;
}

// Any bytes as the "Range" of Drive's 308: no crash, and an offset the server could only give for
// a "bytes=0-N" it really sent, one past N.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "services/GoogleUpload.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string header(reinterpret_cast<const char*>(data), size);
  std::uint64_t offset = google::OffsetFromRangeHeader(header);
  if (offset == 0) {
    return 0;
  }
  std::string digits = header.compare(0, 8, "bytes=0-") == 0 ? header.substr(8) : std::string();
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos ||
      std::strtoull(digits.c_str(), nullptr, 10) != offset - 1) {
    std::abort();
  }
  return 0;
}

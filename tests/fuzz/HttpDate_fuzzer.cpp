// Any text as an HTTP date (getlastmodified, Last-Modified): no crash, and a date that is read
// lies in years 0 to 9999.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/TimeUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::int64_t seconds = 0;
  constexpr std::int64_t kYear0 = -62167219200;
  constexpr std::int64_t kYear10000 = 253402300800;
  constexpr std::int64_t kDay = 86400;
  if (utils::TryParseHttpDate(std::string_view(reinterpret_cast<const char*>(data), size),
                              &seconds) &&
      (seconds < kYear0 - kDay || seconds > kYear10000 + kDay)) {
    std::abort();
  }
  return 0;
}

// Any text as a getlastmodified date: no crash, and a date that is read lies in years 1 to 9999.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "services/HttpDate.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto seconds =
      auxil::ParseHttpDate(std::string_view(reinterpret_cast<const char*>(data), size));
  constexpr std::int64_t kYear1 = -62135596800;
  constexpr std::int64_t kYear10000 = 253402300800;
  const std::int64_t kDay = 86400;
  if (seconds && (*seconds < kYear1 - kDay || *seconds > kYear10000 + kDay)) {
    std::abort();
  }
  return 0;
}

// The dates of HTTP headers and of DAV's getlastmodified, as seconds since 1970 (UTC):
//
//   auxil::ParseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT");  // 784111777
//
// Besides the fixed form, the two obsolete ones ("Sunday, 06-Nov-94 08:49:37 GMT" and
// "Sun Nov  6 08:49:37 1994") and the mail dates some servers write instead: no weekday, one
// digit days, no seconds, a numeric zone ("+0300") or none, which is taken as GMT. A two digit
// year is 1970 to 2069. Anything else, an impossible date included, is nullopt.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace auxil {

std::optional<std::int64_t> ParseHttpDate(std::string_view text);

}  // namespace auxil

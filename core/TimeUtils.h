// Time helpers: the dates services send, the library's clock, and sleeps a stop flag cuts short.
//
//   std::int64_t t = utils::ParseISODateTime("2023-04-05T06:07:08.123+02:00");  // seconds, UTC
//   if (utils::Sleep(5, &stop_flag_)) return FileSystem::STOPPED;
//
// Every time and wait goes through utils::GetClock() (core/Clock.h), so tests run them at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace utils {

// RFC 3339 / ISO 8601: "YYYY-MM-DD", optionally followed by "T" (or "t" or a blank) "hh:mm:ss",
// optional fractions (dropped), then "Z", "+hh:mm", "+hhmm" or nothing (UTC). Seconds of the Unix
// epoch. False for anything else: out-of-range fields, trailing text, a missing part.
bool TryParseISODateTime(std::string_view text, std::int64_t* seconds);
// The same, answering 0 (the epoch: "time unknown") for text that is not such a date.
std::int64_t ParseISODateTime(const std::string& text);

// An HTTP date (RFC 7231 IMF-fixdate, RFC 1123 with a numeric zone, RFC 850 or asctime's
// "Sun Nov  6 08:49:37 1994"), as WebDAV's getlastmodified and Last-Modified carry:
// "Sun, 06 Nov 1994 08:49:37 GMT".
bool TryParseHttpDate(std::string_view text, std::int64_t* seconds);
// The same, answering 0 for text that is not such a date.
std::int64_t ParseHttpDate(const std::string& text);

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar.
std::int64_t DaysFromCivil(std::int64_t year, unsigned month, unsigned day);

// Wall time in milliseconds of the Unix epoch.
std::uint64_t GetSystemClockMsFast();

// Sleep up to the time given; a raised `*stop` (null: none) ends them early. Both answer true
// when the stop flag was raised at the end.
bool Sleep(int seconds, const std::atomic<bool>* stop);
bool MSleep(int milliseconds, const std::atomic<bool>* stop);

}  // namespace utils

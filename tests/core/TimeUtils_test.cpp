#include "core/TimeUtils.h"

#include <gtest/gtest.h>

#include "core/Clock.h"

namespace {

struct DateCase {
  const char* text;
  bool valid;
  std::int64_t seconds;
};

// The strict form answers whether the text is a date; the lenient one gives 0 when it is not.
template <std::size_t N>
void ExpectDates(const DateCase (&cases)[N], bool (*try_parse)(std::string_view, std::int64_t*),
                 std::int64_t (*parse)(const std::string&)) {
  for (const DateCase& c : cases) {
    std::int64_t seconds = 42;
    EXPECT_EQ(try_parse(c.text, &seconds), c.valid) << c.text;
    if (c.valid) {
      EXPECT_EQ(seconds, c.seconds) << c.text;
    }
    EXPECT_EQ(parse(c.text), c.seconds) << c.text;
  }
}

TEST(TimeUtilsTest, IsoDateTimes) {
  const DateCase cases[] = {
      {"1970-01-01T00:00:00Z", true, 0},
      {"2023-04-05T06:07:08Z", true, 1680674828},
      {"2023-04-05T06:07:08.123456789Z", true, 1680674828},  // fractions are dropped
      {"2023-04-05t06:07:08z", true, 1680674828},
      {"2023-04-05 06:07:08", true, 1680674828},  // no zone: UTC
      {"2023-04-05T08:07:08+02:00", true, 1680674828},
      {"2023-04-05T00:37:08-0530", true, 1680674828},
      {"2023-04-05T07:07:08,5+01", true, 1680674828},
      {"2024-02-29T23:59:59Z", true, 1709251199},
      {"1969-12-31T23:59:59Z", true, -1},
      {"2023-04-05", true, 1680652800},
      {"2023-02-29T00:00:00Z", false, 0},  // not a leap year
      {"2100-02-29T00:00:00Z", false, 0},
      {"2023-13-01T00:00:00Z", false, 0},
      {"2023-04-31T00:00:00Z", false, 0},
      {"2023-04-05T24:00:00Z", false, 0},
      {"2023-04-05T06:60:00Z", false, 0},
      {"2023-04-05T06:07:08+24:00", false, 0},
      {"2023-04-05T06:07", false, 0},  // truncated
      {"2023-04-05T06:07:08.", false, 0},
      {"2023-04-05T06:07:08Zjunk", false, 0},
      {"2023-4-5T06:07:08Z", false, 0},
      {"", false, 0},
      {"yesterday", false, 0},
  };
  ExpectDates(cases, &utils::TryParseISODateTime, &utils::ParseISODateTime);
}

TEST(TimeUtilsTest, HttpDates) {
  const DateCase cases[] = {
      {"Sun, 06 Nov 1994 08:49:37 GMT", true, 784111777},
      {"Sun, 6 Nov 1994 08:49:37 GMT", true, 784111777},
      {"06 Nov 1994 08:49:37 GMT", true, 784111777},
      {"Sun, 06 Nov 1994 09:49:37 +0100", true, 784111777},
      {"Sunday, 06-Nov-94 08:49:37 GMT", true, 784111777},
      {"Tuesday, 01-Jan-69 00:00:00 GMT", true, 3124224000},  // two-digit years below 70: 20xx
      {"Sun, 06 Nov 1994 08:49:37 GMT  ", true, 784111777},
      {"Sun Nov  6 08:49:37 1994", true, 784111777},  // asctime
      {"Sun Nov 16 08:49:37 1994", true, 784975777},
      {"Thu Jan  1 00:00:00 1970", true, 0},
      {"Sun Nov  6 08:49:37 94", false, 0},
      {"Sun Nov  6 08:49:37 1994 GMT", false, 0},
      {"Sun Nov 31 08:49:37 1994", false, 0},
      {"Sun, 06 Nox 1994 08:49:37 GMT", false, 0},
      {"Sun, 31 Feb 1994 08:49:37 GMT", false, 0},
      {"Sun, 06 Nov 1994 08:49:37 PST", false, 0},
      {"Sun, 06 Nov 1994 08:49", false, 0},
      {"Sun 06 Nov 1994 08:49:37 GMT", false, 0},
      {"1994-11-06T08:49:37Z", false, 0},
      {"", false, 0},
  };
  ExpectDates(cases, &utils::TryParseHttpDate, &utils::ParseHttpDate);
}

TEST(TimeUtilsTest, SleepsRunOnTheClockAndEndOnStop) {
  utils::ManualClock clock;
  utils::ScopedClock scoped(&clock);
  const std::int64_t start = clock.NowMs();
  std::atomic<bool> stop{false};

  EXPECT_FALSE(utils::Sleep(5, &stop));
  EXPECT_FALSE(utils::MSleep(250, nullptr));
  EXPECT_EQ(clock.NowMs() - start, 5250);
  EXPECT_EQ(utils::GetSystemClockMsFast(), static_cast<std::uint64_t>(clock.NowMs()));

  // A stop raised while the sleep runs cuts it short.
  clock.SetOnWait([&](std::int64_t) { stop = true; });
  EXPECT_TRUE(utils::Sleep(3600, &stop));
  EXPECT_EQ(clock.NowMs() - start, 5250);

  // Hours in seconds do not overflow on the way to milliseconds.
  clock.SetOnWait(nullptr);
  stop = false;
  EXPECT_FALSE(utils::Sleep(3'000'000, &stop));
  EXPECT_EQ(clock.Waits(), (std::vector<std::int64_t>{5000, 250, 3'600'000, 3'000'000'000}));
}

}  // namespace

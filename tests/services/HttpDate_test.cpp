#include "services/HttpDate.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr std::int64_t kNov6 = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT

TEST(HttpDateTest, TheFormsServersSend) {
  const std::vector<std::pair<std::string, std::int64_t>> cases = {
      {"Sun, 06 Nov 1994 08:49:37 GMT", kNov6},
      {"Sunday, 06-Nov-94 08:49:37 GMT", kNov6},
      {"Sun Nov  6 08:49:37 1994", kNov6},
      {"Sun, 6 Nov 1994 08:49:37 +0000", kNov6},
      {"06 Nov 1994 08:49:37 UT", kNov6},
      {"  Sun, 06 Nov 1994 08:49:37 GMT  ", kNov6},
      {"sun, 06 nov 1994 08:49:37 UTC", kNov6},
      {"Mon, 06 Nov 1994 08:49:37 GMT", kNov6},  // a wrong weekday is the server's slip
      {"Sun, 06 Nov 1994 11:49:37 +0300", kNov6},
      {"Sat, 05 Nov 1994 22:19:37 -1030", kNov6},
      {"Sun, 06 Nov 1994 08:49:37", kNov6},
      {"Sun, 06 Nov 1994 08:49 GMT", kNov6 - 37},
      {"Thu, 01 Jan 1970 00:00:00 GMT", 0},
      {"Wed, 31 Dec 1969 23:59:59 GMT", -1},
      {"Thursday, 01-Jan-70 00:00:00 GMT", 0},
      {"Tuesday, 01-Jan-69 00:00:00 GMT", 3124224000},
      {"Tue, 29 Feb 2000 12:00:00 GMT", 951825600},
      {"Fri, 31 Dec 9999 23:59:59 GMT", 253402300799},
  };
  for (const auto& [text, seconds] : cases) {
    EXPECT_EQ(auxil::ParseHttpDate(text), std::optional<std::int64_t>(seconds)) << text;
  }
}

TEST(HttpDateTest, WhatIsNoDate) {
  for (const char* text : {
           "",
           "2023-11-14T10:00:00Z",
           "1700000000",
           "Sun, 06 Nov 1994",
           "Sun, 06 Nov 1994 08:49:37 GMT x",
           "Sun, 06 Nov 1994 08:49:37 CET",
           "Sun, 06 Nov 1994 08:49:37 +03",
           "Sun, 06 Nov 1994 08:49:37 +0360",
           "Sun, 06 Foo 1994 08:49:37 GMT",
           "Xyz, 06 Nov 1994 08:49:37 GMT",
           "Sun, 06 Nov 994 08:49:37 GMT",
           "Sun, 006 Nov 1994 08:49:37 GMT",
           "Sun, 31 Nov 1994 08:49:37 GMT",
           "Tue, 29 Feb 1900 08:49:37 GMT",
           "Sun, 00 Nov 1994 08:49:37 GMT",
           "Sun, 06 Nov 1994 24:00:00 GMT",
           "Sun, 06 Nov 1994 08:60:00 GMT",
           "Sun, 06 Nov 1994 8:49:37 GMT",
           "Sun, 06-Nov 1994 08:49:37 GMT",
           "Sun Nov  6 08:49:37 94",
           "Sun, 06 Nov 0000 08:49:37 GMT",
       }) {
    EXPECT_EQ(auxil::ParseHttpDate(text), std::nullopt) << text;
  }
}

}  // namespace

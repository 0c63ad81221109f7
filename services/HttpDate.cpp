#include "services/HttpDate.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace auxil {

namespace {

constexpr std::array<std::string_view, 12> kMonths = {"jan", "feb", "mar", "apr", "may", "jun",
                                                      "jul", "aug", "sep", "oct", "nov", "dec"};
constexpr std::array<std::string_view, 7> kWeekdays = {
    "monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday"};

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return (x >= 'A' && x <= 'Z' ? x + 32 : x) == y;
         });
}

// A weekday by its three letters or its whole name; which one it is, servers get wrong.
bool IsWeekday(std::string_view word) {
  return std::any_of(kWeekdays.begin(), kWeekdays.end(), [&](std::string_view day) {
    return EqualsIgnoringCase(word, day.substr(0, 3)) || EqualsIgnoringCase(word, day);
  });
}

// 1 to 12, or 0.
int MonthOf(std::string_view word) {
  const auto found = std::find_if(kMonths.begin(), kMonths.end(), [&](std::string_view month) {
    return EqualsIgnoringCase(word, month);
  });
  return found == kMonths.end() ? 0 : static_cast<int>(found - kMonths.begin()) + 1;
}

bool IsLeap(int year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int DaysInMonth(int year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[month - 1] + (month == 2 && IsLeap(year) ? 1 : 0);
}

// Days from 1 January of year 1 to 1 January of `year`.
std::int64_t DaysBeforeYear(int year) {
  const std::int64_t past = year - 1;
  return 365 * past + past / 4 - past / 100 + past / 400;
}

struct DateFields {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int offsetMinutes = 0;
};

// Reads a date from left to right; each step is false when the text isn't what it expects.
class DateReader {
 public:
  explicit DateReader(std::string_view text) : rest_(text) {}

  bool Blanks() {
    const std::size_t count = std::min(rest_.find_first_not_of(" \t"), rest_.size());
    rest_.remove_prefix(count);
    return count > 0;
  }
  bool Char(char c) {
    if (rest_.empty() || rest_.front() != c) {
      return false;
    }
    rest_.remove_prefix(1);
    return true;
  }
  bool Word(std::string_view* word) {
    std::size_t count = 0;
    while (count < rest_.size() && ((rest_[count] >= 'a' && rest_[count] <= 'z') ||
                                    (rest_[count] >= 'A' && rest_[count] <= 'Z'))) {
      ++count;
    }
    *word = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return count > 0;
  }
  // A number of `minDigits` to `maxDigits` digits, no sign.
  bool Number(std::size_t minDigits, std::size_t maxDigits, int* value) {
    std::size_t count = 0;
    while (count < rest_.size() && count < maxDigits + 1 && rest_[count] >= '0' &&
           rest_[count] <= '9') {
      ++count;
    }
    if (count < minDigits || count > maxDigits) {
      return false;
    }
    std::from_chars(rest_.data(), rest_.data() + count, *value);
    rest_.remove_prefix(count);
    return true;
  }
  bool Month(int* month) {
    std::string_view word;
    *month = Word(&word) ? MonthOf(word) : 0;
    return *month != 0;
  }
  bool Year(int* year) {
    const std::size_t before = rest_.size();
    if (!Number(2, 4, year) || before - rest_.size() == 3) {
      return false;
    }
    if (before - rest_.size() == 2) {
      *year += *year < 70 ? 2000 : 1900;
    }
    return true;
  }
  bool Time(DateFields* date) {
    if (!Number(2, 2, &date->hour) || !Char(':') || !Number(2, 2, &date->minute)) {
      return false;
    }
    return !Char(':') || Number(2, 2, &date->second);
  }
  // "GMT", "UT", "UTC", "Z", "+hhmm" or "-hhmm".
  bool Zone(DateFields* date) {
    const bool negative = !rest_.empty() && rest_.front() == '-';
    if (Char('+') || Char('-')) {
      int hhmm = 0;
      if (!Number(4, 4, &hhmm) || hhmm % 100 > 59) {
        return false;
      }
      date->offsetMinutes = (negative ? -1 : 1) * (hhmm / 100 * 60 + hhmm % 100);
      return true;
    }
    std::string_view word;
    return Word(&word) && (word == "GMT" || word == "UT" || word == "UTC" || word == "Z");
  }
  bool AtEnd() {
    Blanks();
    return rest_.empty();
  }
  bool StartsWithLetter() const {
    return !rest_.empty() &&
           ((rest_[0] >= 'a' && rest_[0] <= 'z') || (rest_[0] >= 'A' && rest_[0] <= 'Z'));
  }

 private:
  std::string_view rest_;
};

// "06 Nov 1994 08:49:37 GMT", "6 Nov 1994 08:49 +0300", "06-Nov-94 08:49:37 GMT".
bool ReadDayFirst(DateReader& in, DateFields* date) {
  if (!in.Number(1, 2, &date->day)) {
    return false;
  }
  const bool dashes = in.Char('-');
  if (!(dashes || in.Blanks()) || !in.Month(&date->month) ||
      !(dashes ? in.Char('-') : in.Blanks()) || !in.Year(&date->year) || !in.Blanks() ||
      !in.Time(date)) {
    return false;
  }
  return !in.Blanks() || in.AtEnd() || in.Zone(date);
}

// "Nov  6 08:49:37 1994", after the weekday.
bool ReadMonthFirst(DateReader& in, DateFields* date) {
  return in.Month(&date->month) && in.Blanks() && in.Number(1, 2, &date->day) && in.Blanks() &&
         in.Time(date) && in.Blanks() && in.Number(4, 4, &date->year);
}

bool IsPossible(const DateFields& date) {
  return date.year >= 1 && date.month >= 1 && date.day >= 1 &&
         date.day <= DaysInMonth(date.year, date.month) && date.hour <= 23 && date.minute <= 59 &&
         date.second <= 60;
}

}  // namespace

std::optional<std::int64_t> ParseHttpDate(std::string_view text) {
  DateReader in(text);
  DateFields date;
  in.Blanks();
  bool read = false;
  if (in.StartsWithLetter()) {
    std::string_view weekday;
    in.Word(&weekday);
    if (!IsWeekday(weekday)) {
      return std::nullopt;
    }
    if (in.Char(',')) {
      in.Blanks();
      read = ReadDayFirst(in, &date);
    } else {
      read = in.Blanks() && ReadMonthFirst(in, &date);
    }
  } else {
    read = ReadDayFirst(in, &date);
  }
  if (!read || !in.AtEnd() || !IsPossible(date)) {
    return std::nullopt;
  }
  std::int64_t days = DaysBeforeYear(date.year) - DaysBeforeYear(1970) + date.day - 1;
  for (int month = 1; month < date.month; ++month) {
    days += DaysInMonth(date.year, month);
  }
  return ((days * 24 + date.hour) * 60 + date.minute - date.offsetMinutes) * 60 + date.second;
}

}  // namespace auxil

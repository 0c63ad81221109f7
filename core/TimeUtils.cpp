#include "core/TimeUtils.h"

#include <array>
#include <cctype>

#include "core/Clock.h"

namespace utils {

namespace {

// Reads text left to right; every Take answers false and consumes nothing on a mismatch.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  bool AtEnd() const { return pos_ == text_.size(); }
  bool Peek(char c) const { return pos_ < text_.size() && text_[pos_] == c; }
  bool PeekDigit() const {
    return pos_ < text_.size() && std::isdigit(static_cast<unsigned char>(text_[pos_]));
  }
  bool Take(char c) {
    if (!Peek(c)) {
      return false;
    }
    ++pos_;
    return true;
  }
  bool TakeAnyOf(std::string_view chars) {
    if (pos_ >= text_.size() || chars.find(text_[pos_]) == std::string_view::npos) {
      return false;
    }
    ++pos_;
    return true;
  }
  // Exactly `count` digits.
  bool TakeNumber(int count, int* value) {
    int result = 0;
    for (int i = 0; i < count; ++i) {
      if (!PeekDigit()) {
        pos_ -= i;
        return false;
      }
      result = result * 10 + (text_[pos_++] - '0');
    }
    *value = result;
    return true;
  }
  // One or two digits.
  bool TakeShortNumber(int* value) {
    if (!TakeNumber(1, value)) {
      return false;
    }
    int second = 0;
    if (TakeNumber(1, &second)) {
      *value = *value * 10 + second;
    }
    return true;
  }
  void SkipDigits() {
    while (PeekDigit()) {
      ++pos_;
    }
  }
  void SkipBlanks() {
    while (Peek(' ')) {
      ++pos_;
    }
  }
  // Letters up to the next non-letter.
  std::string_view TakeWord() {
    std::size_t start = pos_;
    while (pos_ < text_.size() && std::isalpha(static_cast<unsigned char>(text_[pos_]))) {
      ++pos_;
    }
    return text_.substr(start, pos_ - start);
  }

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

struct DateTime {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int offset_seconds = 0;  // east of UTC
};

bool IsLeapYear(int year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int DaysInMonth(int year, int month) {
  static constexpr std::array<int, 12> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Second 60 is a leap second, which the epoch count folds into the next minute.
bool ToEpochSeconds(const DateTime& t, std::int64_t* seconds) {
  if (t.month < 1 || t.month > 12 || t.day < 1 || t.day > DaysInMonth(t.year, t.month) ||
      t.hour > 23 || t.minute > 59 || t.second > 60) {
    return false;
  }
  std::int64_t days = DaysFromCivil(t.year, t.month, t.day);
  *seconds = days * 86400 + t.hour * 3600 + t.minute * 60 + t.second - t.offset_seconds;
  return true;
}

// "hh:mm:ss"
bool TakeClock(Scanner* in, DateTime* t) {
  return in->TakeNumber(2, &t->hour) && in->Take(':') && in->TakeNumber(2, &t->minute) &&
         in->Take(':') && in->TakeNumber(2, &t->second);
}

// "+hh:mm", "+hhmm" or "+hh"; the sign already taken as `sign`.
bool TakeNumericOffset(Scanner* in, int sign, DateTime* t) {
  int hours = 0;
  int minutes = 0;
  if (!in->TakeNumber(2, &hours)) {
    return false;
  }
  in->Take(':');
  if (in->PeekDigit() && !in->TakeNumber(2, &minutes)) {
    return false;
  }
  if (hours > 23 || minutes > 59) {
    return false;
  }
  t->offset_seconds = sign * (hours * 3600 + minutes * 60);
  return true;
}

bool TakeIsoOffset(Scanner* in, DateTime* t) {
  if (in->AtEnd() || in->TakeAnyOf("Zz")) {
    return true;
  }
  if (in->Take('+')) {
    return TakeNumericOffset(in, 1, t);
  }
  if (in->Take('-')) {
    return TakeNumericOffset(in, -1, t);
  }
  return false;
}

int MonthFromName(std::string_view name) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (std::size_t i = 0; i < kMonths.size(); ++i) {
    if (name == kMonths[i]) {
      return static_cast<int>(i) + 1;
    }
  }
  return 0;
}

bool TakeHttpZone(Scanner* in, DateTime* t) {
  if (in->Take('+')) {
    return TakeNumericOffset(in, 1, t);
  }
  if (in->Take('-')) {
    return TakeNumericOffset(in, -1, t);
  }
  std::string_view zone = in->TakeWord();
  return zone == "GMT" || zone == "UTC" || zone == "UT" || zone == "Z";
}

// "06 Nov 1994 08:49:37 GMT", or in RFC 850 "06-Nov-94 08:49:37 GMT", after the weekday.
bool TakeDayFirstDate(Scanner* in, DateTime* t) {
  in->SkipBlanks();
  if (!in->TakeShortNumber(&t->day)) {
    return false;
  }
  const bool rfc850 = in->Take('-');
  if (!rfc850) {
    in->SkipBlanks();
  }
  t->month = MonthFromName(in->TakeWord());
  if (t->month == 0 || (rfc850 ? !in->Take('-') : !in->Take(' '))) {
    return false;
  }
  if (rfc850) {
    if (!in->TakeNumber(2, &t->year)) {
      return false;
    }
    t->year += t->year < 70 ? 2000 : 1900;
  } else if (!in->TakeNumber(4, &t->year)) {
    return false;
  }
  return in->Take(' ') && TakeClock(in, t) && in->Take(' ') && TakeHttpZone(in, t);
}

// "Nov  6 08:49:37 1994", C's asctime, after the weekday: a day below 10 is padded with a blank.
bool TakeAsctimeDate(Scanner* in, DateTime* t) {
  in->SkipBlanks();
  t->month = MonthFromName(in->TakeWord());
  if (t->month == 0 || !in->Take(' ')) {
    return false;
  }
  in->SkipBlanks();
  return in->TakeShortNumber(&t->day) && in->Take(' ') && TakeClock(in, t) && in->Take(' ') &&
         in->TakeNumber(4, &t->year);
}

}  // namespace

std::int64_t DaysFromCivil(std::int64_t year, unsigned month, unsigned day) {
  // Counts in eras of 400 years starting on March 1, so that the leap day ends a year.
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t year_of_era = year - era * 400;
  const std::int64_t day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const std::int64_t day_of_era =
      year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

bool TryParseISODateTime(std::string_view text, std::int64_t* seconds) {
  Scanner in(text);
  DateTime t;
  if (!in.TakeNumber(4, &t.year) || !in.Take('-') || !in.TakeNumber(2, &t.month) || !in.Take('-') ||
      !in.TakeNumber(2, &t.day)) {
    return false;
  }
  if (!in.AtEnd()) {
    if (!in.TakeAnyOf("Tt ") || !TakeClock(&in, &t)) {
      return false;
    }
    if (in.Take('.') || in.Take(',')) {
      if (!in.PeekDigit()) {
        return false;
      }
      in.SkipDigits();
    }
    if (!TakeIsoOffset(&in, &t) || !in.AtEnd()) {
      return false;
    }
  }
  return ToEpochSeconds(t, seconds);
}

std::int64_t ParseISODateTime(const std::string& text) {
  std::int64_t seconds = 0;
  return TryParseISODateTime(text, &seconds) ? seconds : 0;
}

bool TryParseHttpDate(std::string_view text, std::int64_t* seconds) {
  Scanner in(text);
  DateTime t;
  // The weekday is redundant; it is skipped without being checked against the date.
  const bool weekday = !in.TakeWord().empty();
  if (weekday && in.Peek(' ')) {
    if (!TakeAsctimeDate(&in, &t)) {
      return false;
    }
  } else if ((weekday && !in.Take(',')) || !TakeDayFirstDate(&in, &t)) {
    return false;
  }
  in.SkipBlanks();
  return in.AtEnd() && ToEpochSeconds(t, seconds);
}

std::int64_t ParseHttpDate(const std::string& text) {
  std::int64_t seconds = 0;
  return TryParseHttpDate(text, &seconds) ? seconds : 0;
}

std::uint64_t GetSystemClockMsFast() {
  return static_cast<std::uint64_t>(GetClock().NowMs());
}

namespace {

bool SleepMs(std::int64_t milliseconds, const std::atomic<bool>* stop) {
  GetClock().SleepMs(milliseconds, stop);
  return stop && stop->load();
}

}  // namespace

bool Sleep(int seconds, const std::atomic<bool>* stop) {
  return SleepMs(std::int64_t{seconds} * 1000, stop);
}

bool MSleep(int milliseconds, const std::atomic<bool>* stop) {
  return SleepMs(milliseconds, stop);
}

}  // namespace utils

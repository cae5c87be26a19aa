// Text to dates, times and timestamps. The layout of a text is read to its end before the values are looked at: a code
// about a value means that the text was understood.
#include "values/sqlv_date.h"

namespace vek {
namespace {

constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// A text without the blanks at its end, from left to right.
class Scanner {
 public:
  Scanner(const char* text, std::size_t length) noexcept : at_(text), end_(text + length) {
    while (end_ != at_ && end_[-1] == ' ') --end_;
  }

  bool atEnd() const noexcept { return at_ == end_; }
  bool atDigit() const noexcept { return !atEnd() && isDigit(*at_); }
  // Reads digits, at most so many, and answers how many there were.
  unsigned number(unsigned most, unsigned* value) noexcept {
    unsigned count = 0;
    for (*value = 0; count < most && atDigit(); ++count) *value = *value * 10 + static_cast<unsigned>(*at_++ - '0');
    return count;
  }
  // Goes past a character; 0 at the end.
  char next() noexcept { return atEnd() ? '\0' : *at_++; }
  bool take(char wanted) noexcept {
    if (atEnd() || *at_ != wanted) return false;
    ++at_;
    return true;
  }

 private:
  const char* at_;
  const char* end_;
};

// ---- parts and their ranges -------------------------------------------------------------------------------------

struct DateParts {
  unsigned year;
  unsigned month;
  unsigned day;
};

struct TimeParts {
  unsigned hour;
  unsigned minute;
  unsigned second;
};

SqlzZrc check(const DateParts& date) noexcept {
  if (date.year == 0) return SQLRX_DATE_YEAR_RANGE;
  if (date.month < 1 || date.month > 12) return SQLRX_DATE_MONTH_RANGE;
  if (date.day < 1 || date.day > kSqlvMonthDays[date.month]) return SQLRX_DATE_DAY_RANGE;
  return date.month == 2 && date.day == 29 && !sqlvi_isLeap(date.year) ? SQLRX_DATE_NOT_LEAP : 0;
}

SqlzZrc check(const TimeParts& time, bool fraction) noexcept {
  if (time.hour > 24) return SQLRX_TIME_HOUR_RANGE;
  if (time.minute > 59) return SQLRX_TIME_MINUTE_RANGE;
  if (time.second > 59) return SQLRX_TIME_SECOND_RANGE;
  const bool rest = time.minute != 0 || time.second != 0 || fraction;
  return time.hour == 24 && rest ? SQLRX_TIME_MIDNIGHT_REST : 0;
}

void store(const DateParts& date, std::uint8_t* target) noexcept {
  target[0] = kSqlvPackedByte[date.year / 100];
  target[1] = kSqlvPackedByte[date.year % 100];
  target[2] = kSqlvPackedByte[date.month];
  target[3] = kSqlvPackedByte[date.day];
}

void store(const TimeParts& time, std::uint8_t* target) noexcept {
  target[0] = kSqlvPackedByte[time.hour];
  target[1] = kSqlvPackedByte[time.minute];
  target[2] = kSqlvPackedByte[time.second];
}

// ---- dates ------------------------------------------------------------------------------------------------------

struct DateText {
  unsigned numbers[3];
  char separator;
  bool yearFirst;
};

constexpr bool isDateSeparator(char c) noexcept { return c == '/' || c == '.' || c == '-'; }

// Digits, a separator, digits, the same separator; what the last number may be depends on the first.
SqlzZrc scanUpToLast(Scanner& scanner, DateText* text) noexcept {
  const unsigned digits = scanner.number(4, &text->numbers[0]);
  if (digits == 0 || digits == 3 || scanner.atEnd() || scanner.atDigit()) return SQLRX_DATE_FORMAT;
  text->yearFirst = digits == 4;
  text->separator = scanner.next();
  if (!isDateSeparator(text->separator)) return SQLRX_DATE_SEPARATOR;
  if (scanner.number(2, &text->numbers[1]) == 0 || scanner.atEnd() || scanner.atDigit()) return SQLRX_DATE_FORMAT;
  return scanner.next() == text->separator ? 0 : SQLRX_DATE_SEPARATOR;
}

SqlzZrc scanDate(Scanner scanner, DateText* text) noexcept {
  if (scanner.atEnd()) return SQLRX_DATE_EMPTY;
  if (const SqlzZrc zrc = scanUpToLast(scanner, text); zrc != 0) return zrc;
  const unsigned digits = scanner.number(text->yearFirst ? 2 : 4, &text->numbers[2]);
  if (digits == 0 || digits == 3) return SQLRX_DATE_FORMAT;
  if (!text->yearFirst && digits < 4) return SQLRX_DATE_CENTURY_AMBIGUOUS;
  return scanner.atEnd() ? 0 : SQLRX_DATE_TRAILING_TEXT;
}

bool isWrittenSo(const DateText& text, const SqlvDateForm& form) noexcept {
  return form.isWritten() && form.separator == text.separator && form.yearFirst() == text.yearFirst;
}

// The form of a text, or null.
const SqlvDateForm* formOf(const DateText& text, const SqlvDateForm& own) noexcept {
  if (isWrittenSo(text, own)) return &own;
  for (const unsigned number : {SQLV_DATE_FORM_USA, SQLV_DATE_FORM_EUROPEAN, SQLV_DATE_FORM_ISO})
    if (isWrittenSo(text, kSqlvDateForms[number])) return &kSqlvDateForms[number];
  return nullptr;
}

// The common year of a year of the Buddhist era; 0 for the one that was none. Years below are those that went on at 0.
constexpr unsigned ofBuddhistEra(unsigned year) noexcept {
  return year >= SQLV_BUDDHIST_ERA ? year - SQLV_BUDDHIST_ERA : year + 10000 - SQLV_BUDDHIST_ERA;
}

DateParts partsOf(const DateText& text, const SqlvDateForm& form) noexcept {
  const unsigned year = text.numbers[text.yearFirst ? 0 : 2];
  const unsigned* others = text.numbers + (text.yearFirst ? 1 : 0);
  const bool monthFirst = form.month < form.day;
  return {form.buddhist ? ofBuddhistEra(year) : year, others[monthFirst ? 0 : 1], others[monthFirst ? 1 : 0]};
}

// ---- times ------------------------------------------------------------------------------------------------------

struct TimeText {
  TimeParts parts;
  char meridian;  // 'A', 'P', or 0 for the clock of 24 hours
};

constexpr char upper(char c) noexcept { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

// Behind "hh:mm ": AM or PM, and the end.
bool scanMeridian(Scanner& scanner, TimeText* text) noexcept {
  text->meridian = upper(scanner.next());
  return (text->meridian == 'A' || text->meridian == 'P') && upper(scanner.next()) == 'M' && scanner.atEnd();
}

bool scanTime(Scanner scanner, TimeText* text) noexcept {
  if (scanner.number(2, &text->parts.hour) == 0) return false;
  const char separator = scanner.next();
  if (separator != '.' && separator != ':' && separator != '-') return false;
  if (scanner.number(2, &text->parts.minute) != 2) return false;
  if (separator == ':' && scanner.take(' ')) return scanMeridian(scanner, text);
  return scanner.take(separator) && scanner.number(2, &text->parts.second) == 2 && scanner.atEnd();
}

// From the clock of 12 hours to that of 24; false where the clock has no such hour. 12:00 AM is the midnight that ends
// a day, 00:00 AM the one that begins it.
bool toDayClock(TimeText* text) noexcept {
  TimeParts& parts = text->parts;
  const bool morning = text->meridian == 'A';
  if (parts.hour > 12) return false;
  if (parts.hour == 0) return morning && parts.minute == 0;
  if (parts.hour == 12)
    parts.hour = !morning ? 12 : parts.minute == 0 ? 24 : 0;
  else if (!morning)
    parts.hour += 12;
  return true;
}

// ---- timestamps -------------------------------------------------------------------------------------------------

struct TimestampText {
  DateParts date;
  TimeParts time;
  std::uint8_t fraction[(SQLV_TIMESTAMP_SCALE_MAX + 1) / 2];
  bool hasFraction;  // other than zeros
};

// The two styles: what stands before the hour tells what belongs into the time.
constexpr char timeSeparatorBehind(char c) noexcept { return c == '-' ? '.' : c == ' ' ? ':' : '\0'; }

SqlzZrc expectSeparator(Scanner& scanner, char wanted) noexcept {
  const char found = scanner.next();
  if (found == wanted) return 0;
  return found == '.' || found == ':' ? SQLRX_TS_SEPARATOR_MIXED : SQLRX_TS_FORMAT;
}

bool scanTimestampDate(Scanner& scanner, DateParts* date) noexcept {
  return scanner.number(4, &date->year) == 4 && scanner.take('-') && scanner.number(2, &date->month) != 0 &&
         scanner.take('-') && scanner.number(2, &date->day) != 0;
}

SqlzZrc scanTimestampTime(Scanner& scanner, TimeParts* time) noexcept {
  const char separator = timeSeparatorBehind(scanner.next());
  if (separator == '\0' || scanner.number(2, &time->hour) == 0) return SQLRX_TS_FORMAT;
  if (const SqlzZrc zrc = expectSeparator(scanner, separator); zrc != 0) return zrc;
  if (scanner.number(2, &time->minute) != 2) return SQLRX_TS_FORMAT;
  if (const SqlzZrc zrc = expectSeparator(scanner, separator); zrc != 0) return zrc;
  return scanner.number(2, &time->second) == 2 ? 0 : SQLRX_TS_FORMAT;
}

SqlzZrc scanFraction(Scanner& scanner, unsigned scale, TimestampText* text) noexcept {
  if (scanner.atEnd()) return 0;
  if (!scanner.take('.') || scanner.atEnd()) return SQLRX_TS_FORMAT;
  std::size_t count = 0;
  for (unsigned digit = 0; scanner.number(1, &digit) != 0; ++count) {
    if (count >= scale) continue;
    text->fraction[count / 2] |= static_cast<std::uint8_t>(count % 2 == 0 ? digit << 4U : digit);
    text->hasFraction |= digit != 0;
  }
  if (!scanner.atEnd()) return SQLRX_TS_FRACTION_DIGIT;
  return count > scale ? SQLRX_TS_FRACTION_TOO_LONG : 0;
}

SqlzZrc scanTimestamp(Scanner scanner, unsigned scale, TimestampText* text) noexcept {
  if (!scanTimestampDate(scanner, &text->date)) return SQLRX_TS_FORMAT;
  if (const SqlzZrc zrc = scanTimestampTime(scanner, &text->time); zrc != 0) return zrc;
  return scanFraction(scanner, scale, text);
}

// ---- the scale of a timestamp's text ----------------------------------------------------------------------------

constexpr std::size_t kWholeSeconds = 20;    // YYYY-MM-DD-HH.MM.SS.
constexpr std::size_t kLeastWithScale = 18;  // Y-M-D-H.MM.SS.f with four digits of the year

}  // namespace

SqlzZrc sqlvi_readDate(const SqlvDateForm& own, const char* text, std::size_t length, std::uint8_t* date) noexcept {
  DateText found = {};
  if (const SqlzZrc zrc = scanDate(Scanner(text, length), &found); zrc != 0) return zrc;
  const SqlvDateForm* form = formOf(found, own);
  if (form == nullptr) return SQLRX_DATE_FORMAT;
  const DateParts parts = partsOf(found, *form);
  if (const SqlzZrc zrc = check(parts); zrc != 0) return zrc;
  store(parts, date);
  return 0;
}

}  // namespace vek

SqlzZrc sqlvdate(SqlvNationalLanguage* language, const char* text, std::size_t length, std::uint8_t* date) noexcept {
  return vek::sqlvi_readDate(vek::sqlvi_dateFormOf(language), text, length, date);
}

SqlzZrc sqlvtime(const char* text, std::size_t length, std::uint8_t* time) noexcept {
  vek::TimeText found = {};
  if (!vek::scanTime(vek::Scanner(text, length), &found)) return SQLRX_TIME_FORMAT;
  if (found.meridian != 0 && !vek::toDayClock(&found)) return SQLRX_TIME_VALUE;
  if (vek::check(found.parts, false) != 0) return SQLRX_TIME_VALUE;
  vek::store(found.parts, time);
  return 0;
}

SqlzZrc sqlvstmp(const char* text, std::size_t length, unsigned scale, std::uint8_t* timestamp) noexcept {
  if (scale > SQLV_TIMESTAMP_SCALE_MAX) return SQLRX_TS_PRECISION_RANGE;
  vek::TimestampText found = {};
  if (const SqlzZrc zrc = vek::scanTimestamp(vek::Scanner(text, length), scale, &found); zrc != 0) return zrc;
  if (const SqlzZrc zrc = vek::check(found.date); zrc != 0) return zrc;
  if (const SqlzZrc zrc = vek::check(found.time, found.hasFraction); zrc != 0) return zrc;
  vek::store(found.date, timestamp);
  vek::store(found.time, timestamp + SQLV_DATE_BYTES);
  std::memcpy(timestamp + SQLV_DATE_BYTES + SQLV_TIME_BYTES, found.fraction, (scale + 1) / 2);
  return 0;
}

// A part with one digit makes the text one character shorter than the whole seconds are. What stands at the place of
// its second digit tells; a text that is too short for a fraction holds all of these places or is not looked at.
std::size_t sqlvGetTsScaleFromString(const char* text, std::size_t length) noexcept {
  while (length > 0 && text[length - 1] == ' ') --length;
  if (length < vek::kLeastWithScale) return 0;
  std::size_t missing = 0;
  std::size_t place = 6;  // of the month's second digit
  for (int part = 0; part < 3; ++part) {
    const bool two = vek::isDigit(text[place]);
    missing += two ? 0 : 1;
    place += two ? 3 : 2;
  }
  const std::size_t whole = length + missing;
  return whole < vek::kWholeSeconds ? 0 : whole - vek::kWholeSeconds;
}

// Dates, times and timestamps to text.
#include <string_view>

#include "values/sqlv_country.h"
#include "values/sqlv_date.h"

namespace vek {
namespace {

bool asksForTerritory(SqlvFormatRequest request) noexcept {
  return request == SQLV_FORMAT_DEFAULT || request == SQLV_FORMAT_LOCAL;
}

// ---- dates ------------------------------------------------------------------------------------------------------

const SqlvDateForm& formOfRequest(SqlvNationalLanguage* language, SqlvFormatRequest request) noexcept {
  if (asksForTerritory(request)) return sqlvi_dateFormOf(language);
  const bool own = request == SQLV_FORMAT_USA || request == SQLV_FORMAT_EUROPEAN;
  return kSqlvDateForms[own ? request : SQLV_DATE_FORM_ISO];
}

void putBuddhistYear(char* text, const std::uint8_t* date) noexcept {
  unsigned year = sqlvi_ofPacked(date[0]) * 100 + sqlvi_ofPacked(date[1]) + SQLV_BUDDHIST_ERA;
  if (year > 9999) year -= 10000;
  sqlvi_putTwo(text, kSqlvPackedByte[year / 100]);
  sqlvi_putTwo(text + 2, kSqlvPackedByte[year % 100]);
}

// ---- times ------------------------------------------------------------------------------------------------------

// The separator of a time's parts, or one of two marks.
using TimeForm = char;
constexpr TimeForm kNoTime = 0;
constexpr TimeForm kMeridian = 'M';

// By number of a time format as sqlnlsNlsTime2RxTime answers it.
constexpr std::array<TimeForm, 5> kTimeForms = {kNoTime, kMeridian, kNoTime, '.', ':'};

TimeForm timeFormOf(SqlvNationalLanguage* language) noexcept {
  if (sqlvi_isNeutral(language)) return '.';
  const G11nTerritory* entry = sqlvi_countryOf(language);
  return entry == nullptr ? kNoTime : kTimeForms[sqlnlsNlsTime2RxTime(entry->timeFormat)];
}

TimeForm timeFormOfRequest(SqlvNationalLanguage* language, SqlvFormatRequest request) noexcept {
  constexpr std::array<TimeForm, 5> kForms = {kNoTime, kMeridian, '.', '.', ':'};
  if (asksForTerritory(request)) return timeFormOf(language);
  return request < kForms.size() ? kForms[request] : '-';
}

// KEEP: midnight at the beginning of a day is 00:00 AM; the minutes after it, 12:01 AM, go by the clock of 12 hours.
// Midnight at the end is 12:00 AM, and so both can be told apart.
void putMeridianTime(const std::uint8_t* time, char* text) noexcept {
  const unsigned hour = sqlvi_ofPacked(time[0]);
  const bool midnight = time[0] == 0 && time[1] == 0;
  const bool afternoon = hour >= 12 && hour < 24;
  sqlvi_putTwo(text, kSqlvPackedByte[midnight ? 0 : (hour + 11) % 12 + 1]);
  text[2] = ':';
  sqlvi_putTwo(text + 3, time[1]);
  text[5] = ' ';
  text[6] = afternoon ? 'P' : 'A';
  text[7] = 'M';
}

void putTime(const std::uint8_t* time, char separator, char* text) noexcept {
  sqlvi_putTwo(text, time[0]);
  text[2] = separator;
  sqlvi_putTwo(text + 3, time[1]);
  text[5] = separator;
  sqlvi_putTwo(text + 6, time[2]);
}

// ---- timestamps -------------------------------------------------------------------------------------------------

void putFraction(const std::uint8_t* fraction, unsigned scale, char* text) noexcept {
  for (unsigned i = 0; i < scale / 2; ++i) sqlvi_putTwo(text + std::size_t{i} * 2, fraction[i]);
  if (scale % 2 != 0) text[scale - 1] = static_cast<char>('0' | fraction[scale / 2] >> 4U);
}

inline void putDateAndTime(const std::uint8_t* timestamp, char* text) noexcept {
  constexpr std::string_view kPattern = "YYYY-MM-DD-HH.MM.SS";
  std::memcpy(text, kPattern.data(), kPattern.size());
  sqlvi_putTwo(text, timestamp[0]);
  sqlvi_putTwo(text + 2, timestamp[1]);
  sqlvi_putTwo(text + 5, timestamp[2]);
  sqlvi_putTwo(text + 8, timestamp[3]);
  sqlvi_putTwo(text + 11, timestamp[4]);
  sqlvi_putTwo(text + 14, timestamp[5]);
  sqlvi_putTwo(text + 17, timestamp[6]);
}

}  // namespace

const SqlvDateForm& sqlvi_dateFormOf(SqlvNationalLanguage* language) noexcept {
  if (sqlvi_isNeutral(language)) return kSqlvDateForms[SQLV_DATE_FORM_ISO];
  const G11nTerritory* entry = sqlvi_countryOf(language);
  return kSqlvDateForms[entry == nullptr ? 0 : sqlnlsNlsDate2RxDate(entry->dateFormat)];
}

void sqlvi_writeDate(const SqlvDateForm& form, const std::uint8_t* date, char* text) noexcept {
  std::memset(text, form.separator, SQLV_DATE_TEXT);
  if (form.buddhist) {
    putBuddhistYear(text + form.year, date);
  } else {
    sqlvi_putTwo(text + form.year, date[0]);
    sqlvi_putTwo(text + form.year + 2, date[1]);
  }
  sqlvi_putTwo(text + form.month, date[2]);
  sqlvi_putTwo(text + form.day, date[3]);
}

}  // namespace vek

std::size_t sqlvputd(SqlvNationalLanguage* language, SqlvFormatRequest request, const std::uint8_t* date,
                     char* text) noexcept {
  const vek::SqlvDateForm& form = vek::formOfRequest(language, request);
  if (!form.isWritten()) return 0;
  vek::sqlvi_writeDate(form, date, text);
  return SQLV_DATE_TEXT;
}

std::size_t sqlvputt(SqlvNationalLanguage* language, SqlvFormatRequest request, const std::uint8_t* time,
                     char* text) noexcept {
  const vek::TimeForm form = vek::timeFormOfRequest(language, request);
  if (form == vek::kNoTime) return 0;
  if (form == vek::kMeridian)
    vek::putMeridianTime(time, text);
  else
    vek::putTime(time, form, text);
  return SQLV_TIME_TEXT;
}

std::size_t sqlvputs(const std::uint8_t* timestamp, unsigned scale, char* text) noexcept {
  if (scale > SQLV_TIMESTAMP_SCALE_MAX) return 0;
  vek::putDateAndTime(timestamp, text);
  if (scale == 0) return sqlvTimestampText(0);
  text[19] = '.';
  if (scale == SQLV_TIMESTAMP_SCALE)  // by far the most frequent one: no loop
    vek::putFraction(timestamp + 7, SQLV_TIMESTAMP_SCALE, text + 20);
  else
    vek::putFraction(timestamp + 7, scale, text + 20);
  return sqlvTimestampText(scale);
}

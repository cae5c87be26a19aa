// Dates and times as packed digits: what the files that convert them share.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "veksys/values/datetime.h"

namespace vek {

// ---- two digits -------------------------------------------------------------------------------------------------

// The packed byte of 0..99.
inline constexpr auto kSqlvPackedByte = [] {
  std::array<std::uint8_t, 100> bytes = {};
  for (unsigned i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i / 10 << 4U | i % 10);
  return bytes;
}();

// 0..99 of a packed byte, and at most 165 of a malformed one.
constexpr unsigned sqlvi_ofPacked(std::uint8_t packed) noexcept { return packed - (packed >> 4U) * 6U; }

// The two characters of a byte; of a half byte that is no digit, some character.
inline constexpr auto kSqlvTwoDigits = [] {
  std::array<std::array<char, 2>, 256> pairs = {};
  for (unsigned i = 0; i < pairs.size(); ++i)
    pairs[i] = {static_cast<char>('0' + (i >> 4U)), static_cast<char>('0' + (i & 0xFU))};
  return pairs;
}();

inline void sqlvi_putTwo(char* text, std::uint8_t packed) noexcept {
  std::memcpy(text, kSqlvTwoDigits[packed].data(), 2);
}

// ---- the calendar -----------------------------------------------------------------------------------------------

constexpr bool sqlvi_isLeap(unsigned year) noexcept { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

inline constexpr std::array<std::uint8_t, 13> kSqlvMonthDays = {0, 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

// ---- forms of dates ---------------------------------------------------------------------------------------------

inline constexpr unsigned SQLV_BUDDHIST_ERA = 543;  // years before the common one

// How a date is laid out in its ten characters: where its parts begin, and what stands between them.
struct SqlvDateForm {
  std::uint8_t year;
  std::uint8_t month;
  std::uint8_t day;
  char separator;  // 0: nothing is written in this form
  bool buddhist;

  constexpr bool isWritten() const noexcept { return separator != 0; }
  constexpr bool yearFirst() const noexcept { return year == 0; }
};

inline constexpr unsigned SQLV_DATE_FORM_USA = 1;
inline constexpr unsigned SQLV_DATE_FORM_EUROPEAN = 2;
inline constexpr unsigned SQLV_DATE_FORM_ISO = 3;

// By the number of a date format as sqlnlsNlsDate2RxDate answers it.
inline constexpr std::array<SqlvDateForm, 12> kSqlvDateForms = {{
    {},
    {6, 0, 3, '/', false},  // 1: MM/DD/YYYY
    {6, 3, 0, '.', false},  // 2: DD.MM.YYYY
    {0, 5, 8, '-', false},  // 3: YYYY-MM-DD
    {},                     // 4 and 5: requests of the same numbers stand for other forms
    {},
    {6, 0, 3, '-', false},  // 6: MM-DD-YYYY
    {6, 3, 0, '/', false},  // 7: DD/MM/YYYY
    {6, 3, 0, '-', false},  // 8: DD-MM-YYYY
    {6, 3, 0, '/', true},   // 9: DD/MM/YYYY, year of the Buddhist era
    {0, 5, 8, '.', false},  // 10: YYYY.MM.DD
    {0, 8, 5, '.', false},  // 11: YYYY.DD.MM
}};

// The form of the object's territory; one that is not written when the country-code table does not hold the territory.
const SqlvDateForm& sqlvi_dateFormOf(SqlvNationalLanguage* language) noexcept;

// Writes a date in a form that is written.
void sqlvi_writeDate(const SqlvDateForm& form, const std::uint8_t* date, char* text) noexcept;

// Reads a date in a form, or else in one of the forms that are the same everywhere.
SqlzZrc sqlvi_readDate(const SqlvDateForm& own, const char* text, std::size_t length, std::uint8_t* date) noexcept;

}  // namespace vek

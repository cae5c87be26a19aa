// Dates, times and timestamps: their internal forms, and conversion to and from day numbers and text.
//
// All parts are two packed digits a byte, without a sign:
//
//   date       4 bytes: year (upper, lower two digits), month, day; 0001-01-01 to 9999-12-31, proleptic Gregorian
//   time       3 bytes: hour, minute, second; 24.00.00 is the midnight that ends a day
//   timestamp  7 bytes of date and time, then `scale` digits of a fraction of a second, 0..12; after an odd count of
//              digits the last half byte is 0
//
// Values carry no length and need no alignment. Pointers must not be null unless a function says so; source and target
// must not overlap. Texts have no terminator. Functions allocate nothing and may be called from any thread.
//
// The functions that write text trust the digits that they are given: of a malformed value they make some text of the
// same length, and touch no other bytes. The functions that read text trust nothing; what fails leaves the target as it
// was.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/codes.h"
#include "veksys/export.h"
#include "veksys/types.h"
#include "veksys/values/national_language.h"

inline constexpr std::size_t SQLV_DATE_BYTES = 4;
inline constexpr std::size_t SQLV_TIME_BYTES = 3;
inline constexpr unsigned SQLV_TIMESTAMP_SCALE = 6;  // where nothing else is said
inline constexpr unsigned SQLV_TIMESTAMP_SCALE_MAX = 12;
inline constexpr std::size_t SQLV_TIMESTAMP_BYTES_MAX = 13;

// The bytes of a timestamp.
constexpr std::size_t sqlvTimestampBytes(unsigned scale) noexcept { return 7 + (scale + 1) / 2; }

inline constexpr std::size_t SQLV_DATE_TEXT = 10;  // characters
inline constexpr std::size_t SQLV_TIME_TEXT = 8;
inline constexpr std::size_t SQLV_TIMESTAMP_TEXT_MAX = 32;

// The characters of a timestamp's text.
constexpr std::size_t sqlvTimestampText(unsigned scale) noexcept { return scale == 0 ? 19 : 20 + std::size_t{scale}; }

inline constexpr std::int32_t SQLV_DAY_MIN = 1;        // 0001-01-01
inline constexpr std::int32_t SQLV_DAY_MAX = 3652059;  // 9999-12-31

// Which form a date or time is written in. Any other number: ISO for dates, hh-mm-ss for times.
using SqlvFormatRequest = std::uint16_t;
inline constexpr SqlvFormatRequest SQLV_FORMAT_DEFAULT = 0;   // the territory's
inline constexpr SqlvFormatRequest SQLV_FORMAT_USA = 1;       // MM/DD/YYYY  hh:mm AM
inline constexpr SqlvFormatRequest SQLV_FORMAT_EUROPEAN = 2;  // DD.MM.YYYY  hh.mm.ss
inline constexpr SqlvFormatRequest SQLV_FORMAT_ISO = 3;       // YYYY-MM-DD  hh.mm.ss
inline constexpr SqlvFormatRequest SQLV_FORMAT_JIS = 4;       // YYYY-MM-DD  hh:mm:ss
inline constexpr SqlvFormatRequest SQLV_FORMAT_LOCAL = 5;     // the territory's

extern "C" {

// ---- day numbers ------------------------------------------------------------------------------------------------

// The date of a day number, 1 for 0001-01-01: 0, or SQLRX_DATE_RANGE for a number outside SQLV_DAY_MIN..SQLV_DAY_MAX;
// the target is then as it was.
VEK_EXPORT SqlzZrc sqlv2dte(std::int32_t day, std::uint8_t* date) noexcept;

// ---- writing text -----------------------------------------------------------------------------------------------

// Writes a date as SQLV_DATE_TEXT characters. The result is the count of characters: nothing is written, and 0 is the
// result, when the territory is asked for its form and the country-code table does not hold it.
//
// In Thailand's form the year is of the Buddhist era, 543 more; above 9999 it goes on at 0000 (9500 is written 0043).
VEK_EXPORT std::size_t sqlvputd(SqlvNationalLanguage* language, SqlvFormatRequest request, const std::uint8_t* date,
                                char* text) noexcept;

// Writes a time as SQLV_TIME_TEXT characters; otherwise as sqlvputd. The form with AM and PM has no seconds. In it the
// midnight that begins a day is 00:00 AM, the minutes after it are 12:01 AM and so on, noon is 12:00 PM, and the
// midnight that ends the day is 12:00 AM.
VEK_EXPORT std::size_t sqlvputt(SqlvNationalLanguage* language, SqlvFormatRequest request, const std::uint8_t* time,
                                char* text) noexcept;

// Writes a timestamp as YYYY-MM-DD-HH.MM.SS, and behind it, at a scale above 0, a point and so many digits: 19 or
// 20 + scale characters, whose count is the result. A scale above SQLV_TIMESTAMP_SCALE_MAX writes nothing and gives 0.
VEK_EXPORT std::size_t sqlvputs(const std::uint8_t* timestamp, unsigned scale, char* text) noexcept;

// ---- reading text -----------------------------------------------------------------------------------------------

// Blanks at the end of a text are not looked at. A month, day or hour may be written with one digit, a year has four.

// The count of fraction digits of a timestamp's text; 0 for a text without. It is taken from the length alone: of a
// text that is no timestamp it is some number, maybe more than SQLV_TIMESTAMP_SCALE_MAX. Reads nothing behind `length`.
VEK_EXPORT std::size_t sqlvGetTsScaleFromString(const char* text, std::size_t length) noexcept;

// Reads a date in the form of the language's territory, or else in one of the forms MM/DD/YYYY, DD.MM.YYYY and
// YYYY-MM-DD. `language` may be null. The order of the parts follows from the separator and from where the year stands,
// never from the digits: where a territory writes DD/MM/YYYY, 03/25/2016 is refused.
//
// What sqlvputd wrote in a territory's form is read back with an object of that territory; what it wrote for another
// request is read back with null. With a territory that writes DD/MM/YYYY, or Thailand's, the USA form is refused or
// read as another date: 03/04/2016 is 3 April there.
//
// Results, the layout before the values; those of the layout have the SQLCODE -180, those of the values -181:
//
//   0                             done
//   SQLRX_DATE_EMPTY              nothing but blanks
//   SQLRX_DATE_FORMAT             no form looks like this
//   SQLRX_DATE_SEPARATOR          the separators differ, or are none of / . -
//   SQLRX_DATE_CENTURY_AMBIGUOUS  the year has one digit or two
//   SQLRX_DATE_TRAILING_TEXT      a whole date with something behind it
//   SQLRX_DATE_YEAR_RANGE         year 0000, or 0543 of the Buddhist era
//   SQLRX_DATE_MONTH_RANGE        no month 1..12
//   SQLRX_DATE_DAY_RANGE          a day that the month never has
//   SQLRX_DATE_NOT_LEAP           29 February of a year that has none
VEK_EXPORT SqlzZrc sqlvdate(SqlvNationalLanguage* language, const char* text, std::size_t length,
                            std::uint8_t* date) noexcept;

// Reads a time in one of the forms hh.mm.ss, hh:mm:ss, hh-mm-ss, and hh:mm with a blank and AM or PM, in upper or lower
// case: every form that sqlvputt writes. Results:
//
//   0                  done
//   SQLRX_TIME_FORMAT  the text has none of these forms, whatever its digits say: empty, no digit where one belongs,
//                      separators that differ or are unknown, minutes or seconds without two digits, no AM or PM behind
//                      a blank, something behind the time
//   SQLRX_TIME_VALUE   the text has one of these forms, but no such time exists: hour above 24, minute or second above
//                      59, 24 with minutes or seconds; with AM or PM hour above 12, 00 other than in 00:00 AM
//
// Their SQLCODEs are -180 and -181.
VEK_EXPORT SqlzZrc sqlvtime(const char* text, std::size_t length, std::uint8_t* time) noexcept;

// Reads a timestamp, YYYY-MM-DD-HH.MM.SS or YYYY-MM-DD HH:MM:SS, with or without a point and fraction digits behind it,
// into a timestamp of a scale. Digits that the text lacks are zeros. Results, the layout before the values, with the
// SQLCODEs of sqlvdate:
//
//   0                           done
//   SQLRX_TS_PRECISION_RANGE    a scale above SQLV_TIMESTAMP_SCALE_MAX: no fault of the text, SQLCODE -171
//   SQLRX_TS_FORMAT             the text looks like neither form
//   SQLRX_TS_SEPARATOR_MIXED    the separators of both forms are mixed
//   SQLRX_TS_FRACTION_DIGIT     something else than digits behind the point of the fraction
//   SQLRX_TS_FRACTION_TOO_LONG  more fraction digits than the scale
//   SQLRX_DATE_YEAR_RANGE, SQLRX_DATE_MONTH_RANGE, SQLRX_DATE_DAY_RANGE, SQLRX_DATE_NOT_LEAP  as sqlvdate
//   SQLRX_TIME_HOUR_RANGE       hour above 24
//   SQLRX_TIME_MINUTE_RANGE     minute above 59
//   SQLRX_TIME_SECOND_RANGE     second above 59
//   SQLRX_TIME_MIDNIGHT_REST    hour 24 with minutes, seconds or a fraction
VEK_EXPORT SqlzZrc sqlvstmp(const char* text, std::size_t length, unsigned scale, std::uint8_t* timestamp) noexcept;

}  // extern "C"

// Day numbers to dates.
//
// A year begins with March here, so that the leap day is its last day: then not only the longer year is the last of
// four years, but the longer century the last of four as well, and both quotient and remainder of a day come from
// numbers of the form 4n + 3 without looking at the longer ones apart. The division by the days of a year is a
// multiplication. After Cassio Neri and Lorenz Schneider, "Euclidean affine functions and their application to calendar
// algorithms", Software: Practice and Experience 53 (2023); the year that begins with March after Howard Hinnant,
// "chrono-Compatible Low-Level Date Algorithms".
#include "values/sqlv_date.h"

#include <bit>

namespace vek {
namespace {

constexpr std::uint32_t kDaysOfEra = 146097;    // 400 years
constexpr std::uint32_t kDaysOfYear = 2939745;  // 2^32 / 1461, rounded up: 1461 days are four years
constexpr std::uint32_t kMarchToJanuary = 306;  // days
constexpr std::size_t kDaysOfLeapYear = 366;

// A byte of a date at its place in a word of the memory's order.
constexpr std::uint32_t at(unsigned place, std::uint8_t byte) noexcept {
  return std::uint32_t{byte} << 8U * (std::endian::native == std::endian::little ? place : 3 - place);
}

// The bytes of a date at their places; one object, so that one address serves all.
struct DateWords {
  std::array<std::uint32_t, kDaysOfLeapYear> monthAndDay;  // of the days of a year from March on
  std::array<std::uint32_t, 101> yearOfCentury;            // the first year of the next one included
  std::array<std::uint32_t, 101> century;
};

constexpr DateWords kWords = [] {
  DateWords words = {};
  std::size_t index = 0;
  for (std::size_t i = 0; i < 12; ++i) {
    const std::size_t month = (i + 2) % 12 + 1;
    for (std::size_t day = 1; day <= kSqlvMonthDays[month]; ++day)
      words.monthAndDay[index++] = at(2, kSqlvPackedByte[month]) | at(3, kSqlvPackedByte[day]);
  }
  for (std::size_t i = 0; i < words.century.size(); ++i) {
    words.century[i] = at(0, kSqlvPackedByte[i % 100]);
    words.yearOfCentury[i] = at(1, kSqlvPackedByte[i % 100]);
  }
  return words;
}();

// 1 for a number of Bits bits that is Least or more, else 0: never a branch, which would be mispredicted for every
// sixth day.
template <std::uint32_t Least, unsigned Bits>
constexpr std::uint32_t reaches(std::uint32_t number) noexcept {
  return (number + (1U << Bits) - Least) >> Bits;
}

// The date of a day that counts from 0, 0001-01-01.
inline void dateOf(std::uint32_t day, std::uint8_t* date) noexcept {
  const std::uint32_t quarterDays = 4 * (day + kMarchToJanuary) + 3;  // from 0000-03-01
  const std::uint32_t century = quarterDays / kDaysOfEra;
  const std::uint64_t years = std::uint64_t{kDaysOfYear} * (quarterDays % kDaysOfEra | 3U);
  const std::uint32_t dayOfYear = static_cast<std::uint32_t>(years) / kDaysOfYear / 4;
  const std::uint32_t year = static_cast<std::uint32_t>(years >> 32U) + reaches<kMarchToJanuary, 9>(dayOfYear);
  const std::uint32_t word =
      kWords.century[century + reaches<100, 7>(year)] | kWords.yearOfCentury[year] | kWords.monthAndDay[dayOfYear];
  std::memcpy(date, &word, sizeof word);
}

}  // namespace
}  // namespace vek

SqlzZrc sqlv2dte(std::int32_t day, std::uint8_t* date) noexcept {
  const std::uint32_t index = static_cast<std::uint32_t>(day) - SQLV_DAY_MIN;
  if (index >= static_cast<std::uint32_t>(SQLV_DAY_MAX)) return SQLRX_DATE_RANGE;
  vek::dateOf(index, date);
  return 0;
}

// Day numbers to dates.
//
// Years here begin with January and are counted from year 1. So the year that is longer, the leap year, is the last of
// four, and the longer century the last of four as well: position and remainder of a day come from two divisions of
// numbers of the form 4n + 3, without looking at the longer ones apart. The second division is a multiplication.
// After Cassio Neri and Lorenz Schneider, "Euclidean affine functions and their application to calendar algorithms",
// Software: Practice and Experience 53 (2023).
#include "values/sqlv_date.h"

namespace vek {
namespace {

constexpr std::uint32_t kDaysOfEra = 146097;        // 400 years
constexpr std::uint32_t kQuarterOfYears = 2939745;  // 2^32 / 1461, rounded up: 1461 days are four years
constexpr std::uint32_t kDaysBeforeMarch = 59;      // of a common year
constexpr std::size_t kDaysOfLeapYear = 366;

// Month and day, packed, of the days of a leap year.
constexpr auto kMonthAndDay = [] {
  std::array<std::array<std::uint8_t, 2>, kDaysOfLeapYear> days = {};
  std::size_t index = 0;
  for (std::size_t month = 1; month < kSqlvMonthDays.size(); ++month)
    for (std::size_t day = 1; day <= kSqlvMonthDays[month]; ++day)
      days[index++] = {kSqlvPackedByte[month], kSqlvPackedByte[day]};
  return days;
}();

// The lower two digits, packed, of a year that is the n-th of its century, and 00 of the hundredth.
constexpr auto kNextPackedByte = [] {
  std::array<std::uint8_t, 100> bytes = {};
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = kSqlvPackedByte[(i + 1) % bytes.size()];
  return bytes;
}();

// The date of a day that counts from 0.
inline void dateOf(std::uint32_t day, std::uint8_t* date) noexcept {
  const std::uint32_t quarterDays = 4 * day + 3;
  const std::uint32_t century = quarterDays / kDaysOfEra;
  const std::uint64_t years = std::uint64_t{kQuarterOfYears} * (quarterDays % kDaysOfEra | 3U);
  const auto yearOfCentury = static_cast<std::uint32_t>(years >> 32U);
  const std::uint32_t dayOfYear = static_cast<std::uint32_t>(years) / kQuarterOfYears / 4;
  const bool hundredth = yearOfCentury == 99;
  const bool leap = (hundredth ? century : yearOfCentury) % 4 == 3;
  const std::uint32_t leapDay = dayOfYear + (!leap && dayOfYear >= kDaysBeforeMarch ? 1 : 0);
  date[0] = kSqlvPackedByte[century + (hundredth ? 1 : 0)];
  date[1] = kNextPackedByte[yearOfCentury];
  std::memcpy(date + 2, kMonthAndDay[leapDay].data(), 2);
}

}  // namespace
}  // namespace vek

SqlzZrc sqlv2dte(std::int32_t day, std::uint8_t* date) noexcept {
  const std::uint32_t index = static_cast<std::uint32_t>(day) - SQLV_DAY_MIN;
  if (index >= static_cast<std::uint32_t>(SQLV_DAY_MAX)) return SQLRX_DATE_RANGE;
  vek::dateOf(index, date);
  return 0;
}

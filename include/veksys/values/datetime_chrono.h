// Dates, times and timestamps as std::chrono has them, both ways.
//
//   std::chrono::year_month_day day = sqlvDateToChrono(date);
//   std::chrono::local_time<std::chrono::microseconds> moment;
//   if (const SqlzZrc zrc = sqlvTimestampToChrono(timestamp, 6, &moment); zrc != 0) return zrc;
//
// The functions that read values trust their digits, as the writers of text do. Pure, from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <ratio>
#include <type_traits>

#include "veksys/values/datetime.h"

// What the conversions below share.
namespace sqlvChrono {

// Holds the picoseconds of all years.
__extension__ using Wide = __int128;

inline constexpr std::int64_t kSecondsOfDay = 86400;
inline constexpr std::int64_t kPicosOfSecond = 1000000000000;

// 0001-01-01, in days since 1970-01-01.
inline constexpr std::int32_t kFirstDay =
    std::chrono::local_days(std::chrono::year(1) / 1 / 1).time_since_epoch().count();

// Two packed digits to 0..99.
constexpr unsigned ofPacked(std::uint8_t packed) noexcept { return packed - (packed >> 4U) * 6U; }
// 0..99 to two packed digits.
constexpr std::uint8_t packed(unsigned number) noexcept { return static_cast<std::uint8_t>(number + number / 10 * 6); }

// Ten to a power, 0..18.
constexpr std::int64_t tenTo(unsigned power) noexcept { return power == 0 ? 1 : 10 * tenTo(power - 1); }

// The fraction of a second of a timestamp, in picoseconds.
constexpr std::int64_t picosOf(const std::uint8_t* fraction, unsigned scale) noexcept {
  std::int64_t picos = 0;
  for (unsigned i = 0; i < (scale + 1) / 2; ++i) picos = picos * 100 + ofPacked(fraction[i]);
  return picos * tenTo(SQLV_TIMESTAMP_SCALE_MAX - (scale + 1) / 2 * 2);
}

// The other way; digits finer than the scale are cut.
constexpr void putPicos(std::int64_t picos, unsigned scale, std::uint8_t* fraction) noexcept {
  picos -= picos % tenTo(SQLV_TIMESTAMP_SCALE_MAX - scale);
  std::int64_t unit = kPicosOfSecond;
  for (unsigned i = 0; i < (scale + 1) / 2; ++i) {
    unit /= 100;
    fraction[i] = packed(static_cast<unsigned>(picos / unit % 100));
  }
}

// Whether a clock counts from the beginning of 1970, without leap seconds.
template <class Clock>
inline constexpr bool kIsCivil =
    std::is_same_v<Clock, std::chrono::local_t> || std::is_same_v<Clock, std::chrono::system_clock>;

// The picoseconds of a duration's unit, from one to the longest unit that can be named. std::ratio_divide would compute
// them in 64 bits, which hold no more than 106 days.
template <class Duration>
constexpr Wide picosOfUnit() noexcept {
  using Period = typename Duration::period;
  static_assert(!std::chrono::treat_as_floating_point_v<typename Duration::rep>, "the count must be an integer");
  static_assert(Wide{kPicosOfSecond} % Period::den == 0, "the unit must be a whole number of picoseconds");
  return Wide{Period::num} * (kPicosOfSecond / Period::den);
}

}  // namespace sqlvChrono

// ---- dates --------------------------------------------------------------------------------------------------------

// The date of a value.
constexpr std::chrono::year_month_day sqlvDateToChrono(const std::uint8_t* date) noexcept {
  using sqlvChrono::ofPacked;
  return {std::chrono::year(static_cast<int>(ofPacked(date[0]) * 100 + ofPacked(date[1]))),
          std::chrono::month(ofPacked(date[2])), std::chrono::day(ofPacked(date[3]))};
}

// A date to a value: 0, or SQLRX_DATE_RANGE for a date that does not exist or lies outside the years 1 to 9999; the
// target is then as it was.
constexpr SqlzZrc sqlvDateFromChrono(std::chrono::year_month_day from, std::uint8_t* date) noexcept {
  const int year = static_cast<int>(from.year());
  if (!from.ok() || year < 1 || year > 9999) return SQLRX_DATE_RANGE;
  date[0] = sqlvChrono::packed(static_cast<unsigned>(year) / 100);
  date[1] = sqlvChrono::packed(static_cast<unsigned>(year) % 100);
  date[2] = sqlvChrono::packed(static_cast<unsigned>(from.month()));
  date[3] = sqlvChrono::packed(static_cast<unsigned>(from.day()));
  return 0;
}

// The day number of a date of the years 1 to 9999, what sqlv2dte takes.
constexpr std::int32_t sqlvDayNumber(std::chrono::year_month_day date) noexcept {
  const auto days = std::chrono::local_days(date).time_since_epoch().count();
  return static_cast<std::int32_t>(days) - sqlvChrono::kFirstDay + SQLV_DAY_MIN;
}

// ---- times --------------------------------------------------------------------------------------------------------

// The time of a value since the midnight that begins its day: 0 to 24 hours.
constexpr std::chrono::seconds sqlvTimeToChrono(const std::uint8_t* time) noexcept {
  using sqlvChrono::ofPacked;
  return std::chrono::hours(ofPacked(time[0])) + std::chrono::minutes(ofPacked(time[1])) +
         std::chrono::seconds(ofPacked(time[2]));
}

// A time since midnight to a value: 0, or SQLRX_TIME_VALUE outside 0 to 24 hours; the target is then as it was.
constexpr SqlzZrc sqlvTimeFromChrono(std::chrono::seconds from, std::uint8_t* time) noexcept {
  const std::int64_t seconds = from.count();
  if (seconds < 0 || seconds > sqlvChrono::kSecondsOfDay) return SQLRX_TIME_VALUE;
  time[0] = sqlvChrono::packed(static_cast<unsigned>(seconds / 3600));
  time[1] = sqlvChrono::packed(static_cast<unsigned>(seconds / 60 % 60));
  time[2] = sqlvChrono::packed(static_cast<unsigned>(seconds % 60));
  return 0;
}

// ---- timestamps ---------------------------------------------------------------------------------------------------

// The moment of a timestamp, in local time, which belongs to no zone, or, where the application says that its
// timestamps are that, in system time. What is finer than the target's unit is cut, as std::chrono::floor does. The
// midnight that ends a day is the one that begins the next.
//
// Durations count whole numbers of a unit that is a whole number of picoseconds: all of std::chrono's, of any integer
// type. Others do not compile.
//
// 0, SQLRX_TS_PRECISION_RANGE for a scale above SQLV_TIMESTAMP_SCALE_MAX, or SQLRX_DATE_RANGE when the target cannot
// count that far (64 bits of nanoseconds hold the years 1678 to 2261); the target is then as it was.
template <class Clock, class Duration>
constexpr SqlzZrc sqlvTimestampToChrono(const std::uint8_t* timestamp, unsigned scale,
                                        std::chrono::time_point<Clock, Duration>* target) noexcept {
  using namespace sqlvChrono;
  static_assert(kIsCivil<Clock>, "the clock must be local_t or system_clock");
  if (scale > SQLV_TIMESTAMP_SCALE_MAX) return SQLRX_TS_PRECISION_RANGE;
  constexpr Wide kUnit = picosOfUnit<Duration>();
  const std::chrono::local_days day(sqlvDateToChrono(timestamp));
  const Wide seconds = Wide{day.time_since_epoch().count()} * kSecondsOfDay + sqlvTimeToChrono(timestamp + 4).count();
  const Wide picos = seconds * kPicosOfSecond + picosOf(timestamp + 7, scale);
  const Wide count = picos / kUnit - (picos % kUnit < 0 ? 1 : 0);
  const auto narrowed = static_cast<typename Duration::rep>(count);
  if (Wide{narrowed} != count) return SQLRX_DATE_RANGE;
  *target = std::chrono::time_point<Clock, Duration>(Duration(narrowed));
  return 0;
}

// A moment of local or system time, counted as above, to a timestamp; digits finer than the scale are cut. 0,
// SQLRX_TS_PRECISION_RANGE as above, or SQLRX_DATE_RANGE outside the years 1 to 9999; the target is then as it was.
template <class Clock, class Duration>
constexpr SqlzZrc sqlvTimestampFromChrono(const std::chrono::time_point<Clock, Duration>& from, unsigned scale,
                                          std::uint8_t* timestamp) noexcept {
  using namespace sqlvChrono;
  static_assert(kIsCivil<Clock>, "the clock must be local_t or system_clock");
  if (scale > SQLV_TIMESTAMP_SCALE_MAX) return SQLRX_TS_PRECISION_RANGE;
  constexpr Wide kUnit = picosOfUnit<Duration>();
  constexpr Wide kPicosOfDay = Wide{kSecondsOfDay} * kPicosOfSecond;
  constexpr Wide kFarthest = SQLV_DAY_MAX * kPicosOfDay / kUnit + 1;  // more than any of the years from 1970
  const Wide count = from.time_since_epoch().count();
  if (count > kFarthest || count < -kFarthest) return SQLRX_DATE_RANGE;
  const Wide picos = count * kUnit - kFirstDay * kPicosOfDay;
  if (picos < 0 || picos >= SQLV_DAY_MAX * kPicosOfDay) return SQLRX_DATE_RANGE;
  const auto day = static_cast<std::int32_t>(picos / kPicosOfDay);
  const auto ofDay = static_cast<std::int64_t>(picos % kPicosOfDay);
  sqlvDateFromChrono(std::chrono::sys_days(std::chrono::days(day + kFirstDay)), timestamp);
  sqlvTimeFromChrono(std::chrono::seconds(ofDay / kPicosOfSecond), timestamp + SQLV_DATE_BYTES);
  putPicos(ofDay % kPicosOfSecond, scale, timestamp + SQLV_DATE_BYTES + SQLV_TIME_BYTES);
  return 0;
}

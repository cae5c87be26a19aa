// Every day and every second, in every form, against the calendar of the standard library.
#include <cstring>

#include "values/date_support.h"
#include "values/seed.h"

namespace vek::valuestest {
namespace {

using std::chrono::local_days;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr local_days kFirst{year(1) / 1 / 1};

// Every day where that is a matter of a second; where the program is slowed down, days of all kinds.
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr std::int32_t kStep = 1;
#else
constexpr std::int32_t kStep = 37;
#endif

constexpr struct {
  unsigned form;
  std::string_view pattern;
} kForms[] = {{1, "MM/DD/YYYY"}, {2, "DD.MM.YYYY"}, {3, "YYYY-MM-DD"},  {6, "MM-DD-YYYY"}, {7, "DD/MM/YYYY"},
              {8, "DD-MM-YYYY"}, {9, "DD/MM/BBBB"}, {10, "YYYY.MM.DD"}, {11, "YYYY.DD.MM"}};

// A date by a pattern of territory_formats.tsv.
std::string dateText(year_month_day date, std::string_view pattern) {
  const auto number = static_cast<unsigned>(static_cast<int>(date.year()));
  return textOf(pattern, {{'Y', number},
                          {'B', (number + 543) % 10000},
                          {'M', static_cast<unsigned>(date.month())},
                          {'D', static_cast<unsigned>(date.day())}});
}

TEST(Date, EveryDayIsThatOfTheStandardLibraryAndReadBackInEveryForm) {
  std::uint8_t date[SQLV_DATE_BYTES] = {};
  std::uint8_t again[SQLV_DATE_BYTES] = {};
  char text[SQLV_DATE_TEXT] = {};
  for (std::int32_t day = SQLV_DAY_MAX; day >= SQLV_DAY_MIN; day -= kStep) {
    const year_month_day expected(kFirst + std::chrono::days(day - 1));
    ASSERT_EQ(sqlv2dte(day, date), 0);
    ASSERT_EQ(sqlvDateToChrono(date), expected) << day;
    ASSERT_EQ(sqlvDayNumber(expected), day);
    ASSERT_EQ(sqlvDateFromChrono(expected, again), 0);
    ASSERT_EQ(std::memcmp(date, again, sizeof date), 0) << day;
    for (const auto& [number, pattern] : kForms) {
      sqlvi_writeDate(kSqlvDateForms[number], date, text);
      if (day % 31 == 0) {  // that what is read was written proves the rest
        ASSERT_EQ(std::string_view(text, sizeof text), dateText(expected, pattern));
      }
      ASSERT_EQ(sqlvi_readDate(kSqlvDateForms[number], text, sizeof text, again), 0) << std::string(text, sizeof text);
      ASSERT_EQ(std::memcmp(date, again, sizeof date), 0) << std::string(text, sizeof text);
    }
  }
}

TEST(Date, DayNumbersOutsideTheCalendarAreRefused) {
  const std::uint8_t before[SQLV_DATE_BYTES] = {0xA1, 0xA2, 0xA3, 0xA4};
  std::uint8_t date[SQLV_DATE_BYTES] = {0xA1, 0xA2, 0xA3, 0xA4};
  for (const std::int32_t day : {0, -1, SQLV_DAY_MAX + 1, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(sqlv2dte(day, date), SQLRX_DATE_RANGE) << day;
    EXPECT_EQ(std::memcmp(date, before, sizeof date), 0);
  }
}

// A time by a pattern with h, m and s; with AM by the standard library's own clock of twelve hours.
std::string timeText(std::chrono::seconds time, std::string pattern) {
  const std::chrono::hh_mm_ss parts(time);
  const std::chrono::hours hour(parts.hours().count() % 24);
  const bool twelve = pattern.back() == 'M';
  if (twelve && std::chrono::is_pm(hour)) pattern[6] = 'P';
  const auto shown = time < std::chrono::minutes(1) ? hour : twelve ? std::chrono::make12(hour) : parts.hours();
  return textOf(pattern, {{'h', static_cast<unsigned>(shown.count())},
                          {'m', static_cast<unsigned>(parts.minutes().count())},
                          {'s', static_cast<unsigned>(parts.seconds().count())}});
}

TEST(Time, EverySecondInEveryFormIsReadBack) {
  SqlvNationalLanguage japan = {.territory = 392};
  constexpr std::string_view kPatterns[] = {"hh:mm:ss", "hh:mm AM", "hh.mm.ss", "hh.mm.ss",
                                            "hh:mm:ss", "hh:mm:ss", "hh-mm-ss"};
  std::uint8_t again[SQLV_TIME_BYTES] = {};
  for (std::int64_t second = 0; second <= 86400; ++second) {
    const std::chrono::seconds time(second);
    std::uint8_t value[SQLV_TIME_BYTES] = {};
    ASSERT_EQ(sqlvTimeFromChrono(time, value), 0);
    ASSERT_EQ(sqlvTimeToChrono(value), time);
    for (SqlvFormatRequest request = 0; request < std::size(kPatterns); ++request) {
      const std::string text = written(sqlvputt, &japan, request, value);
      ASSERT_EQ(text, timeText(time, std::string(kPatterns[request])));
      ASSERT_EQ(sqlvtime(text.data(), text.size(), again), 0) << text;
      ASSERT_EQ(sqlvTimeToChrono(again), request == 1 ? time - time % 60 : time) << text;
    }
  }
}

TEST(Timestamp, OfEveryScaleIsReadBackAndPassesThroughTheStandardLibrary) {
  Random random;
  __extension__ using Picos = std::chrono::duration<__int128, std::pico>;
  for (int round = 0; round < 200000; ++round) {
    const auto scale = static_cast<unsigned>(random() % (SQLV_TIMESTAMP_SCALE_MAX + 1));
    const std::size_t bytes = sqlvTimestampBytes(scale);
    std::uint8_t value[SQLV_TIMESTAMP_BYTES_MAX] = {};
    ASSERT_EQ(sqlv2dte(static_cast<std::int32_t>(random() % SQLV_DAY_MAX) + 1, value), 0);
    ASSERT_EQ(sqlvTimeFromChrono(std::chrono::seconds(random() % 86400), value + 4), 0);
    for (unsigned i = 0; i < scale; ++i)
      value[7 + i / 2] |= static_cast<std::uint8_t>(random() % 10 << (i % 2 == 0 ? 4U : 0U));

    const std::string text = written(sqlvputs, value, scale);
    ASSERT_EQ(text.size(), sqlvTimestampText(scale));
    ASSERT_EQ(sqlvGetTsScaleFromString(text.data(), text.size()), scale) << text;
    std::uint8_t again[SQLV_TIMESTAMP_BYTES_MAX] = {};
    ASSERT_EQ(sqlvstmp(text.data(), text.size(), scale, again), 0) << text;
    ASSERT_EQ(std::memcmp(value, again, bytes), 0) << text;

    std::uint64_t finer = 0;
    std::chrono::local_time<Picos> moment;
    ASSERT_EQ(sqlvTimestampToChrono(value, scale, &moment), 0);
    ASSERT_EQ(std::chrono::year_month_day(std::chrono::floor<std::chrono::days>(moment)), sqlvDateToChrono(value));
    std::memset(again, 0xFF, sizeof again);
    for (unsigned i = scale; i < SQLV_TIMESTAMP_SCALE_MAX; ++i) finer = finer * 10 + random() % 10;
    moment += Picos(finer);  // which is cut
    ASSERT_EQ(sqlvTimestampFromChrono(moment, scale, again), 0);
    ASSERT_EQ(std::memcmp(value, again, bytes), 0) << text;
  }
}

template <class Duration>
void passesThrough(const std::uint8_t* value, std::chrono::local_seconds exact) {
  std::chrono::local_time<Duration> moment;
  ASSERT_EQ(sqlvTimestampToChrono(value, 0, &moment), 0);
  EXPECT_EQ(moment, std::chrono::floor<Duration>(exact));
  std::uint8_t cut[SQLV_TIMESTAMP_BYTES_MAX] = {};
  ASSERT_EQ(sqlvTimestampFromChrono(moment, 0, cut), 0);
  std::chrono::local_seconds again;
  ASSERT_EQ(sqlvTimestampToChrono(cut, 0, &again), 0);
  EXPECT_EQ(again, moment);
}

template <class... Durations>
void pass(const std::uint8_t* value, std::chrono::local_seconds exact) {
  (passesThrough<Durations>(value, exact), ...);
}

TEST(Timestamp, ChronoTakesEveryUnit) {
  using namespace std::chrono;
  // Years that seconds of 32 bits and picoseconds of 64 miss or hold.
  for (const int number : {1901, 1969, 1970, 2059}) {
    const local_seconds exact = local_days(year(number) / 3 / 4) + seconds(40271);
    std::uint8_t value[SQLV_TIMESTAMP_BYTES_MAX] = {};
    ASSERT_EQ(sqlvDateFromChrono(year(number) / 3 / 4, value), 0);
    ASSERT_EQ(sqlvTimeFromChrono(seconds(40271), value + SQLV_DATE_BYTES), 0);
    pass<years, duration<std::int16_t, months::period>, weeks, days, hours, minutes, seconds, milliseconds,
         nanoseconds>(value, exact);
  }
}

TEST(Timestamp, ChronoTakesWhatItCanCountAndNothingElse) {
  using std::chrono::microseconds;
  using std::chrono::nanoseconds;
  const auto valueOf = [](std::string_view text) {
    std::array<std::uint8_t, SQLV_TIMESTAMP_BYTES_MAX> value = {};
    EXPECT_EQ(sqlvstmp(text.data(), text.size(), 12, value.data()), 0) << text;
    return value;
  };
  std::chrono::sys_time<nanoseconds> fine(nanoseconds(-7));
  EXPECT_EQ(sqlvTimestampToChrono(valueOf("1600-01-01-00.00.00").data(), 12, &fine), SQLRX_DATE_RANGE);
  EXPECT_EQ(sqlvTimestampToChrono(valueOf("1970-01-01-00.00.00").data(), 13, &fine), SQLRX_TS_PRECISION_RANGE);
  EXPECT_EQ(fine.time_since_epoch(), nanoseconds(-7));
  EXPECT_EQ(sqlvTimestampToChrono(valueOf("1969-12-31-23.59.59.999999999999").data(), 12, &fine), 0);
  EXPECT_EQ(fine.time_since_epoch(), nanoseconds(-1));  // cut towards the past, as the parts of a time are
  EXPECT_EQ(sqlvTimestampToChrono(valueOf("1969-12-31-24.00.00").data(), 12, &fine), 0);
  EXPECT_EQ(fine.time_since_epoch(), nanoseconds(0));

  std::uint8_t value[SQLV_TIMESTAMP_BYTES_MAX] = {};
  EXPECT_EQ(sqlvTimestampFromChrono(std::chrono::sys_time<nanoseconds>(nanoseconds(-1)), 7, value), 0);
  EXPECT_EQ(written(sqlvputs, value, 7U), "1969-12-31-23.59.59.9999999");
  for (const std::int64_t count : {INT64_MIN, INT64_MAX}) {
    const std::chrono::local_time<std::chrono::seconds> second{std::chrono::seconds(count)};
    __extension__ using WideDays = std::chrono::duration<__int128, std::ratio<86400>>;
    const std::chrono::local_time<WideDays> farDay{WideDays(WideDays::rep{count} << 63U)};
    EXPECT_EQ(sqlvTimestampFromChrono(second, 6, value), SQLRX_DATE_RANGE);
    EXPECT_EQ(sqlvTimestampFromChrono(farDay, 6, value), SQLRX_DATE_RANGE);
  }
  EXPECT_EQ(sqlvDateFromChrono(year(2015) / 2 / 29, value), SQLRX_DATE_RANGE);
  EXPECT_EQ(sqlvTimeFromChrono(std::chrono::seconds(86401), value), SQLRX_TIME_VALUE);
}

}  // namespace
}  // namespace vek::valuestest

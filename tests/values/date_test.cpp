// Dates, times and timestamps: every day and every second, in every form, against the calendar of the standard library;
// what is written for a territory, and what is refused when text is read.
#include <thread>

#include "platform/g11n.h"
#include "platform/support.h"
#include "values/sqlv_country.h"
#include "values/sqlv_date.h"
#include "values/support.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"

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

constexpr std::pair<unsigned, std::string_view> kForms[] = {{1, "MM/DD/YYYY"}, {2, "DD.MM.YYYY"},  {3, "YYYY-MM-DD"},
                                                            {6, "MM-DD-YYYY"}, {7, "DD/MM/YYYY"},  {8, "DD-MM-YYYY"},
                                                            {9, "DD/MM/BBBB"}, {10, "YYYY.MM.DD"}, {11, "YYYY.DD.MM"}};

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
  for (const std::int32_t day : {0, -1, SQLV_DAY_MAX + 1, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(sqlv2dte(day, date), SQLRX_DATE_RANGE) << day;
    EXPECT_EQ(std::memcmp(date, again, sizeof date), 0) << "the date of before";
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
  constexpr std::string_view kPatterns[7] = {"hh:mm:ss", "hh:mm AM", "hh.mm.ss", "hh.mm.ss",
                                             "hh:mm:ss", "hh:mm:ss", "hh-mm-ss"};
  std::uint8_t again[SQLV_TIME_BYTES] = {};
  for (std::int64_t second = 0; second <= 86400; ++second) {
    const std::chrono::seconds time(second);
    std::uint8_t value[SQLV_TIME_BYTES] = {};
    ASSERT_EQ(sqlvTimeFromChrono(time, value), 0);
    ASSERT_EQ(sqlvTimeToChrono(value), time);
    for (SqlvFormatRequest request = 0; request < 7; ++request) {
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

TEST(Timestamp, ChronoTakesEveryUnit) {
  using namespace std::chrono;
  // Years that seconds of 32 bits and picoseconds of 64 miss or hold.
  for (const int number : {1901, 1969, 1970, 2059}) {
    const local_seconds exact = local_days(year(number) / 3 / 4) + seconds(40271);
    std::uint8_t value[SQLV_TIMESTAMP_BYTES_MAX] = {};
    ASSERT_EQ(sqlvDateFromChrono(year(number) / 3 / 4, value), 0);
    ASSERT_EQ(sqlvTimeFromChrono(seconds(40271), value + SQLV_DATE_BYTES), 0);
    const auto passesThrough = [&]<class Unit>(Unit) {
      local_time<Unit> moment;
      ASSERT_EQ(sqlvTimestampToChrono(value, 0, &moment), 0);
      EXPECT_EQ(moment, floor<Unit>(exact));
      std::uint8_t cut[SQLV_TIMESTAMP_BYTES_MAX] = {};
      ASSERT_EQ(sqlvTimestampFromChrono(moment, 0, cut), 0);
      local_seconds again;
      ASSERT_EQ(sqlvTimestampToChrono(cut, 0, &again), 0);
      EXPECT_EQ(again, moment);
    };
    std::apply([&](auto... units) { (passesThrough(units), ...); },
               std::tuple<years, duration<std::int16_t, months::period>, weeks, days, hours, minutes, seconds,
                          milliseconds, nanoseconds>());
  }
}

TEST(Timestamp, ChronoTakesWhatItCanCountAndNothingElse) {
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
  constexpr std::int64_t kBefore = std::chrono::local_seconds(kFirst).time_since_epoch().count() - 1;
  constexpr std::int64_t kBehind = kBefore + 1 + std::int64_t{SQLV_DAY_MAX} * 86400;
  for (const std::int64_t count : {INT64_MIN, kBefore, kBehind, INT64_MAX}) {
    const std::chrono::local_time<std::chrono::seconds> second{std::chrono::seconds(count)};
    __extension__ using WideDays = std::chrono::duration<__int128, std::ratio<86400>>;
    const std::chrono::local_time<WideDays> farDay{WideDays(WideDays::rep{count} << 63U)};
    EXPECT_EQ(sqlvTimestampFromChrono(second, 6, value), SQLRX_DATE_RANGE);
    EXPECT_EQ(sqlvTimestampFromChrono(farDay, 6, value), SQLRX_DATE_RANGE);
  }
  EXPECT_EQ(sqlvDateFromChrono(year(2015) / 2 / 29, value), SQLRX_DATE_RANGE);
  EXPECT_EQ(sqlvTimeFromChrono(std::chrono::seconds(86401), value), SQLRX_TIME_VALUE);
}

// ---- territories ------------------------------------------------------------------------------------------------

constexpr std::uint8_t kDate[] = {0x20, 0x16, 0x03, 0x04};
constexpr std::uint8_t kTime[] = {0x15, 0x20, 0x30};

TEST(DateText, TerritoriesAndRequests) {
  const std::tuple<std::uint16_t, const char*, const char*> cases[] = {
      {840, "03/04/2016", "03:20 PM"},
      {276, "04.03.2016", "15:20:30"},
      {826, "04/03/2016", "15:20:30"},
      {752, "2016-03-04", "15:20:30"},
      {528, "04-03-2016", "15:20:30"},
      {764, "04/03/2559", "15:20:30"},
      {410, "2016.03.04", "03:20 PM"},
      {246, "04.03.2016", "15.20.30"},
      {392, "2016-03-04", "15:20:30"},
      {0, "2016-03-04", "15.20.30"},
      {999, "", ""},
  };
  SqlvNationalLanguage language;
  for (const auto& [territory, date, time] : cases) {
    language.territory = territory;  // the entry that the object kept belongs to another one
    for (const SqlvFormatRequest request : {SQLV_FORMAT_DEFAULT, SQLV_FORMAT_LOCAL, SQLV_FORMAT_LOCAL}) {
      EXPECT_EQ(written(sqlvputd, &language, request, kDate), date) << territory;
      EXPECT_EQ(written(sqlvputt, &language, request, kTime), time) << territory;
    }
  }
  const char* const dates[7] = {"2016-03-04", "03/04/2016", "04.03.2016", "2016-03-04",
                                "2016-03-04", "2016-03-04", "2016-03-04"};
  for (SqlvFormatRequest request = 0; request < 7; ++request)
    EXPECT_EQ(written(sqlvputd, nullptr, request, kDate), dates[request]);
}

TEST(DateText, WhatATerritoryWritesItReads) {
  for (std::size_t i = 0; i < G11N_TERRITORIES; ++i) {
    SqlvNationalLanguage language = {.territory = g11nTerritoryAt(i).code};
    EXPECT_EQ(g11nFindTerritory(language.territory), &g11nTerritoryAt(i));
    const std::string text = written(sqlvputd, &language, SQLV_FORMAT_LOCAL, kDate);
    std::uint8_t date[SQLV_DATE_BYTES] = {};
    EXPECT_EQ(sqlvdate(&language, text.data(), text.size(), date), 0) << text;
    EXPECT_EQ(std::memcmp(date, kDate, sizeof date), 0) << text;
    EXPECT_EQ(written(sqlvputt, &language, SQLV_FORMAT_LOCAL, kTime).size(), SQLV_TIME_TEXT);
  }
}

// Objects hold what no territory's entry of theirs is, and all threads use all of them. Half of the threads have
// captured a latch before; the others have no table of latches, and get none.
TEST(DateText, ThreadsShareObjectsWhateverThoseHoldAtFirst) {
  const platformtest::Instance instance;
  const G11nTerritory* const first = &g11nTerritoryAt(0);
  const void* const held[] = {
      nullptr, first, reinterpret_cast<const char*>(first) + 1, first - 1, first + G11N_TERRITORIES, &instance};
  std::vector<SqlvNationalLanguage> languages;
  for (std::size_t i = 0; i < std::size(held) * G11N_TERRITORIES; ++i)
    languages.push_back(
        {.territory = g11nTerritoryAt(i % G11N_TERRITORIES).code, .countryEntry = held[i / G11N_TERRITORIES]});
  SqloSpinLatch latch;
  const auto ask = [&](std::size_t begin, bool captures) {
    if (captures && latch.captureLatch(__FILE__, __LINE__) == 0) latch.releaseLatch();
    for (std::size_t i = 0; i < 10 * languages.size(); ++i) {
      SqlvNationalLanguage& language = languages[(begin + i / 5) % languages.size()];
      ASSERT_EQ(sqlvi_countryOf(&language), g11nFindTerritory(language.territory));
    }
    EXPECT_EQ(sqloCurrentLatchTable() != nullptr, captures);
  };
  std::vector<std::jthread> threads;
  for (std::size_t i = 0; i < 4; ++i) threads.emplace_back(ask, i / 2 * 40, i % 2 == 0);
}

TEST(DateText, MalformedDigitsStayInsideTheText) {
  SqlvNationalLanguage thailand = {.territory = 764};
  std::uint8_t value[SQLV_TIMESTAMP_BYTES_MAX];
  for (unsigned byte = 0; byte < 256; ++byte) {
    std::memset(value, static_cast<int>(byte), sizeof value);
    for (SqlvFormatRequest request = 0; request < 7; ++request) {
      EXPECT_EQ(written(sqlvputd, &thailand, request, value).size(), SQLV_DATE_TEXT);
      EXPECT_EQ(written(sqlvputt, &thailand, request, value).size(), SQLV_TIME_TEXT);
    }
    for (unsigned scale = 0; scale <= SQLV_TIMESTAMP_SCALE_MAX; ++scale)
      EXPECT_EQ(written(sqlvputs, value, scale).size(), sqlvTimestampText(scale));
  }
  EXPECT_EQ(written(sqlvputs, value, SQLV_TIMESTAMP_SCALE_MAX + 1), "");
}

// ---- reading ----------------------------------------------------------------------------------------------------

// Texts, where they are read, and what comes of all of them: a code, or else a value.
struct Case {
  std::vector<std::string_view> texts;
  SqlzZrc zrc;
  std::string_view hex = {};
  unsigned parameter = 0;  // territory of a date, scale of a timestamp
};

// Reads a text, and every shorter one, where nothing behind it may be touched. What fails leaves the target alone.
template <class Read>
void check(const Case& wanted, std::string_view text, std::size_t bytes, Read read) {
  const GuardedPage page;
  for (std::size_t length = text.size() + 1; length-- > 0;) {
    auto* const start = reinterpret_cast<char*>(page.place(length, true));
    text.copy(start, length);
    std::uint8_t target[SQLV_TIMESTAMP_BYTES_MAX + 1];
    std::memset(target, 0xEE, sizeof target);
    const SqlzZrc zrc = read(start, length, target);
    sqlvGetTsScaleFromString(start, length);
    EXPECT_EQ(target[zrc == 0 ? bytes : 0], 0xEE) << text;
    if (length < text.size()) continue;
    EXPECT_EQ(zrc, wanted.zrc) << text;
    EXPECT_EQ(zrc == 0 ? hexOf(target, bytes) : "", wanted.hex) << text;
  }
}

TEST(DateText, DatesAreReadOrRefused) {
  const Case cases[] = {
      {{"2016-02-29", "2/29/2016  ", "29.2.2016"}, 0, "20160229"},
      {{"0001-1-1"}, 0, "00010101"},
      {{"03/04/2016", "03.04.2016"}, 0, "20160403", 826},
      {{"2016.03.04"}, 0, "20160304", 410},
      {{"   "}, SQLRX_DATE_EMPTY},
      {{"2016.03.04", "04-03-2016", " 2016-03-04", "2016-03", "2016-03-"}, SQLRX_DATE_FORMAT},
      {{"201-03-04", "2016-003-04", "3/4/216"}, SQLRX_DATE_FORMAT},
      {{"2016-03/04", "2016 03 04"}, SQLRX_DATE_SEPARATOR},
      {{"3/4/16"}, SQLRX_DATE_CENTURY_AMBIGUOUS},
      {{"2016-03-04T", "2016-03-045"}, SQLRX_DATE_TRAILING_TEXT},
      {{"0000-03-04"}, SQLRX_DATE_YEAR_RANGE},
      {{"04/03/0543"}, SQLRX_DATE_YEAR_RANGE, "", 764},
      {{"2016-13-04", "2016-00-04"}, SQLRX_DATE_MONTH_RANGE},
      {{"03/25/2016"}, SQLRX_DATE_MONTH_RANGE, "", 826},
      {{"2016-04-31", "2016-02-30", "2016-04-00"}, SQLRX_DATE_DAY_RANGE},
      {{"1900-02-29"}, SQLRX_DATE_NOT_LEAP},
  };
  for (const Case& each : cases)
    for (const std::string_view date : each.texts)
      check(each, date, SQLV_DATE_BYTES, [&](const char* text, std::size_t length, std::uint8_t* target) {
        SqlvNationalLanguage language = {.territory = static_cast<std::uint16_t>(each.parameter)};
        return sqlvdate(&language, text, length, target);
      });
}

TEST(TimeText, TimesAreReadOrRefused) {
  const Case cases[] = {
      {{"9.05.07 "}, 0, "090507"},
      {{"24:00:00", "12:00 AM"}, 0, "240000"},
      {{"23-59-59"}, 0, "235959"},
      {{"00:00 AM"}, 0, "000000"},
      {{"12:01 am"}, 0, "000100"},
      {{"12:00 PM"}, 0, "120000"},
      {{"1:05 pM"}, 0, "130500"},
      {{"", "12", "12/30/00", "12.30:00", "12.30", "12.3.00", "123.30.00", "12.30.000"}, SQLRX_TIME_FORMAT},
      {{"99.99.9x", "12.30 AM", "12:30 XM", "12:30 A", "12:30 AM."}, SQLRX_TIME_FORMAT},
      {{"25.00.00", "24.00.01", "24.01.00", "12.60.00", "12.30.60"}, SQLRX_TIME_VALUE},
      {{"13:00 PM", "00:30 AM", "00:00 PM", "12:60 AM"}, SQLRX_TIME_VALUE},
  };
  for (const Case& each : cases)
    for (const std::string_view time : each.texts) check(each, time, SQLV_TIME_BYTES, sqlvtime);
}

TEST(TimestampText, TimestampsAreReadOrRefused) {
  const Case cases[] = {
      {{"2016-03-04-10.20.30.123456"}, 0, "20160304102030123456", 6},
      {{"2016-3-4-1.20.30.123  "}, 0, "201603040120301230", 3},
      {{"2016-03-04 10:20:30.5"}, 0, "20160304102030500000000000", 12},
      {{"2016-03-04-24.00.00.000"}, 0, "201603042400000000", 3},
      {{"2016-03-04-10.20.30"}, 0, "20160304102030"},
      {{"2016-03-04-10.20.30"}, SQLRX_TS_PRECISION_RANGE, "", 13},
      {{"2016-03-04", "2016-03-04T10:20:30", "16-03-04-10.20.30", "2016-03-04-10.20.30."}, SQLRX_TS_FORMAT},
      {{"2016-03-04-10.20.3", "2016-03-04-10.20.301"}, SQLRX_TS_FORMAT},
      {{"2016-03-04-10:20:30", "2016-03-04 10:20.30"}, SQLRX_TS_SEPARATOR_MIXED},
      {{"2016-03-04-10.20.30.12x"}, SQLRX_TS_FRACTION_DIGIT, "", 1},
      {{"2016-03-04-10.20.30.123"}, SQLRX_TS_FRACTION_TOO_LONG, "", 2},
      {{"2015-02-29-10.20.30"}, SQLRX_DATE_NOT_LEAP},
      {{"2016-03-04-25.20.30"}, SQLRX_TIME_HOUR_RANGE},
      {{"2016-03-04-10.60.30"}, SQLRX_TIME_MINUTE_RANGE},
      {{"2016-03-04-10.20.60"}, SQLRX_TIME_SECOND_RANGE},
      {{"2016-03-04-24.00.00.001"}, SQLRX_TIME_MIDNIGHT_REST, "", 3},
  };
  for (const Case& each : cases)
    for (const std::string_view timestamp : each.texts)
      check(each, timestamp, sqlvTimestampBytes(each.parameter),
            [&](const char* text, std::size_t length, std::uint8_t* target) {
              return sqlvstmp(text, length, each.parameter, target);
            });
}

TEST(TimestampText, ScaleFollowsFromTheLength) {
  constexpr std::pair<std::string_view, std::size_t> kCases[] = {
      {"2016-03-04-10.20.30.123456", 6}, {"2016-03-04-10.20.30", 0},
      {"2016-03-04-10.20.30.", 0},       {"2016-3-4-10.20.30.123", 3},
      {"2016-3-4-1.20.30.1   ", 1},      {"2016-3-14-1.20.30.12", 2},
      {"2016-10-4-1.20.30.12", 2},       {"2016-10-14-1.20.30.123", 3},
      {"2016-3-4-1.20.30", 0},           {"", 0},
      {"                         ", 0},
  };
  for (const auto& [text, scale] : kCases) EXPECT_EQ(sqlvGetTsScaleFromString(text.data(), text.size()), scale) << text;
}

}  // namespace
}  // namespace vek::valuestest

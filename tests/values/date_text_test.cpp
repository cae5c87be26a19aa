// What is written for a territory, and what is refused when text is read.
#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/g11n.h"
#include "platform/support.h"
#include "values/date_support.h"
#include "values/packed_support.h"
#include "values/sqlv_country.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"

namespace vek::valuestest {
namespace {

constexpr std::uint8_t kDate[] = {0x20, 0x16, 0x03, 0x04};
constexpr std::uint8_t kTime[] = {0x15, 0x20, 0x30};

TEST(DateText, TerritoriesAndRequests) {
  constexpr struct {
    std::uint16_t territory;
    const char* date;
    const char* time;
  } kCases[] = {
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
  for (const auto& each : kCases) {
    language.territory = each.territory;  // the entry that the object kept belongs to another one
    for (const SqlvFormatRequest request : {SQLV_FORMAT_DEFAULT, SQLV_FORMAT_LOCAL, SQLV_FORMAT_LOCAL}) {
      EXPECT_EQ(written(sqlvputd, &language, request, kDate), each.date) << each.territory;
      EXPECT_EQ(written(sqlvputt, &language, request, kTime), each.time) << each.territory;
    }
  }
  const char* const dates[] = {"2016-03-04", "03/04/2016", "04.03.2016", "2016-03-04",
                               "2016-03-04", "2016-03-04", "2016-03-04"};
  for (SqlvFormatRequest request = 0; request < std::size(dates); ++request)
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
  const void* const held[] = {nullptr,
                              first,
                              reinterpret_cast<const char*>(first) + 1,
                              first - 1,
                              first + G11N_TERRITORIES,
                              reinterpret_cast<const void*>(~std::uintptr_t{0})};
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

// A text, where it is read, and what comes of it: a code, or else a value.
struct Case {
  const char* text;
  SqlzZrc zrc;
  const char* hex = "";
  unsigned parameter = 0;  // territory of a date, scale of a timestamp
};

// Reads the text, and every shorter one, where nothing behind it may be touched. What fails leaves the target alone.
template <class Read>
void check(const Case& wanted, std::size_t bytes, Read read) {
  const GuardedPage page;
  for (std::size_t length = std::strlen(wanted.text) + 1; length-- > 0;) {
    std::uint8_t* text = page.place(length, true);
    std::copy_n(wanted.text, length, text);
    std::uint8_t target[SQLV_TIMESTAMP_BYTES_MAX + 1];
    std::memset(target, 0xEE, sizeof target);
    const SqlzZrc zrc = read(reinterpret_cast<const char*>(text), length, target);
    sqlvGetTsScaleFromString(reinterpret_cast<const char*>(text), length);
    if (length == std::strlen(wanted.text)) {
      EXPECT_EQ(zrc, wanted.zrc) << wanted.text;
      EXPECT_EQ(zrc == 0 ? hexOf(target, bytes) : "", wanted.hex) << wanted.text;
    }
    EXPECT_EQ(target[zrc == 0 ? bytes : 0], 0xEE) << wanted.text;
  }
}

TEST(DateText, DatesAreReadOrRefused) {
  for (const Case& each : std::initializer_list<Case>{
           {"2016-02-29", 0, "20160229"},
           {"2/29/2016  ", 0, "20160229"},
           {"29.2.2016", 0, "20160229"},
           {"0001-1-1", 0, "00010101"},
           {"03/04/2016", 0, "20160403", 826},
           {"03.04.2016", 0, "20160403", 826},
           {"04/03/0543", SQLRX_DATE_YEAR_RANGE, "", 764},
           {"2016.03.04", 0, "20160304", 410},
           {"2016.03.04", SQLRX_DATE_FORMAT},
           {"04-03-2016", SQLRX_DATE_FORMAT},
           {"03/25/2016", SQLRX_DATE_MONTH_RANGE, "", 826},
           {"   ", SQLRX_DATE_EMPTY},
           {" 2016-03-04", SQLRX_DATE_FORMAT},
           {"2016-03", SQLRX_DATE_FORMAT},
           {"2016-03-", SQLRX_DATE_FORMAT},
           {"201-03-04", SQLRX_DATE_FORMAT},
           {"2016-003-04", SQLRX_DATE_FORMAT},
           {"3/4/216", SQLRX_DATE_FORMAT},
           {"2016-03/04", SQLRX_DATE_SEPARATOR},
           {"2016 03 04", SQLRX_DATE_SEPARATOR},
           {"3/4/16", SQLRX_DATE_CENTURY_AMBIGUOUS},
           {"2016-03-04T", SQLRX_DATE_TRAILING_TEXT},
           {"2016-03-045", SQLRX_DATE_TRAILING_TEXT},
           {"0000-03-04", SQLRX_DATE_YEAR_RANGE},
           {"2016-13-04", SQLRX_DATE_MONTH_RANGE},
           {"2016-00-04", SQLRX_DATE_MONTH_RANGE},
           {"2016-04-31", SQLRX_DATE_DAY_RANGE},
           {"2016-02-30", SQLRX_DATE_DAY_RANGE},
           {"2016-04-00", SQLRX_DATE_DAY_RANGE},
           {"1900-02-29", SQLRX_DATE_NOT_LEAP},
       })
    check(each, SQLV_DATE_BYTES, [&](const char* text, std::size_t length, std::uint8_t* target) {
      SqlvNationalLanguage language = {.territory = static_cast<std::uint16_t>(each.parameter)};
      return sqlvdate(&language, text, length, target);
    });
}

TEST(TimeText, TimesAreReadOrRefused) {
  for (const Case& each : std::initializer_list<Case>{
           {"9.05.07 ", 0, "090507"},        {"24:00:00", 0, "240000"},       {"23-59-59", 0, "235959"},
           {"00:00 AM", 0, "000000"},        {"12:00 AM", 0, "240000"},       {"12:01 am", 0, "000100"},
           {"12:00 PM", 0, "120000"},        {"1:05 pM", 0, "130500"},        {"", SQLRX_TIME_FORMAT},
           {"12", SQLRX_TIME_FORMAT},        {"12/30/00", SQLRX_TIME_FORMAT}, {"12.30:00", SQLRX_TIME_FORMAT},
           {"12.30", SQLRX_TIME_FORMAT},     {"12.3.00", SQLRX_TIME_FORMAT},  {"123.30.00", SQLRX_TIME_FORMAT},
           {"12.30.000", SQLRX_TIME_FORMAT}, {"99.99.9x", SQLRX_TIME_FORMAT}, {"12.30 AM", SQLRX_TIME_FORMAT},
           {"12:30 XM", SQLRX_TIME_FORMAT},  {"12:30 A", SQLRX_TIME_FORMAT},  {"12:30 AM.", SQLRX_TIME_FORMAT},
           {"25.00.00", SQLRX_TIME_VALUE},   {"24.00.01", SQLRX_TIME_VALUE},  {"24.01.00", SQLRX_TIME_VALUE},
           {"12.60.00", SQLRX_TIME_VALUE},   {"12.30.60", SQLRX_TIME_VALUE},  {"13:00 PM", SQLRX_TIME_VALUE},
           {"00:30 AM", SQLRX_TIME_VALUE},   {"00:00 PM", SQLRX_TIME_VALUE},  {"12:60 AM", SQLRX_TIME_VALUE},
       })
    check(each, SQLV_TIME_BYTES, sqlvtime);
}

TEST(TimestampText, TimestampsAreReadOrRefused) {
  for (const Case& each : std::initializer_list<Case>{
           {"2016-03-04-10.20.30.123456", 0, "20160304102030123456", 6},
           {"2016-3-4-1.20.30.123  ", 0, "201603040120301230", 3},
           {"2016-03-04 10:20:30.5", 0, "20160304102030500000000000", 12},
           {"2016-03-04-24.00.00.000", 0, "201603042400000000", 3},
           {"2016-03-04-10.20.30", 0, "20160304102030", 0},
           {"2016-03-04-10.20.30", SQLRX_TS_PRECISION_RANGE, "", 13},
           {"2016-03-04", SQLRX_TS_FORMAT},
           {"2016-03-04T10:20:30", SQLRX_TS_FORMAT},
           {"16-03-04-10.20.30", SQLRX_TS_FORMAT},
           {"2016-03-04-10.20.30.", SQLRX_TS_FORMAT},
           {"2016-03-04-10.20.3", SQLRX_TS_FORMAT},
           {"2016-03-04-10.20.301", SQLRX_TS_FORMAT},
           {"2016-03-04-10:20:30", SQLRX_TS_SEPARATOR_MIXED},
           {"2016-03-04 10:20.30", SQLRX_TS_SEPARATOR_MIXED},
           {"2016-03-04-10.20.30.12x", SQLRX_TS_FRACTION_DIGIT, "", 1},
           {"2016-03-04-10.20.30.123", SQLRX_TS_FRACTION_TOO_LONG, "", 2},
           {"2015-02-29-10.20.30", SQLRX_DATE_NOT_LEAP},
           {"2016-03-04-25.20.30", SQLRX_TIME_HOUR_RANGE},
           {"2016-03-04-10.60.30", SQLRX_TIME_MINUTE_RANGE},
           {"2016-03-04-10.20.60", SQLRX_TIME_SECOND_RANGE},
           {"2016-03-04-24.00.00.001", SQLRX_TIME_MIDNIGHT_REST, "", 3},
       })
    check(each, sqlvTimestampBytes(each.parameter), [&](const char* text, std::size_t length, std::uint8_t* target) {
      return sqlvstmp(text, length, each.parameter, target);
    });
}

TEST(TimestampText, ScaleFollowsFromTheLength) {
  constexpr struct {
    std::string_view text;
    std::size_t scale;
  } kCases[] = {
      {"2016-03-04-10.20.30.123456", 6}, {"2016-03-04-10.20.30", 0},
      {"2016-03-04-10.20.30.", 0},       {"2016-3-4-10.20.30.123", 3},
      {"2016-3-4-1.20.30.1   ", 1},      {"2016-3-14-1.20.30.12", 2},
      {"2016-10-4-1.20.30.12", 2},       {"2016-10-14-1.20.30.123", 3},
      {"2016-3-4-1.20.30", 0},           {"", 0},
      {"                         ", 0},
  };
  for (const auto& each : kCases)
    EXPECT_EQ(sqlvGetTsScaleFromString(each.text.data(), each.text.size()), each.scale) << each.text;
}

}  // namespace
}  // namespace vek::valuestest

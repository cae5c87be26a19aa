// What tests of dates and times share: texts made from a pattern and the calendar of the standard library.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <string>
#include <string_view>

#include "values/sqlv_date.h"
#include "veksys/values.h"

namespace vek::valuestest {

// A date of the standard library as a pattern of territory_formats.tsv tells: Y and B year, M month, D day.
inline std::string textOf(const std::chrono::year_month_day& date, std::string_view pattern) {
  unsigned year = static_cast<unsigned>(static_cast<int>(date.year()));
  unsigned month = static_cast<unsigned>(date.month());
  unsigned day = static_cast<unsigned>(date.day());
  unsigned era = (year + 543) % 10000;
  std::string text(pattern);
  const auto lastDigit = [](unsigned& number) {
    const char digit = static_cast<char>('0' + number % 10);
    number /= 10;
    return digit;
  };
  for (std::size_t i = text.size(); i-- > 0;) switch (text[i]) {
      case 'Y':
        text[i] = lastDigit(year);
        break;
      case 'B':
        text[i] = lastDigit(era);
        break;
      case 'M':
        text[i] = lastDigit(month);
        break;
      case 'D':
        text[i] = lastDigit(day);
        break;
      default:
        break;
    }
  return text;
}

// The text that sqlvputd or sqlvputt writes, behind which nothing was touched.
template <class Function>
std::string written(Function function, SqlvNationalLanguage* language, unsigned request, const std::uint8_t* value) {
  std::array<char, SQLV_TIMESTAMP_TEXT_MAX> text;
  text.fill('#');
  const std::size_t count = function(language, static_cast<SqlvFormatRequest>(request), value, text.data());
  EXPECT_EQ(text[count], '#');
  return {text.data(), count};
}

inline std::string writtenTimestamp(const std::uint8_t* timestamp, unsigned scale) {
  std::array<char, SQLV_TIMESTAMP_TEXT_MAX + 1> text;
  text.fill('#');
  const std::size_t count = sqlvputs(timestamp, scale, text.data());
  EXPECT_EQ(text[count], '#');
  return {text.data(), count};
}

}  // namespace vek::valuestest

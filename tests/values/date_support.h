// What tests of dates and times share: texts made from a pattern, and texts that are written.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <initializer_list>
#include <string>
#include <string_view>

#include "values/sqlv_date.h"
#include "veksys/values.h"

namespace vek::valuestest {

// A number whose digits stand in a pattern under a letter.
struct PatternPart {
  char letter;
  unsigned number;
};

inline std::string textOf(std::string_view pattern, std::initializer_list<PatternPart> parts) {
  std::string text(pattern);
  for (PatternPart part : parts)
    for (std::size_t i = text.size(); i-- > 0;)
      if (text[i] == part.letter) {
        text[i] = static_cast<char>('0' + part.number % 10);
        part.number /= 10;
      }
  return text;
}

// The text that sqlvputd, sqlvputt or sqlvputs writes, behind which nothing was touched.
template <class Function, class... Arguments>
std::string written(Function function, Arguments... arguments) {
  std::array<char, SQLV_TIMESTAMP_TEXT_MAX + 1> text;
  text.fill('#');
  const std::size_t count = function(arguments..., text.data());
  EXPECT_EQ(text[count], '#');
  return {text.data(), count};
}

}  // namespace vek::valuestest

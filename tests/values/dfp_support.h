// What tests of decimal floating point share: both widths behind one name each, and values as text.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "veksys/values/dfpal.h"

// Bit by bit.
inline bool operator==(DfpalDecimal64 left, DfpalDecimal64 right) { return left.word == right.word; }
inline bool operator==(DfpalDecimal128 left, DfpalDecimal128 right) {
  return left.low == right.low && left.high == right.high;
}

namespace vek::valuestest {

struct Width64 {
  using Value = DfpalDecimal64;
  static constexpr auto fromString = dfpal_decimal64FromString;
  static constexpr auto toString = dfpal_decimal64ToString;
  static constexpr auto add = dfpal_decimal64Add;
  static constexpr auto subtract = dfpal_decimal64Subtract;
  static constexpr auto multiply = dfpal_decimal64Multiply;
  static constexpr auto divide = dfpal_decimal64Divide;
  static constexpr auto quantize = dfpal_decimal64Quantize;
  static constexpr auto compare = dfpal_decimal64Compare;
  static constexpr auto compareSignal = dfpal_decimal64CompareSignal;
  static constexpr auto integral = dfpal_decimal64RoundToIntegral;
  static constexpr auto integralExact = dfpal_decimal64RoundToIntegralExact;
  static constexpr auto fromInt32 = dfpal_decimal64FromInt32;
  static constexpr auto fromUint32 = dfpal_decimal64FromUint32;
  static constexpr auto fromInt64 = dfpal_decimal64FromInt64;
  static constexpr auto fromUint64 = dfpal_decimal64FromUint64;
  static constexpr auto toInt32 = dfpal_decimal64ToInt32;
  static constexpr auto toUint32 = dfpal_decimal64ToUint32;
  static constexpr auto toInt64 = dfpal_decimal64ToInt64;
  static constexpr auto toUint64 = dfpal_decimal64ToUint64;
  static constexpr auto fromPacked = dfpal_decimal64FromPacked;
  static constexpr auto toPacked = dfpal_decimal64ToPacked;
};

struct Width128 {
  using Value = DfpalDecimal128;
  static constexpr auto fromString = dfpal_decimal128FromString;
  static constexpr auto toString = dfpal_decimal128ToString;
  static constexpr auto add = dfpal_decimal128Add;
  static constexpr auto subtract = dfpal_decimal128Subtract;
  static constexpr auto multiply = dfpal_decimal128Multiply;
  static constexpr auto divide = dfpal_decimal128Divide;
  static constexpr auto quantize = dfpal_decimal128Quantize;
  static constexpr auto compare = dfpal_decimal128Compare;
  static constexpr auto compareSignal = dfpal_decimal128CompareSignal;
  static constexpr auto integral = dfpal_decimal128RoundToIntegral;
  static constexpr auto integralExact = dfpal_decimal128RoundToIntegralExact;
  static constexpr auto fromInt32 = dfpal_decimal128FromInt32;
  static constexpr auto fromUint32 = dfpal_decimal128FromUint32;
  static constexpr auto fromInt64 = dfpal_decimal128FromInt64;
  static constexpr auto fromUint64 = dfpal_decimal128FromUint64;
  static constexpr auto toInt32 = dfpal_decimal128ToInt32;
  static constexpr auto toUint32 = dfpal_decimal128ToUint32;
  static constexpr auto toInt64 = dfpal_decimal128ToInt64;
  static constexpr auto toUint64 = dfpal_decimal128ToUint64;
  static constexpr auto fromPacked = dfpal_decimal128FromPacked;
  static constexpr auto toPacked = dfpal_decimal128ToPacked;
};

// The value of a text, and the text of a value.
template <class Width>
typename Width::Value valueOf(std::string_view text) {
  return Width::fromString(text.data(), text.size());
}

inline std::string textOf(DfpalDecimal64 value) {
  char text[DFPAL_DECIMAL64_TEXT_BYTES];
  return {text, dfpal_decimal64ToString(value, text, sizeof text)};
}
inline std::string textOf(DfpalDecimal128 value) {
  char text[DFPAL_DECIMAL128_TEXT_BYTES];
  return {text, dfpal_decimal128ToString(value, text, sizeof text)};
}

// A rounding mode and no flags for as long as the object lives; afterwards half even and no flags.
class RoundingMode {
 public:
  explicit RoundingMode(std::uint32_t mode) {
    EXPECT_EQ(dfpalSetRoundingMode(mode), 0);
    dfpalReadClearAllStatusFlag();
  }
  ~RoundingMode() {
    dfpalSetRoundingMode(DFPAL_ROUND_HALF_EVEN);
    dfpalReadClearAllStatusFlag();
  }
  RoundingMode(const RoundingMode&) = delete;
  RoundingMode& operator=(const RoundingMode&) = delete;
};

}  // namespace vek::valuestest

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

#define VEK_DFP_WIDTH(bits)                                                          \
  struct Width##bits {                                                               \
    using Value = DfpalDecimal##bits;                                                \
    static constexpr auto fromString = dfpal_decimal##bits##FromString;              \
    static constexpr auto toString = dfpal_decimal##bits##ToString;                  \
    static constexpr auto add = dfpal_decimal##bits##Add;                            \
    static constexpr auto subtract = dfpal_decimal##bits##Subtract;                  \
    static constexpr auto multiply = dfpal_decimal##bits##Multiply;                  \
    static constexpr auto divide = dfpal_decimal##bits##Divide;                      \
    static constexpr auto quantize = dfpal_decimal##bits##Quantize;                  \
    static constexpr auto compare = dfpal_decimal##bits##Compare;                    \
    static constexpr auto compareSignal = dfpal_decimal##bits##CompareSignal;        \
    static constexpr auto integral = dfpal_decimal##bits##RoundToIntegral;           \
    static constexpr auto integralExact = dfpal_decimal##bits##RoundToIntegralExact; \
    static constexpr auto fromInt32 = dfpal_decimal##bits##FromInt32;                \
    static constexpr auto fromUint32 = dfpal_decimal##bits##FromUint32;              \
    static constexpr auto fromInt64 = dfpal_decimal##bits##FromInt64;                \
    static constexpr auto fromUint64 = dfpal_decimal##bits##FromUint64;              \
    static constexpr auto toInt32 = dfpal_decimal##bits##ToInt32;                    \
    static constexpr auto toUint32 = dfpal_decimal##bits##ToUint32;                  \
    static constexpr auto toInt64 = dfpal_decimal##bits##ToInt64;                    \
    static constexpr auto toUint64 = dfpal_decimal##bits##ToUint64;                  \
    static constexpr auto fromPacked = dfpal_decimal##bits##FromPacked;              \
    static constexpr auto toPacked = dfpal_decimal##bits##ToPacked;                  \
  }
VEK_DFP_WIDTH(64);
VEK_DFP_WIDTH(128);
#undef VEK_DFP_WIDTH

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

// The rules that a packed value of up to 31 digits must keep.
#pragma once

#include "values/sqlv_packed.h"

namespace vek {

// Not 0 when a digit is above 9: its bit of weight 8 is set, and that of 4 or of 2. Nothing crosses from one digit into
// another, so that a word may begin or end anywhere.
constexpr std::uint64_t sqlvi_aboveNine(std::uint64_t digits) noexcept {
  return digits & 0x8888888888888888U & (digits << 1U | digits << 2U);
}

// A word of up to 15 digits. Faults are rare: what tells them comes together into one test, except for the negative
// zero, which is one comparison.
constexpr bool sqlvi_isMalformed(std::uint64_t word, unsigned precision) noexcept {
  const std::uint64_t digits = word >> kSqlvDigitBits;
  const std::uint64_t pad = digits >> kSqlvDigitBits * precision;  // nothing where there is none
  const std::uint64_t unknownSign = (word & 0xEU) ^ kSqlvPositive;
  return (sqlvi_aboveNine(digits) | pad | unknownSign) != 0 || word == kSqlvNegative;
}

// A word of 16 to 31 digits.
constexpr bool sqlvi_isMalformed(SqlvWide word, unsigned precision) noexcept {
  const auto high = static_cast<std::uint64_t>(word >> 64U);
  const auto low = static_cast<std::uint64_t>(word);
  const std::uint64_t pad = high >> kSqlvDigitBits >> kSqlvDigitBits * (precision - 16);
  const std::uint64_t unknownSign = (low & 0xEU) ^ kSqlvPositive;
  const std::uint64_t wrong = sqlvi_aboveNine(high) | sqlvi_aboveNine(low & ~std::uint64_t{0xF});
  return (wrong | pad | unknownSign) != 0 || (low == kSqlvNegative && high == 0);
}

}  // namespace vek

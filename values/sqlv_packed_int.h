// Packed words to and from binary integers. Words of 64 bits hold up to 15 digits, those of 128 bits up to 31.
#pragma once

#include <limits>
#include <type_traits>

#include "values/sqlv_packed.h"

namespace vek {

// Digits of a number as a packed word; for limits at compile time.
constexpr SqlvWide sqlvi_packedDigits(std::uint64_t value) noexcept {
  SqlvWide digits = 0;
  for (unsigned shift = 0; value != 0; value /= 10, shift += kSqlvDigitBits)
    digits |= static_cast<SqlvWide>(value % 10) << shift;
  return digits;
}

template <class Target>
inline constexpr std::uint64_t kSqlvLargestInteger = static_cast<std::uint64_t>(std::numeric_limits<Target>::max());

// Binary of digits that do not pass the target's limit.
template <class Target, class Word>
constexpr std::uint64_t sqlvi_binaryOf(Word digits) noexcept {
  const auto low = static_cast<std::uint64_t>(digits);
  if constexpr (sizeof(Target) == 2) return sqlvi_binaryOf8(static_cast<std::uint32_t>(low));
  if constexpr (sizeof(Target) == 4 || sizeof(Word) == 8) return sqlvi_binaryOf16(low);
  if constexpr (sizeof(Target) == 8 && sizeof(Word) == 16)
    return sqlvi_binaryOf16(low) + sqlvi_binaryOf8(static_cast<std::uint32_t>(digits >> 64U)) * kSqlvTenTo16;
}

// Whether the digits pass the target's limit, the negative one being further away by one.
template <class Target, class Word>
constexpr bool sqlvi_passesLimit(Word digits, std::uint64_t negative) noexcept {
  constexpr SqlvWide kLimit = sqlvi_packedDigits(kSqlvLargestInteger<Target>);  // where signed, one more needs no carry
  if constexpr (sizeof(Word) == 8 && sizeof(Target) == 8) return false;
  if constexpr (sizeof(Word) != 8 || sizeof(Target) != 8) return digits > static_cast<Word>(kLimit + negative);
}

// What stands before the point, as a binary integer. False: it does not fit, and the target is as it was.
template <class Target, class Word>
inline bool sqlvi_toInteger(Word word, unsigned scale, bool rounding, Target* target) noexcept {
  const std::uint64_t negative = sqlvi_isNegative(static_cast<std::uint64_t>(word));
  if (std::is_unsigned_v<Target> && negative != 0) return false;
  const Word fromPoint = word >> kSqlvDigitBits * scale;  // the lowest digit is the first behind the point, or the sign
  const Word digits = fromPoint >> kSqlvDigitBits;
  if (sqlvi_passesLimit<Target>(digits, negative)) return false;
  std::uint64_t value = sqlvi_binaryOf<Target>(digits);
  if (rounding && scale > 0 && (static_cast<std::uint64_t>(fromPoint) & 0xFU) >= 5) {
    if (value == kSqlvLargestInteger<Target> + negative) return false;
    ++value;
  }
  *target = static_cast<Target>((value ^ (0 - negative)) + negative);
  return true;
}

// A magnitude with its sign as a packed word. The magnitude is at most kSqlvLargestOf the integer digits.
template <class Word>
inline Word sqlvi_fromMagnitude(std::uint64_t magnitude, std::uint64_t negative, unsigned scale) noexcept {
  Word digits = 0;
  if constexpr (sizeof(Word) == 8) digits = sqlvi_digitsOf16(magnitude);
  if constexpr (sizeof(Word) != 8) digits = sqlvi_digitsOf20(magnitude);
  return digits << kSqlvDigitBits * scale << kSqlvDigitBits | (kSqlvPositive + negative);
}

constexpr std::uint64_t sqlvi_magnitude(std::int64_t value) noexcept {
  const auto bits = static_cast<std::uint64_t>(value);
  return value < 0 ? 0 - bits : bits;
}

}  // namespace vek

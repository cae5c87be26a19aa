// Packed values to and from binary integers.
#include <limits>
#include <type_traits>

#include "values/sqlv_packed.h"

namespace vek {
namespace {

// Digits of a number as a packed word; for limits at compile time.
constexpr SqlvWide packedDigits(std::uint64_t value) noexcept {
  SqlvWide digits = 0;
  for (unsigned shift = 0; value != 0; value /= 10, shift += kSqlvDigitBits)
    digits |= static_cast<SqlvWide>(value % 10) << shift;
  return digits;
}

template <class Target>
constexpr std::uint64_t kLargest = static_cast<std::uint64_t>(std::numeric_limits<Target>::max());

// Binary of digits that are known not to pass the target's limit.
template <class Target>
constexpr std::uint64_t binaryOf(SqlvWide digits) noexcept {
  const auto low = static_cast<std::uint64_t>(digits);
  if constexpr (sizeof(Target) == 2) return sqlvi_binaryOf8(static_cast<std::uint32_t>(low));
  if constexpr (sizeof(Target) == 4) return sqlvi_binaryOf16(low);
  return sqlvi_binaryOf16(low) + sqlvi_binaryOf8(static_cast<std::uint32_t>(digits >> 64U)) * kSqlvTenTo16;
}

enum class Dropped { kCut, kAsSet };

// Whether the first digit behind the point rounds what stands before it away from zero.
inline bool roundsUp(SqlvWide word, unsigned scale) noexcept {
  return scale > 0 && sqlvi_roundingIsOn() && (static_cast<std::uint64_t>(word >> kSqlvDigitBits * scale) & 0xFU) >= 5;
}

template <class Target, Dropped Fraction>
inline SqlzZrc toInteger(const std::uint8_t* packed, SqlvDescriptor descriptor, Target* target) noexcept {
  if (!sqlvi_convertible(descriptor)) return SQLRX_DEC_INVALID;
  const SqlvWide word = sqlvi_load(packed, sqlvPackedBytes(descriptor));
  const std::uint64_t negative = sqlvi_isNegative(static_cast<std::uint64_t>(word));
  if (std::is_unsigned_v<Target> && negative != 0) return SQLRX_DEC_OVERFLOW;
  const SqlvWide digits = word >> kSqlvDigitBits >> kSqlvDigitBits * descriptor.scale;
  constexpr SqlvWide limit = packedDigits(kLargest<Target>);  // ends in 7 where it is signed: one more is a digit more
  if (digits > limit + negative) return SQLRX_DEC_OVERFLOW;
  std::uint64_t value = binaryOf<Target>(digits);
  if (Fraction == Dropped::kAsSet && roundsUp(word, descriptor.scale)) [[unlikely]] {
    if (value == kLargest<Target> + negative) return SQLRX_DEC_OVERFLOW;
    ++value;
  }
  *target = static_cast<Target>((value ^ (0 - negative)) + negative);
  return 0;
}

inline SqlzZrc fromMagnitude(std::uint64_t magnitude, std::uint64_t negative, std::uint8_t* target,
                             SqlvDescriptor descriptor) noexcept {
  if (!sqlvi_convertible(descriptor)) return SQLRX_DEC_INVALID;
  const unsigned scale = descriptor.scale;
  if (magnitude > kSqlvLargestOf[descriptor.precision - scale]) return SQLRX_DEC_OVERFLOW;
  const SqlvWide digits = sqlvi_digitsOf20(magnitude);
  const SqlvWide word = digits << kSqlvDigitBits * scale << kSqlvDigitBits | (kSqlvPositive + negative);
  sqlvi_store(target, sqlvPackedBytes(descriptor), word);
  return 0;
}

inline SqlzZrc fromSigned(std::int64_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  const auto bits = static_cast<std::uint64_t>(value);
  const std::uint64_t negative = bits >> 63U;
  return fromMagnitude((bits ^ (0 - negative)) + negative, negative, target, descriptor);
}

}  // namespace
}  // namespace vek

#define SQLV_TO_INTEGER(name, Target)                                                                    \
  SqlzZrc name(const std::uint8_t* packed, SqlvDescriptor descriptor, Target* target) noexcept {         \
    return vek::toInteger<Target, vek::Dropped::kAsSet>(packed, descriptor, target);                     \
  }                                                                                                      \
  SqlzZrc name##_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor, Target* target) noexcept { \
    return vek::toInteger<Target, vek::Dropped::kCut>(packed, descriptor, target);                       \
  }

SQLV_TO_INTEGER(sqlvpdc2sht, std::int16_t)
SQLV_TO_INTEGER(sqlvpdc2usht, std::uint16_t)
SQLV_TO_INTEGER(sqlvpdc2lng, std::int32_t)
SQLV_TO_INTEGER(sqlvpdc2ulng, std::uint32_t)
SQLV_TO_INTEGER(sqlvpdc2big, std::int64_t)
SQLV_TO_INTEGER(sqlvpdc2ubig, std::uint64_t)

SqlzZrc sqlvsht2dec(std::int16_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return vek::fromSigned(value, target, descriptor);
}

SqlzZrc sqlvint2dec(std::int32_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return vek::fromSigned(value, target, descriptor);
}

SqlzZrc sqlvbig2dec(std::int64_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return vek::fromSigned(value, target, descriptor);
}

SqlzZrc sqlvubig2dec(std::uint64_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return vek::fromMagnitude(value, 0, target, descriptor);
}

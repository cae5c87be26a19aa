// Packed values to and from doubles. Both ways are exact in integers; the one rounding is the last step.
#include <array>
#include <bit>
#include <cmath>
#include <limits>

#include "values/sqlv_packed.h"
#include "values/sqlv_rounding.h"

namespace vek {
namespace {

static_assert(std::numeric_limits<double>::is_iec559);

constexpr unsigned kFractionBits = 52;
constexpr unsigned kExponentSpecial = 0x7FF;  // of infinities and NaN
constexpr int kExponentBias = 1023 + static_cast<int>(kFractionBits);

constexpr auto kFiveTo = [] {
  std::array<SqlvWide, SQLV_PRECISION_MAX + 1> powers = {1};
  for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 5;
  return powers;
}();

// What is exact as a double: integers up to 2^53 and powers of ten up to 10^22.
constexpr SqlvWide kExactInteger = static_cast<SqlvWide>(1) << 53U;
constexpr auto kExactTenTo = [] {
  std::array<double, 23> powers = {1};
  for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}();

constexpr unsigned leadingZeros(SqlvWide value) noexcept {
  const auto upper = static_cast<std::uint64_t>(value >> 64U);
  return static_cast<unsigned>(upper != 0 ? std::countl_zero(upper)
                                          : 64 + std::countl_zero(static_cast<std::uint64_t>(value)));
}

SqlvWide binaryOf32(SqlvWide digits) noexcept {
  return static_cast<SqlvWide>(sqlvi_binaryOf16(static_cast<std::uint64_t>(digits >> 64U))) * kSqlvTenTo16 +
         sqlvi_binaryOf16(static_cast<std::uint64_t>(digits));
}

// magnitude / 10^scale, rounded once. The magnitude is moved up to 128 bits and divided by 5^scale, which has at most
// 72: the quotient has 56 or more, enough for a significand, the bit that decides and one that stands for all others,
// into which the remainder goes. 2^-scale and the move are exact: nothing here is near the smallest normal double.
double quotient(SqlvWide magnitude, unsigned scale) noexcept {
  if (magnitude <= kExactInteger && scale < kExactTenTo.size())
    return static_cast<double>(static_cast<std::uint64_t>(magnitude)) / kExactTenTo[scale];
  if (magnitude == 0) return 0;
  const unsigned moved = leadingZeros(magnitude);
  const SqlvWide dividend = magnitude << moved;
  const SqlvWide whole = dividend / kFiveTo[scale];
  const bool inexact = whole * kFiveTo[scale] != dividend;
  return std::ldexp(static_cast<double>(whole | static_cast<SqlvWide>(inexact)), -static_cast<int>(moved + scale));
}

// A double's magnitude as an integer and what stands behind the point: fraction / 2^bits, below 1.
struct Parts {
  bool negative;
  bool finite;  // and below 2^103
  SqlvWide integer;
  std::uint64_t fraction;
  unsigned bits;
};

Parts partsOf(double value) noexcept {
  const auto image = std::bit_cast<std::uint64_t>(value);
  const auto exponentField = static_cast<unsigned>(image >> kFractionBits & kExponentSpecial);
  std::uint64_t significand = image & ((std::uint64_t{1} << kFractionBits) - 1);
  if (exponentField != 0) significand |= std::uint64_t{1} << kFractionBits;
  const int exponent = (exponentField != 0 ? static_cast<int>(exponentField) : 1) - kExponentBias;
  Parts parts = {image >> 63U != 0, exponent <= 50, 0, 0, 0};
  if (!parts.finite) return parts;
  if (exponent >= 0) {
    parts.integer = static_cast<SqlvWide>(significand) << static_cast<unsigned>(exponent);
    return parts;
  }
  parts.bits = static_cast<unsigned>(-exponent);
  const std::uint64_t integer = parts.bits <= kFractionBits ? significand >> parts.bits : 0;
  parts.integer = integer;
  parts.fraction = parts.bits <= kFractionBits ? significand - (integer << parts.bits) : significand;
  return parts;
}

// fraction / 2^bits in units of 10^-scale: the whole ones, and what is left.
struct Scaled {
  SqlvWide units;
  DfpRest rest;
};

DfpRest restOf(bool halfBit, bool below) noexcept {
  if (halfBit) return below ? DfpRest::AboveHalf : DfpRest::Half;
  return below ? DfpRest::BelowHalf : DfpRest::Zero;
}

// The product has up to 53 + 103 bits: `upper` holds those from 2^64.
Scaled scaled(const Parts& parts, unsigned scale) noexcept {
  const SqlvWide power = kSqlvWideTenTo[scale];
  const SqlvWide low = static_cast<SqlvWide>(parts.fraction) * static_cast<std::uint64_t>(power);
  const SqlvWide upper =
      static_cast<SqlvWide>(parts.fraction) * static_cast<std::uint64_t>(power >> 64U) + (low >> 64U);
  const auto lower = static_cast<std::uint64_t>(low);
  const unsigned bits = parts.bits;
  if (bits == 0) return {0, DfpRest::Zero};
  if (bits <= 64) {
    const SqlvWide units = bits == 64 ? upper : upper << (64 - bits) | lower >> bits;
    const std::uint64_t half = std::uint64_t{1} << (bits - 1);
    return {units, restOf((lower & half) != 0, (lower & (half - 1)) != 0)};
  }
  const unsigned beyond = bits - 64;  // of `upper`, which is below 2^92
  if (beyond > 100) return {0, restOf(false, parts.fraction != 0)};
  const SqlvWide half = static_cast<SqlvWide>(1) << (beyond - 1);
  return {upper >> beyond, restOf((upper & half) != 0, (upper & (half - 1)) != 0 || lower != 0)};
}

SqlzZrc fromDouble(double value, std::uint8_t* target, SqlvDescriptor descriptor, std::uint32_t rounding) noexcept {
  const unsigned scale = descriptor.scale;
  const Parts parts = partsOf(value);
  if (!parts.finite || parts.integer >= kSqlvWideTenTo[descriptor.precision - scale]) return SQLRX_DEC_OVERFLOW;
  const Scaled fraction = scaled(parts, scale);
  SqlvWide digits = sqlvi_digitsOf32(parts.integer) << kSqlvDigitBits * scale | sqlvi_digitsOf32(fraction.units);
  if (dfpRoundsUp(rounding, parts.negative, (static_cast<std::uint64_t>(digits) & 1U) != 0, fraction.rest))
    digits = sqlvi_increment(digits);
  if (digits > kSqlvLargestPackedOf[descriptor.precision]) return SQLRX_DEC_OVERFLOW;
  const auto negative = static_cast<std::uint64_t>(parts.negative);
  sqlvi_store(target, sqlvPackedBytes(descriptor), digits << kSqlvDigitBits | sqlvi_sign(negative, digits));
  return 0;
}

}  // namespace
}  // namespace vek

SqlzZrc sqlvpdc2flt(const std::uint8_t* packed, SqlvDescriptor descriptor, double* target) noexcept {
  using namespace vek;
  if (!sqlvi_convertible(descriptor)) return SQLRX_DEC_INVALID;
  const SqlvWide word = sqlvi_load(packed, sqlvPackedBytes(descriptor));
  const SqlvWide magnitude = binaryOf32(word >> kSqlvDigitBits);
  const double value = quotient(magnitude, descriptor.scale);
  *target = magnitude != 0 && sqlvi_isNegative(static_cast<std::uint64_t>(word)) != 0 ? -value : value;
  return 0;
}

SqlzZrc sqlvflt2dec_trunc(double value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  if (!vek::sqlvi_convertible(descriptor)) return SQLRX_DEC_INVALID;
  return vek::fromDouble(value, target, descriptor, DFPAL_ROUND_DOWN);
}

SqlzZrc sqlvflt2dec(double value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  if (!vek::sqlvi_convertible(descriptor)) return SQLRX_DEC_INVALID;
  return vek::fromDouble(value, target, descriptor, vek::sqlvi_decimalRounding());
}

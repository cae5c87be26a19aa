// Decimal floating point to and from the other width, integers and packed decimal; rounding to integral values.
#include <cstring>
#include <limits>
#include <type_traits>

#include "platform/ossx.h"

namespace vek {
namespace {

// ---- widths -----------------------------------------------------------------------------------------------------

constexpr std::uint32_t kBiasDifference = Decimal64::kLeastExponent - Decimal128::kLeastExponent;

// Numbers that the narrower width holds as they are move without being taken apart: both widths end in the same
// declets.
bool narrowsAsItIs(DfpalDecimal128 value, DfpalDecimal64* out) noexcept {
  constexpr std::uint64_t kCoefficientAndFirstDigit = 7ULL << 58U | ((1ULL << kDfpContinuationShift<Decimal128>)-1);
  const auto firstDigit = static_cast<std::uint32_t>(value.low >> DFP_TRAILING_BITS);
  if ((value.high & kCoefficientAndFirstDigit) != 0 || firstDigit > 9 || (value.high & DFP_SPECIAL) >= 0x18ULL << 58U)
    return false;
  const std::uint32_t biased = dfpFieldsOf<Decimal128>(value.high).biased - kBiasDifference;
  if (biased > static_cast<std::uint32_t>(Decimal64::kMostExponent - Decimal64::kLeastExponent)) return false;
  const std::uint64_t upperWord =
      dfpUpperWordOf<Decimal64>((value.high & DFP_SIGN) != 0, {.biased = biased, .firstDigit = firstDigit});
  *out = dfpAssemble(upperWord, {canonicalDeclets(value.low), 0}, Decimal64{});
  return true;
}

// Numbers of 19 digits or more whose rounded value is in the normal range: the upper 16 digits and the lower 18 are
// worked on apart, in words. The upper ones are completed from the lower ones, of which the rest decides.
bool narrowsInNormalRange(DfpContext& context, DfpalDecimal128 value, DfpalDecimal64* out) noexcept {
  constexpr std::uint64_t kTenTo15 = kDfpTenTo64[15];
  DfpDeclets declets = dfpTrailing(value);
  const DfpFields fields = dfpFieldsOf<Decimal128>(value.high);
  declets.upper |= std::uint64_t{fields.firstDigit} << DFP_TRAILING_BITS;
  if ((value.high & DFP_SPECIAL) == DFP_SPECIAL || declets.upper == 0) return false;
  std::uint64_t kept = dfpBinaryOf6(declets.upper);
  std::uint64_t rest = dfpBinaryOf6(declets.lower);
  std::uint64_t divisor = kDfpTenTo18;
  std::uint32_t exponent = fields.biased + DFP_LOWER_DIGITS - kBiasDifference;  // above its range when it is below 0
  if (kept < kTenTo15) {
    const unsigned missing = Decimal64::kDigits - dfpDigits(kept);
    divisor = kDfpTenTo64[DFP_LOWER_DIGITS - missing];
    const std::uint64_t more = rest / divisor;
    kept = kept * kDfpTenTo64[missing] + more;
    rest -= more * divisor;
    exponent -= missing;
  }
  const bool isNegative = (value.high & DFP_SIGN) != 0;
  const DfpRest compared = dfpCompareToHalf(rest, divisor, false);
  kept += dfpRoundsUp(context.mode, isNegative, (kept & 1U) != 0, compared) ? 1U : 0U;
  if (kept == kTenTo15 * 10) {
    kept = kTenTo15;
    ++exponent;
  }
  if (exponent > static_cast<std::uint32_t>(Decimal64::kMostExponent - Decimal64::kLeastExponent)) return false;
  if (compared != DfpRest::Zero) context.raised |= DFPAL_INEXACT;
  const std::uint64_t digits = dfpDecletsOf18(kept);
  const auto firstDigit = static_cast<std::uint32_t>(digits >> DFP_TRAILING_BITS);
  *out = dfpAssemble(dfpUpperWordOf<Decimal64>(isNegative, {.biased = exponent, .firstDigit = firstDigit}), {digits, 0},
                     Decimal64{});
  return true;
}

// A number of any width, or a NaN or an infinity, in another one.
template <class To, class From>
typename To::Value convert(DfpContext& context, typename From::Value value) noexcept {
  const DfpNumber number = dfpUnpack<From>(value);
  if (number.isNan()) return dfpNanOf<To>(context, number, number);
  if (number.kind == DfpKind::Infinite) return dfpPack<To>(number);
  return dfpFinish<To>(context, number);
}

// What does not narrow as it is, apart from what does, which then needs no stack. (The words are passed one by one: as
// a record they would go through memory.)
[[gnu::noinline]] DfpalDecimal64 narrow(std::uint64_t low, std::uint64_t high) noexcept {
  const DfpalDecimal128 value = {low, high};
  DfpScope context;
  DfpalDecimal64 result;
  if (narrowsInNormalRange(context, value, &result)) return result;
  return convert<Decimal64, Decimal128>(context, value);
}

// ---- integers ---------------------------------------------------------------------------------------------------

template <class Format, class Integer>
typename Format::Value fromInteger(Integer value) noexcept {
  using Unsigned = std::make_unsigned_t<Integer>;
  const bool isNegative = value < 0;
  const auto bits = static_cast<Unsigned>(value);
  const Unsigned magnitude = isNegative ? Unsigned{0} - bits : bits;
  DfpScope context;
  return dfpFinish<Format>(context, {.isNegative = isNegative, .exponent = 0, .coefficient = magnitude});
}

// The last digits of a number dropped and rounded; the exponent is raised by as many.
DfpRest roundAway(DfpNumber& number, unsigned count, std::uint32_t mode) noexcept {
  const DfpDropped dropped = dfpDropDigits(number.coefficient, count);
  number.coefficient = dropped.kept;
  if (dfpRoundsUp(mode, number.isNegative, (dropped.kept & 1U) != 0, dropped.rest)) ++number.coefficient;
  number.exponent += static_cast<std::int32_t>(count);
  return dropped.rest;
}

// The magnitude of a finite number in units of 10^-scale, rounded. False: it is 10^37 or above.
bool magnitudeOf(DfpNumber& number, std::uint32_t mode, unsigned scale) noexcept {
  const std::int32_t shift = number.exponent + static_cast<std::int32_t>(scale);
  if (number.coefficient == 0) return true;
  if (shift < 0) {
    roundAway(number, static_cast<unsigned>(-shift), mode);
    return true;
  }
  const auto zeros = static_cast<unsigned>(shift);
  if (zeros + dfpDigits(number.coefficient) > DFP_WORK_DIGITS) return false;
  number.coefficient *= kDfpTenTo[zeros];
  return true;
}

template <class Integer>
bool integerOf(DfpNumber number, std::uint32_t mode, Integer* out) noexcept {
  if (number.kind != DfpKind::Finite || mode >= DFPAL_ROUND_MODES || !magnitudeOf(number, mode, 0)) return false;
  using Unsigned = std::make_unsigned_t<Integer>;
  const Unsigned largest = std::numeric_limits<Integer>::max();
  DfpWide limit = largest;
  if (number.isNegative) limit = std::is_signed_v<Integer> ? limit + 1 : 0;
  if (number.coefficient > limit) return false;
  const auto magnitude = static_cast<Unsigned>(number.coefficient);
  *out = static_cast<Integer>(number.isNegative ? Unsigned{0} - magnitude : magnitude);
  return true;
}

template <class Format, class Integer>
Integer toInteger(typename Format::Value value, std::uint32_t mode) noexcept {
  DfpScope context(mode);
  Integer result = 0;
  if (!integerOf(dfpUnpack<Format>(value), mode, &result)) context.raised |= DFPAL_INVALID;
  return result;
}

// ---- integral values --------------------------------------------------------------------------------------------

template <class Format>
typename Format::Value integral(DfpContext& context, typename Format::Value value, bool isQuiet) noexcept {
  DfpNumber number = dfpUnpack<Format>(value);
  if (number.isNan()) return dfpNanOf<Format>(context, number, number);
  if (number.kind == DfpKind::Infinite || number.exponent >= 0) return dfpPack<Format>(number);
  const DfpRest rest = roundAway(number, static_cast<unsigned>(-number.exponent), context.mode);
  if (!isQuiet && rest != DfpRest::Zero) context.raised |= DFPAL_INEXACT;
  return dfpPack<Format>(number);
}

template <class Format>
typename Format::Value integralInMode(typename Format::Value value, std::uint32_t mode) noexcept {
  DfpScope context(mode);
  return mode < DFPAL_ROUND_MODES ? integral<Format>(context, value, true) : dfpInvalid<Format>(context);
}

// ---- packed decimal ---------------------------------------------------------------------------------------------

constexpr unsigned kGroupBits = 12;  // three digits
constexpr std::uint32_t kNegativeSigns = 0x2800;

bool isConvertible(SqlvDescriptor descriptor) noexcept {
  return descriptor.precision - 1U < SQLV_PRECISION_MAX && descriptor.scale <= descriptor.precision;
}

// The digits and the sign of a packed value, as one number.
DfpWide loadPacked(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  DfpWide digits = 0;
  for (std::size_t i = 0; i < sqlvPackedBytes(descriptor); ++i) digits = digits << 8U | packed[i];
  return digits;
}

// Digits go group by group into declets; neither they nor the exponent need to be computed with.
DfpalDecimal128 fromPacked(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  constexpr std::uint64_t kExponentZero = 0x22080000U;  // of the upper half of the upper word
  DfpWide digits = loadPacked(packed, descriptor);
  const auto sign = static_cast<unsigned>(digits & 0xFU);
  digits >>= 4U;
  const bool isNegative = (kNegativeSigns >> sign & 1U) != 0 && digits != 0;
  DfpWide coefficient = 0;
  for (unsigned shift = 0; digits != 0; shift += DECLET_BITS, digits >>= kGroupBits)
    coefficient |= static_cast<DfpWide>(BCD2DPD[static_cast<std::size_t>(digits & 0xFFFU)]) << shift;
  const std::uint64_t top = kExponentZero - (static_cast<std::uint64_t>(descriptor.scale) << 14U);
  return {static_cast<std::uint64_t>(coefficient),
          (isNegative ? DFP_SIGN : 0) | top << 32U | static_cast<std::uint64_t>(coefficient >> 64U)};
}

void storePacked(bool isNegative, DfpWide magnitude, std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  const DfpDeclets declets = dfpTrailing(dfpPack<Decimal128>({.exponent = 0, .coefficient = magnitude}));
  DfpWide digits = 0;
  DfpWide left = static_cast<DfpWide>(declets.upper) << DFP_LOWER_BITS | declets.lower;
  for (unsigned shift = 4; left != 0; shift += kGroupBits, left >>= DECLET_BITS)
    digits |= static_cast<DfpWide>(DPD2BCD[static_cast<std::size_t>(left & (DECLETS - 1))]) << shift;
  digits |= isNegative && digits != 0 ? 0xDU : 0xCU;
  for (std::size_t i = sqlvPackedBytes(descriptor); i-- > 0; digits >>= 8U)
    packed[i] = static_cast<std::uint8_t>(digits);
}

template <class Format>
bool toPacked(typename Format::Value value, std::uint32_t mode, std::uint8_t* packed,
              SqlvDescriptor descriptor) noexcept {
  DfpScope context(mode);
  DfpNumber number = dfpUnpack<Format>(value);
  const bool fits = number.kind == DfpKind::Finite && mode < DFPAL_ROUND_MODES && isConvertible(descriptor) &&
                    magnitudeOf(number, mode, descriptor.scale) && number.coefficient < kDfpTenTo[descriptor.precision];
  if (fits)
    storePacked(number.isNegative, number.coefficient, packed, descriptor);
  else
    context.raised |= DFPAL_INVALID;
  return fits;
}

}  // namespace
}  // namespace vek

// ---- exported ---------------------------------------------------------------------------------------------------

using vek::Decimal128;
using vek::Decimal64;
using vek::DfpScope;

DfpalDecimal64 dfpal_decimal128ToDecimal64(DfpalDecimal128 value) noexcept {
  DfpalDecimal64 result;
  if (vek::narrowsAsItIs(value, &result)) return result;
  return vek::narrow(value.low, value.high);
}

DfpalDecimal128 dfpal_decimal64ToDecimal128(DfpalDecimal64 value) noexcept {
  DfpScope context;
  return vek::convert<Decimal128, Decimal64>(context, value);
}

DfpalDecimal64 dfpal_decimal64FromInt32(std::int32_t value) noexcept { return vek::fromInteger<Decimal64>(value); }
DfpalDecimal64 dfpal_decimal64FromUint32(std::uint32_t value) noexcept { return vek::fromInteger<Decimal64>(value); }
DfpalDecimal64 dfpal_decimal64FromInt64(std::int64_t value) noexcept { return vek::fromInteger<Decimal64>(value); }
DfpalDecimal64 dfpal_decimal64FromUint64(std::uint64_t value) noexcept { return vek::fromInteger<Decimal64>(value); }
DfpalDecimal128 dfpal_decimal128FromInt32(std::int32_t value) noexcept { return vek::fromInteger<Decimal128>(value); }
DfpalDecimal128 dfpal_decimal128FromUint32(std::uint32_t value) noexcept { return vek::fromInteger<Decimal128>(value); }
DfpalDecimal128 dfpal_decimal128FromInt64(std::int64_t value) noexcept { return vek::fromInteger<Decimal128>(value); }
DfpalDecimal128 dfpal_decimal128FromUint64(std::uint64_t value) noexcept { return vek::fromInteger<Decimal128>(value); }

std::int32_t dfpal_decimal64ToInt32(DfpalDecimal64 value, std::uint32_t mode) noexcept {
  return vek::toInteger<Decimal64, std::int32_t>(value, mode);
}
std::uint32_t dfpal_decimal64ToUint32(DfpalDecimal64 value, std::uint32_t mode) noexcept {
  return vek::toInteger<Decimal64, std::uint32_t>(value, mode);
}
std::int64_t dfpal_decimal64ToInt64(DfpalDecimal64 value, std::uint32_t mode) noexcept {
  return vek::toInteger<Decimal64, std::int64_t>(value, mode);
}
std::uint64_t dfpal_decimal64ToUint64(DfpalDecimal64 value, std::uint32_t mode) noexcept {
  return vek::toInteger<Decimal64, std::uint64_t>(value, mode);
}
std::int32_t dfpal_decimal128ToInt32(DfpalDecimal128 value, std::uint32_t mode) noexcept {
  return vek::toInteger<Decimal128, std::int32_t>(value, mode);
}
std::uint32_t dfpal_decimal128ToUint32(DfpalDecimal128 value, std::uint32_t mode) noexcept {
  return vek::toInteger<Decimal128, std::uint32_t>(value, mode);
}
std::int64_t dfpal_decimal128ToInt64(DfpalDecimal128 value, std::uint32_t mode) noexcept {
  return vek::toInteger<Decimal128, std::int64_t>(value, mode);
}
std::uint64_t dfpal_decimal128ToUint64(DfpalDecimal128 value, std::uint32_t mode) noexcept {
  return vek::toInteger<Decimal128, std::uint64_t>(value, mode);
}

DfpalDecimal64 dfpal_decimal64RoundToIntegral(DfpalDecimal64 value, std::uint32_t mode) noexcept {
  return vek::integralInMode<Decimal64>(value, mode);
}
DfpalDecimal128 dfpal_decimal128RoundToIntegral(DfpalDecimal128 value, std::uint32_t mode) noexcept {
  return vek::integralInMode<Decimal128>(value, mode);
}
DfpalDecimal64 dfpal_decimal64RoundToIntegralExact(DfpalDecimal64 value) noexcept {
  DfpScope context;
  return vek::integral<Decimal64>(context, value, false);
}
DfpalDecimal128 dfpal_decimal128RoundToIntegralExact(DfpalDecimal128 value) noexcept {
  DfpScope context;
  return vek::integral<Decimal128>(context, value, false);
}

DfpalDecimal128 dfpal_decimal128FromPacked(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  if (vek::isConvertible(descriptor)) return vek::fromPacked(packed, descriptor);
  DfpScope context;
  return vek::dfpInvalid<Decimal128>(context);
}
DfpalDecimal64 dfpal_decimal64FromPacked(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  return dfpal_decimal128ToDecimal64(dfpal_decimal128FromPacked(packed, descriptor));
}
bool dfpal_decimal64ToPacked(DfpalDecimal64 value, std::uint32_t mode, std::uint8_t* packed,
                             SqlvDescriptor descriptor) noexcept {
  return vek::toPacked<Decimal64>(value, mode, packed, descriptor);
}
bool dfpal_decimal128ToPacked(DfpalDecimal128 value, std::uint32_t mode, std::uint8_t* packed,
                              SqlvDescriptor descriptor) noexcept {
  return vek::toPacked<Decimal128>(value, mode, packed, descriptor);
}

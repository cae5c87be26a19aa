// Taking decimal floating-point values apart and putting them together; rounding.
#include "platform/ossx.h"

namespace vek {
namespace {

// ---- rounding ---------------------------------------------------------------------------------------------------

DfpRest withMore(DfpRest rest, bool isMore) noexcept {
  if (!isMore || rest == DfpRest::BelowHalf || rest == DfpRest::AboveHalf) return rest;
  return rest == DfpRest::Zero ? DfpRest::BelowHalf : DfpRest::AboveHalf;
}

// ---- coefficients -----------------------------------------------------------------------------------------------

template <class Format>
DfpWide coefficientOf(const DfpDeclets& declets) noexcept {
  const std::uint64_t upper = dfpBinaryOf6(declets.upper);
  if constexpr (Format::kDigits > DFP_LOWER_DIGITS)
    return static_cast<DfpWide>(upper) * kDfpTenTo18 + dfpBinaryOf6(declets.lower);
  return upper;
}

template <class Format>
DfpDeclets decletsOf(DfpWide coefficient) noexcept {
  if constexpr (Format::kDigits > DFP_LOWER_DIGITS) {
    const DfpSplit parts = dfpSplit18(coefficient);
    return {dfpDecletsOf18(parts.upper), dfpDecletsOf18(parts.lower)};
  }
  return {dfpDecletsOf18(static_cast<std::uint64_t>(coefficient)), 0};
}

template <class Format>
typename Format::Value packSpecial(const DfpNumber& number) noexcept {
  std::uint64_t top = number.isNegative ? DFP_SIGN : 0;
  if (number.kind == DfpKind::Infinite) return dfpAssemble(top | DFP_SPECIAL, {0, 0}, Format{});
  top |= number.kind == DfpKind::Signalling ? DFP_SIGNALLING : DFP_NAN;
  return dfpAssemble(top, decletsOf<Format>(number.coefficient), Format{});
}

template <class Format>
typename Format::Value overflow(DfpContext& context, bool isNegative) noexcept {
  context.raised |= DFPAL_OVERFLOW | DFPAL_INEXACT;
  if (dfpRoundsUp(context.mode, isNegative, true, DfpRest::AboveHalf))
    return packSpecial<Format>({.kind = DfpKind::Infinite, .isNegative = isNegative});
  return dfpPack<Format>(
      {.isNegative = isNegative, .exponent = Format::kMostExponent, .coefficient = kDfpTenTo[Format::kDigits] - 1});
}

// A number whose coefficient has no more digits than the width, with an exponent not below its least: one above its
// most is brought down by zeros at the end of the coefficient, as long as there is room for them.
template <class Format>
typename Format::Value packInRange(DfpContext& context, DfpNumber number) noexcept {
  if (number.exponent > Format::kMostExponent) {
    if (number.coefficient != 0) {
      const auto zeros = static_cast<std::uint32_t>(number.exponent - Format::kMostExponent);
      if (zeros + dfpDigits(number.coefficient) > Format::kDigits) return overflow<Format>(context, number.isNegative);
      number.coefficient *= kDfpTenTo[zeros];
    }
    number.exponent = Format::kMostExponent;
  }
  return dfpPack<Format>(number);
}

}  // namespace

DfpDropped dfpDropDigits(DfpWide number, unsigned count) noexcept {
  if (count == 0) return {number, DfpRest::Zero};
  if (count > DFP_WORK_DIGITS) return {0, number == 0 ? DfpRest::Zero : DfpRest::BelowHalf};
  const DfpSplit parts = dfpSplit18(number);
  if (count <= DFP_LOWER_DIGITS) {
    const std::uint64_t divisor = kDfpTenTo64[count];
    const std::uint64_t quotient = parts.lower / divisor;
    return {static_cast<DfpWide>(parts.upper) * kDfpTenTo64[DFP_LOWER_DIGITS - count] + quotient,
            dfpCompareToHalf(parts.lower - quotient * divisor, divisor, false)};
  }
  const std::uint64_t divisor = kDfpTenTo64[count - DFP_LOWER_DIGITS];
  const std::uint64_t quotient = parts.upper / divisor;
  return {quotient, dfpCompareToHalf(parts.upper - quotient * divisor, divisor, parts.lower != 0)};
}

template <class Format>
DfpNumber dfpUnpack(typename Format::Value value) noexcept {
  const std::uint64_t upperWord = dfpUpperWord(value);
  DfpDeclets declets = dfpTrailing(value);
  DfpNumber number;
  number.isNegative = (upperWord & DFP_SIGN) != 0;
  if ((upperWord & DFP_SPECIAL) == DFP_SPECIAL) [[unlikely]] {
    number.kind = (upperWord & DFP_NAN) != DFP_NAN ? DfpKind::Infinite
                  : dfpIsSignalling(value)         ? DfpKind::Signalling
                                                   : DfpKind::Quiet;
    if (number.isNan()) number.coefficient = coefficientOf<Format>(declets);
    return number;
  }
  const DfpFields fields = dfpFieldsOf<Format>(upperWord);
  declets.upper |= std::uint64_t{fields.firstDigit} << DFP_TRAILING_BITS;
  number.exponent = static_cast<std::int32_t>(fields.biased) + Format::kLeastExponent;
  number.coefficient = coefficientOf<Format>(declets);
  return number;
}

template <class Format>
typename Format::Value dfpPack(const DfpNumber& number) noexcept {
  if (number.kind != DfpKind::Finite) [[unlikely]]
    return packSpecial<Format>(number);
  const DfpDeclets declets = decletsOf<Format>(number.coefficient);
  const DfpFields fields = {.biased = static_cast<std::uint32_t>(number.exponent - Format::kLeastExponent),
                            .firstDigit = static_cast<std::uint32_t>(declets.upper >> DFP_TRAILING_BITS)};
  return dfpAssemble(dfpUpperWordOf<Format>(number.isNegative, fields), declets, Format{});
}

template <class Format>
typename Format::Value dfpFinish(DfpContext& context, const DfpNumber& number, bool isMore) noexcept {
  const auto digits = static_cast<std::int32_t>(dfpDigits(number.coefficient));
  const bool isTiny =
      number.exponent + digits <= Format::kLeastExponent + static_cast<std::int32_t>(Format::kDigits) - 1;
  std::int32_t drop = digits - static_cast<std::int32_t>(Format::kDigits);
  if (const std::int32_t below = Format::kLeastExponent - number.exponent; drop < below) drop = below;
  if (drop <= 0) return packInRange<Format>(context, number);

  const DfpDropped dropped = dfpDropDigits(number.coefficient, static_cast<unsigned>(drop));
  const DfpRest rest = withMore(dropped.rest, isMore);
  DfpNumber result = {.isNegative = number.isNegative, .exponent = number.exponent + drop, .coefficient = dropped.kept};
  if (dfpRoundsUp(context.mode, number.isNegative, (dropped.kept & 1U) != 0, rest)) ++result.coefficient;
  if (result.coefficient == kDfpTenTo[Format::kDigits]) {
    result.coefficient = kDfpTenTo[Format::kDigits - 1];
    ++result.exponent;
  }
  if (rest != DfpRest::Zero) context.raised |= isTiny ? DFPAL_UNDERFLOW | DFPAL_INEXACT : DFPAL_INEXACT;
  return packInRange<Format>(context, result);
}

template <class Format>
typename Format::Value dfpNanOf(DfpContext& context, const DfpNumber& left, const DfpNumber& right) noexcept {
  if (left.kind == DfpKind::Signalling || right.kind == DfpKind::Signalling) context.raised |= DFPAL_INVALID;
  const bool takesLeft =
      left.kind == DfpKind::Signalling || (left.kind == DfpKind::Quiet && right.kind != DfpKind::Signalling);
  DfpNumber result = takesLeft ? left : right;
  result.kind = DfpKind::Quiet;
  if (const DfpWide limit = kDfpTenTo[Format::kDigits - 1]; result.coefficient >= limit) result.coefficient %= limit;
  return packSpecial<Format>(result);
}

template <class Format>
typename Format::Value dfpInvalid(DfpContext& context) noexcept {
  context.raised |= DFPAL_INVALID;
  return packSpecial<Format>({.kind = DfpKind::Quiet});
}

#define DFP_INSTANCES(Format)                                                                        \
  template DfpNumber dfpUnpack<Format>(Format::Value) noexcept;                                      \
  template Format::Value dfpPack<Format>(const DfpNumber&) noexcept;                                 \
  template Format::Value dfpFinish<Format>(DfpContext&, const DfpNumber&, bool) noexcept;            \
  template Format::Value dfpNanOf<Format>(DfpContext&, const DfpNumber&, const DfpNumber&) noexcept; \
  template Format::Value dfpInvalid<Format>(DfpContext&) noexcept;
DFP_INSTANCES(Decimal64)
DFP_INSTANCES(Decimal128)
#undef DFP_INSTANCES

}  // namespace vek

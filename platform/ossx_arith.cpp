// Decimal floating-point arithmetic and comparison.
//
// Exact results are computed where they fit 37 digits. A longer one is computed to 35 digits or more with the fact that
// something follows: enough to round to 34, since the last of them and that fact tell how the rest compares to a half.
#include <algorithm>

#include "platform/ossx.h"

namespace vek {
namespace {

// ---- addition ---------------------------------------------------------------------------------------------------

// A zero added to a number changes the exponent only, as far down as the digits of the width allow.
template <class Format>
typename Format::Value addZero(DfpNumber number, std::int32_t zeroExponent) noexcept {
  const std::int32_t lower = number.exponent - zeroExponent;
  if (lower > 0) {
    const unsigned room = Format::kDigits - dfpDigits(number.coefficient);
    const unsigned zeros = std::min(room, static_cast<unsigned>(lower));
    number.coefficient *= kDfpTenTo[zeros];
    number.exponent -= static_cast<std::int32_t>(zeros);
  }
  return dfpPack<Format>(number);
}

// Both zeros.
template <class Format>
typename Format::Value addZeros(DfpContext& context, const DfpNumber& left, const DfpNumber& right) noexcept {
  const bool isNegative = left.isNegative == right.isNegative ? left.isNegative : context.mode == DFPAL_ROUND_FLOOR;
  return dfpPack<Format>({.isNegative = isNegative, .exponent = std::min(left.exponent, right.exponent)});
}

// Neither is zero, and the exponent of `large` is not below that of `small`.
template <class Format>
typename Format::Value addFinite(DfpContext& context, const DfpNumber& large, const DfpNumber& small) noexcept {
  constexpr unsigned kAligned = DFP_WORK_DIGITS - 1;
  const auto distance = static_cast<unsigned>(large.exponent - small.exponent);
  const unsigned zeros = std::min(distance, kAligned - dfpDigits(large.coefficient));
  const DfpWide upper = large.coefficient * kDfpTenTo[zeros];
  const DfpDropped lower = dfpDropDigits(small.coefficient, distance - zeros);
  // What was dropped of the lower one lies beyond the 35th digit of the result: `upper` has 36.
  const bool isMore = lower.rest != DfpRest::Zero;
  DfpNumber sum = {.isNegative = large.isNegative, .exponent = large.exponent - static_cast<std::int32_t>(zeros)};
  if (large.isNegative == small.isNegative) {
    sum.coefficient = upper + lower.kept;
  } else if (upper == lower.kept) {  // and nothing was dropped
    sum.isNegative = context.mode == DFPAL_ROUND_FLOOR;
  } else if (upper > lower.kept) {
    sum.coefficient = upper - lower.kept - (isMore ? 1 : 0);
  } else {
    sum.isNegative = small.isNegative;
    sum.coefficient = lower.kept - upper;
  }
  return dfpFinish<Format>(context, sum, isMore);
}

template <class Format>
typename Format::Value add(DfpContext& context, const DfpNumber& left, const DfpNumber& right) noexcept {
  if (left.isNan() || right.isNan()) return dfpNanOf<Format>(context, left, right);
  if (left.kind == DfpKind::Infinite || right.kind == DfpKind::Infinite) {
    if (left.kind == right.kind && left.isNegative != right.isNegative) return dfpInvalid<Format>(context);
    return dfpPack<Format>(left.kind == DfpKind::Infinite ? left : right);
  }
  if (left.isZero())
    return right.isZero() ? addZeros<Format>(context, left, right) : addZero<Format>(right, left.exponent);
  if (right.isZero()) return addZero<Format>(left, right.exponent);
  return left.exponent >= right.exponent ? addFinite<Format>(context, left, right)
                                         : addFinite<Format>(context, right, left);
}

// A NaN keeps its sign.
template <class Format>
typename Format::Value subtract(DfpContext& context, const DfpNumber& left, DfpNumber right) noexcept {
  if (!right.isNan()) right.isNegative = !right.isNegative;
  return add<Format>(context, left, right);
}

// ---- multiplication ---------------------------------------------------------------------------------------------

// The product of two coefficients of up to 34 digits: exactly when it has up to 36, else its first 37 and whether more
// follow. The exponent is raised by the digits that do.
bool multiplyWide(DfpNumber& product, DfpWide left, DfpWide right) noexcept {
  constexpr unsigned kTwice = 2 * DFP_LOWER_DIGITS;
  const DfpSplit l = dfpSplit18(left);
  const DfpSplit r = dfpSplit18(right);
  const DfpSplit lowest = dfpSplit18(static_cast<DfpWide>(l.lower) * r.lower);
  const DfpSplit middle =
      dfpSplit18(static_cast<DfpWide>(l.upper) * r.lower + static_cast<DfpWide>(l.lower) * r.upper + lowest.upper);
  const DfpWide top = static_cast<DfpWide>(l.upper) * r.upper + middle.upper;
  const DfpWide below = static_cast<DfpWide>(middle.lower) * kDfpTenTo18 + lowest.lower;
  if (top == 0) {
    product.coefficient = below;
    return false;
  }
  const unsigned room = std::min(DFP_WORK_DIGITS - dfpDigits(top), kTwice);
  const DfpDropped taken = dfpDropDigits(below, kTwice - room);
  product.coefficient = top * kDfpTenTo[room] + taken.kept;
  product.exponent += static_cast<std::int32_t>(kTwice - room);
  return taken.rest != DfpRest::Zero;
}

template <class Format>
typename Format::Value multiply(DfpContext& context, const DfpNumber& left, const DfpNumber& right) noexcept {
  if (left.isNan() || right.isNan()) return dfpNanOf<Format>(context, left, right);
  DfpNumber product = {.isNegative = left.isNegative != right.isNegative};
  if (left.kind == DfpKind::Infinite || right.kind == DfpKind::Infinite) {
    if (left.isZero() || right.isZero()) return dfpInvalid<Format>(context);
    product.kind = DfpKind::Infinite;
    return dfpPack<Format>(product);
  }
  product.exponent = left.exponent + right.exponent;
  const bool isMore = multiplyWide(product, left.coefficient, right.coefficient);
  return dfpFinish<Format>(context, product, isMore);
}

// ---- division ---------------------------------------------------------------------------------------------------

// Takes zeros from the end of a quotient that is exact, up to the exponent that is preferred.
void stripZeros(DfpNumber& quotient, std::int32_t preferred) noexcept {
  for (unsigned step = DFP_LOWER_DIGITS; step != 0; step = (step + 1) / 2 == step ? 0 : (step + 1) / 2) {
    while (quotient.exponent + static_cast<std::int32_t>(step) <= preferred) {
      const DfpDropped shorter = dfpDropDigits(quotient.coefficient, step);
      if (shorter.rest != DfpRest::Zero) break;
      quotient.coefficient = shorter.kept;
      quotient.exponent += static_cast<std::int32_t>(step);
    }
  }
}

// The quotient of two finite numbers, neither of them zero: four digits at a time, until it is exact or has one digit
// more than the width. A remainder is below 10^34, so that it can be carried on without leaving 128 bits.
template <class Format>
typename Format::Value divideFinite(DfpContext& context, const DfpNumber& left, const DfpNumber& right,
                                    DfpNumber quotient) noexcept {
  constexpr unsigned kStep = 4;
  const std::int32_t preferred = quotient.exponent;
  const DfpWide divisor = right.coefficient;
  quotient.coefficient = left.coefficient / divisor;
  DfpWide remainder = left.coefficient - quotient.coefficient * divisor;
  for (unsigned digits = dfpDigits(quotient.coefficient); remainder != 0 && digits <= Format::kDigits;
       digits = dfpDigits(quotient.coefficient)) {
    const unsigned step = std::min(kStep, Format::kDigits + 1 - digits);
    remainder *= kDfpTenTo[step];
    const DfpWide next = remainder / divisor;
    remainder -= next * divisor;
    quotient.coefficient = quotient.coefficient * kDfpTenTo[step] + next;
    quotient.exponent -= static_cast<std::int32_t>(step);
  }
  if (remainder == 0) stripZeros(quotient, preferred);
  return dfpFinish<Format>(context, quotient, remainder != 0);
}

template <class Format>
typename Format::Value divide(DfpContext& context, const DfpNumber& left, const DfpNumber& right) noexcept {
  if (left.isNan() || right.isNan()) return dfpNanOf<Format>(context, left, right);
  DfpNumber quotient = {.isNegative = left.isNegative != right.isNegative};
  if (left.kind == DfpKind::Infinite || right.isZero()) {
    if (left.kind == right.kind && (left.kind == DfpKind::Infinite || left.isZero()))
      return dfpInvalid<Format>(context);
    if (left.kind != DfpKind::Infinite) context.raised |= DFPAL_DIVISION_BY_ZERO;
    quotient.kind = DfpKind::Infinite;
    return dfpPack<Format>(quotient);
  }
  if (right.kind == DfpKind::Infinite) {
    quotient.exponent = Format::kLeastExponent;
    return dfpPack<Format>(quotient);
  }
  quotient.exponent = left.exponent - right.exponent;
  if (left.isZero()) return dfpFinish<Format>(context, quotient);
  return divideFinite<Format>(context, left, right, quotient);
}

// ---- quantize ---------------------------------------------------------------------------------------------------

template <class Format>
typename Format::Value quantize(DfpContext& context, const DfpNumber& value, const DfpNumber& pattern) noexcept {
  if (value.isNan() || pattern.isNan()) return dfpNanOf<Format>(context, value, pattern);
  if (value.kind == DfpKind::Infinite || pattern.kind == DfpKind::Infinite)
    return value.kind == pattern.kind ? dfpPack<Format>(value) : dfpInvalid<Format>(context);
  DfpNumber result = {.isNegative = value.isNegative, .exponent = pattern.exponent, .coefficient = value.coefficient};
  const std::int32_t shift = value.exponent - pattern.exponent;
  if (shift >= 0 && value.coefficient != 0) {
    if (static_cast<unsigned>(shift) + dfpDigits(value.coefficient) > Format::kDigits)
      return dfpInvalid<Format>(context);
    result.coefficient *= kDfpTenTo[static_cast<unsigned>(shift)];
  } else if (shift < 0) {
    const DfpDropped dropped = dfpDropDigits(value.coefficient, static_cast<unsigned>(-shift));
    const bool isOdd = (dropped.kept & 1U) != 0;
    result.coefficient = dropped.kept + (dfpRoundsUp(context.mode, value.isNegative, isOdd, dropped.rest) ? 1 : 0);
    if (dropped.rest != DfpRest::Zero) context.raised |= DFPAL_INEXACT;
  }
  return dfpPack<Format>(result);
}

// ---- comparison -------------------------------------------------------------------------------------------------

// Magnitudes of finite numbers: by the place of the first digit, then digit by digit.
std::int32_t compareMagnitudes(const DfpNumber& left, const DfpNumber& right) noexcept {
  if (left.isZero() || right.isZero()) return (left.isZero() ? 0 : 1) - (right.isZero() ? 0 : 1);
  const auto place = [](const DfpNumber& number) {
    return number.exponent + static_cast<std::int32_t>(dfpDigits(number.coefficient));
  };
  if (place(left) != place(right)) return place(left) < place(right) ? DFPAL_LESS : DFPAL_GREATER;
  // The digits of both begin at one place, so that the zeros that the shorter one lacks are fewer than 34.
  const auto aligned = [](const DfpNumber& number, const DfpNumber& other) {
    return number.exponent <= other.exponent
               ? number.coefficient
               : number.coefficient * kDfpTenTo[static_cast<unsigned>(number.exponent - other.exponent)];
  };
  const DfpWide l = aligned(left, right);
  const DfpWide r = aligned(right, left);
  return l == r ? DFPAL_EQUAL : l < r ? DFPAL_LESS : DFPAL_GREATER;
}

std::int32_t compareNumbers(const DfpNumber& left, const DfpNumber& right) noexcept {
  const bool isLeftInfinite = left.kind == DfpKind::Infinite;
  if (left.isZero() && right.isZero()) return DFPAL_EQUAL;
  if (left.isNegative != right.isNegative) return left.isNegative ? DFPAL_LESS : DFPAL_GREATER;
  std::int32_t result = DFPAL_EQUAL;
  if (left.kind != right.kind)
    result = isLeftInfinite ? DFPAL_GREATER : DFPAL_LESS;
  else if (!isLeftInfinite)
    result = compareMagnitudes(left, right);
  return left.isNegative ? -result : result;
}

template <class Format>
std::int32_t compare(typename Format::Value left, typename Format::Value right, bool everyNanIsInvalid) noexcept {
  DfpScope context;
  const DfpNumber l = dfpUnpack<Format>(left);
  const DfpNumber r = dfpUnpack<Format>(right);
  if (!l.isNan() && !r.isNan()) return compareNumbers(l, r);
  if (everyNanIsInvalid || l.kind == DfpKind::Signalling || r.kind == DfpKind::Signalling)
    context.raised |= DFPAL_INVALID;
  return DFPAL_UNORDERED;
}

// An operation on two values under the thread's state.
template <class Format, auto Operation>
typename Format::Value onTwo(typename Format::Value left, typename Format::Value right) noexcept {
  DfpScope context;
  return Operation(context, dfpUnpack<Format>(left), dfpUnpack<Format>(right));
}

}  // namespace
}  // namespace vek

// ---- exported ---------------------------------------------------------------------------------------------------

using vek::Decimal128;
using vek::Decimal64;

std::int32_t dfpal_decimal64Compare(DfpalDecimal64 left, DfpalDecimal64 right) noexcept {
  return vek::compare<Decimal64>(left, right, false);
}
std::int32_t dfpal_decimal128Compare(DfpalDecimal128 left, DfpalDecimal128 right) noexcept {
  return vek::compare<Decimal128>(left, right, false);
}
std::int32_t dfpal_decimal64CompareSignal(DfpalDecimal64 left, DfpalDecimal64 right) noexcept {
  return vek::compare<Decimal64>(left, right, true);
}
std::int32_t dfpal_decimal128CompareSignal(DfpalDecimal128 left, DfpalDecimal128 right) noexcept {
  return vek::compare<Decimal128>(left, right, true);
}

DfpalDecimal64 dfpal_decimal64Add(DfpalDecimal64 left, DfpalDecimal64 right) noexcept {
  return vek::onTwo<Decimal64, vek::add<Decimal64>>(left, right);
}
DfpalDecimal128 dfpal_decimal128Add(DfpalDecimal128 left, DfpalDecimal128 right) noexcept {
  return vek::onTwo<Decimal128, vek::add<Decimal128>>(left, right);
}
DfpalDecimal64 dfpal_decimal64Subtract(DfpalDecimal64 left, DfpalDecimal64 right) noexcept {
  return vek::onTwo<Decimal64, vek::subtract<Decimal64>>(left, right);
}
DfpalDecimal128 dfpal_decimal128Subtract(DfpalDecimal128 left, DfpalDecimal128 right) noexcept {
  return vek::onTwo<Decimal128, vek::subtract<Decimal128>>(left, right);
}
DfpalDecimal64 dfpal_decimal64Multiply(DfpalDecimal64 left, DfpalDecimal64 right) noexcept {
  return vek::onTwo<Decimal64, vek::multiply<Decimal64>>(left, right);
}
DfpalDecimal128 dfpal_decimal128Multiply(DfpalDecimal128 left, DfpalDecimal128 right) noexcept {
  return vek::onTwo<Decimal128, vek::multiply<Decimal128>>(left, right);
}
DfpalDecimal64 dfpal_decimal64Divide(DfpalDecimal64 left, DfpalDecimal64 right) noexcept {
  return vek::onTwo<Decimal64, vek::divide<Decimal64>>(left, right);
}
DfpalDecimal128 dfpal_decimal128Divide(DfpalDecimal128 left, DfpalDecimal128 right) noexcept {
  return vek::onTwo<Decimal128, vek::divide<Decimal128>>(left, right);
}
DfpalDecimal64 dfpal_decimal64Quantize(DfpalDecimal64 value, DfpalDecimal64 pattern) noexcept {
  return vek::onTwo<Decimal64, vek::quantize<Decimal64>>(value, pattern);
}
DfpalDecimal128 dfpal_decimal128Quantize(DfpalDecimal128 value, DfpalDecimal128 pattern) noexcept {
  return vek::onTwo<Decimal128, vek::quantize<Decimal128>>(value, pattern);
}

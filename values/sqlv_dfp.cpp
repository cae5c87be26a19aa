// DECFLOAT values to the other width, to integers and to packed decimal.
#include "values/sqlv_dfp.h"

#include <cstring>
#include <limits>

#include "platform/ossx.h"
#include "values/sqlv_packed.h"
#include "values/sqlv_rounding.h"

namespace vek {

bool sqlvi_dfpIsTrapped(std::uint32_t raised) noexcept {
  if (raised == 0) [[likely]]
    return false;
  DfpalControlFlags control;
  dfpalGetControlFlags(&control);
  return (raised & control.trapped) != 0;
}

SqlvDfpOutcome sqlvi_dfpOutcome(std::uint32_t raised) noexcept {
  DfpalControlFlags control;
  dfpalGetControlFlags(&control);
  if ((raised & control.trapped) == 0) return {0, true};
  if ((raised & control.firstWarnings) != 0) return {SQLRX_DFP_RANGE, true};
  if ((raised & control.secondWarnings) != 0) return {SQLRX_DFP_INEXACT, true};
  if ((raised & control.tolerated) == 0) return {SQLRX_DFP_INVALID, false};
  return {0, true};
}

namespace {

DfpalDecimal64 inOtherWidth(DfpalDecimal128 value) noexcept { return dfpal_decimal128ToDecimal64(value); }
DfpalDecimal128 inOtherWidth(DfpalDecimal64 value) noexcept { return dfpal_decimal64ToDecimal128(value); }

// A signalling NaN of the same sign, without payload.
DfpalDecimal64 emptied(DfpalDecimal128 value) noexcept { return {value.high & (DFP_SIGN | DFP_SIGNALLING)}; }
DfpalDecimal128 emptied(DfpalDecimal64 value) noexcept { return {0, value.word & (DFP_SIGN | DFP_SIGNALLING)}; }

DfpalDecimal64 integral(DfpalDecimal64 value, std::uint32_t mode) noexcept {
  return dfpal_decimal64RoundToIntegral(value, mode);
}
DfpalDecimal128 integral(DfpalDecimal128 value, std::uint32_t mode) noexcept {
  return dfpal_decimal128RoundToIntegral(value, mode);
}
std::int32_t toInt32(DfpalDecimal64 value) noexcept { return dfpal_decimal64ToInt32(value, DFPAL_ROUND_DOWN); }
std::int32_t toInt32(DfpalDecimal128 value) noexcept { return dfpal_decimal128ToInt32(value, DFPAL_ROUND_DOWN); }
bool toPacked(DfpalDecimal64 value, std::uint32_t mode, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return dfpal_decimal64ToPacked(value, mode, target, descriptor);
}
bool toPacked(DfpalDecimal128 value, std::uint32_t mode, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return dfpal_decimal128ToPacked(value, mode, target, descriptor);
}

template <class Value>
Value loaded(const void* from) noexcept {
  Value value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <class Value>
SqlzZrc toShort(Value value, std::int16_t* target) noexcept {
  std::uint32_t raised = 0;
  const std::int32_t number = sqlvi_dfpRun(
      [value] { return toInt32(sqlvi_roundingIsOn() ? integral(value, dfpalGetRoundingMode()) : value); }, &raised);
  // A short number has no room for a warning: whatever is trapped leaves none.
  using Limits = std::numeric_limits<std::int16_t>;
  if (sqlvi_dfpIsTrapped(raised) || number < Limits::min() || number > Limits::max()) return SQLRX_DEC_OVERFLOW;
  *target = static_cast<std::int16_t>(number);
  return 0;
}

}  // namespace
}  // namespace vek

template <class Source, class Target>
SqlzZrc sqlvdfp2dfpTmpl(const Source* source, Target* target) noexcept {
  const auto value = vek::loaded<Source>(source);
  const auto store = [target](Target result) { std::memcpy(target, &result, sizeof result); };
  if (vek::dfpIsSignalling(value)) [[unlikely]] {
    store(vek::emptied(value));
    return 0;
  }
  return vek::sqlvi_dfpProtocol([value] { return vek::inOtherWidth(value); }, store);
}

template VEK_EXPORT SqlzZrc sqlvdfp2dfpTmpl(const DfpalDecimal128* source, DfpalDecimal64* target) noexcept;
template VEK_EXPORT SqlzZrc sqlvdfp2dfpTmpl(const DfpalDecimal64* source, DfpalDecimal128* target) noexcept;

SqlzZrc sqlvdfp2sht(const void* value, std::uint32_t valueBytes, std::int16_t* target) noexcept {
  return vek::sqlvi_dfpOfWidth(valueBytes,
                               [=](auto width) { return vek::toShort(vek::loaded<decltype(width)>(value), target); });
}

SqlzZrc sqlvdfp2dec(const void* value, std::uint32_t valueBytes, std::uint8_t* target,
                    SqlvDescriptor descriptor) noexcept {
  return vek::sqlvi_dfpOfWidth(valueBytes, [=](auto width) -> SqlzZrc {
    if (!vek::sqlvi_convertible(descriptor)) return SQLRX_DEC_INVALID;
    const std::uint32_t mode = vek::sqlvi_roundingIsOn() ? dfpalGetRoundingMode() : DFPAL_ROUND_DOWN;
    std::uint32_t raised = 0;
    const bool isWritten = vek::sqlvi_dfpRun(
        [=] { return vek::toPacked(vek::loaded<decltype(width)>(value), mode, target, descriptor); }, &raised);
    return isWritten ? 0 : SQLRX_DEC_OVERFLOW;
  });
}

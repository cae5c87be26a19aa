// Decimal floating point: decimal64 and decimal128 of IEEE 754-2008 in densely packed decimal encoding, with the
// arithmetic and the conversions that need no return code.
//
// Values are passed and returned as words in the machine's byte order. Every result is canonical and correctly rounded,
// in the rounding mode of the calling thread where no mode is an argument. Exponents of results are the preferred ones
// of the standard: 1.20 + 3.4 is 4.60. A NaN among the operands gives a quiet NaN with the sign and payload of the
// first signalling operand, else of the first quiet one; a signalling one raises `invalid`. Payloads are integers:
// changing the width keeps their last digits.
//
// Each thread has its own rounding mode and status flags, kept for its whole life and inherited by a forked child.
// Flags are only ever added by operations; dfpalReadClearAllStatusFlag and dfpalSwapStatusFlag take them away. A value
// below the normal range counts as tiny before it is rounded, and raises `underflow` when it is inexact as well.
//
// Nothing here allocates, locks or fails in any other way than by flags. All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/types.h"
#include "veksys/values/packed_decimal.h"

// A decimal of 16 digits, exponents of the first digit from -383 to 384.
struct DfpalDecimal64 {
  std::uint64_t word;
};

// A decimal of 34 digits, exponents of the first digit from -6143 to 6144.
struct DfpalDecimal128 {
  std::uint64_t low;
  std::uint64_t high;  // sign, combination field and exponent are on top
};

static_assert(sizeof(DfpalDecimal64) == 8 && sizeof(DfpalDecimal128) == 16);

// Rounding modes. The first five are those of the standard; its "to nearest, ties away from zero" is HALF_UP.
inline constexpr std::uint32_t DFPAL_ROUND_HALF_EVEN = 0;
inline constexpr std::uint32_t DFPAL_ROUND_DOWN = 1;  // toward zero
inline constexpr std::uint32_t DFPAL_ROUND_HALF_UP = 2;
inline constexpr std::uint32_t DFPAL_ROUND_CEILING = 3;
inline constexpr std::uint32_t DFPAL_ROUND_FLOOR = 4;
inline constexpr std::uint32_t DFPAL_ROUND_HALF_DOWN = 5;
inline constexpr std::uint32_t DFPAL_ROUND_UP = 6;  // away from zero
inline constexpr std::uint32_t DFPAL_ROUND_MODES = 7;

// Conditions: what a status flag tells of an operation.
inline constexpr std::uint32_t DFPAL_INVALID = 0x01;           // no meaningful result: it is a quiet NaN, or 0
inline constexpr std::uint32_t DFPAL_DIVISION_BY_ZERO = 0x02;  // the result is an infinity
inline constexpr std::uint32_t DFPAL_OVERFLOW = 0x04;          // too large: an infinity or the largest number
inline constexpr std::uint32_t DFPAL_UNDERFLOW = 0x08;         // too small for all of its digits
inline constexpr std::uint32_t DFPAL_INEXACT = 0x10;           // digits other than zeros were dropped
inline constexpr std::uint32_t DFPAL_CONDITIONS = 0x1F;

// How the return codes of the server's own conversions (veksys/values/decimal_float.h) follow from conditions, and the
// rounding mode of threads that set none. One record for the process.
//
// An operation that raised nothing of `trapped` succeeded. Else, the first that holds: something of `firstWarnings`:
// SQLRX_DFP_RANGE; of `secondWarnings`: SQLRX_DFP_INEXACT; nothing of `tolerated`: SQLRX_DFP_INVALID, and no result is
// stored; success. At start every condition is trapped, overflow and underflow are first warnings, inexact is a second
// one, none is tolerated, and the mode is half even.
struct DfpalControlFlags {
  std::uint32_t trapped;
  std::uint32_t firstWarnings;
  std::uint32_t secondWarnings;
  std::uint32_t tolerated;
  std::uint32_t defaultRounding;
};

// The longest texts of both widths, with the terminator.
inline constexpr std::size_t DFPAL_DECIMAL64_TEXT_BYTES = 25;   // -0.00000 and 16 digits
inline constexpr std::size_t DFPAL_DECIMAL128_TEXT_BYTES = 43;  // -0.00000 and 34 digits

// What a comparison answers.
inline constexpr std::int32_t DFPAL_LESS = -1;
inline constexpr std::int32_t DFPAL_EQUAL = 0;
inline constexpr std::int32_t DFPAL_GREATER = 1;
inline constexpr std::int32_t DFPAL_UNORDERED = 2;  // at least one is a NaN

extern "C" {

// ---- the thread's state, the process's control flags ------------------------------------------------------------

// The conditions raised in this thread since they were cleared; clears them all.
VEK_EXPORT std::uint32_t dfpalReadClearAllStatusFlag() noexcept;
// Replaces the thread's flags and returns those that it had. Bits that stand for no condition are dropped.
VEK_EXPORT std::uint32_t dfpalSwapStatusFlag(std::uint32_t flags) noexcept;

// The rounding mode of the calling thread: the one it set, else that of the control flags.
VEK_EXPORT std::uint32_t dfpalGetRoundingMode() noexcept;
// Sets it. SQLO_INV_PARM, without effect: not one of the DFPAL_ROUND_ modes.
VEK_EXPORT SqlzZrc dfpalSetRoundingMode(std::uint32_t mode) noexcept;

// The control flags in force.
VEK_EXPORT void dfpalGetControlFlags(DfpalControlFlags* flagsOut) noexcept;
// Replaces them all at once, for every thread. SQLO_INV_PARM, without effect: no such rounding mode, or a set holds
// bits outside DFPAL_CONDITIONS.
VEK_EXPORT SqlzZrc dfpalSetControlFlags(const DfpalControlFlags* flags) noexcept;

// ---- text -------------------------------------------------------------------------------------------------------

// Reads a number: a sign or none, digits with at most one decimal point among them, and perhaps E, a sign or none and
// digits; or Inf, Infinity, NaN or sNaN, the last two perhaps with digits as payload. Upper and lower case are alike;
// blanks are not accepted. The exponent and zeros at the end are kept: 1.20 has the exponent -2. Any other text, and a
// payload of more than 15 digits, raises `invalid` and gives a NaN.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64FromString(const char* text, std::size_t bytes) noexcept;
// As dfpal_decimal64FromString; payloads have up to 33 digits.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128FromString(const char* text, std::size_t bytes) noexcept;

// Writes a value so that reading the text gives the same value, digit by digit: in plain digits, or with an exponent
// when the exponent is above 0 or more than five zeros would follow the point. Raises nothing. Returns the number of
// characters. A buffer that does not hold them and a terminator stays as it is; DFPAL_DECIMAL64_TEXT_BYTES are enough
// for every value, and in a buffer of that size the bytes behind the terminator may change.
VEK_EXPORT std::size_t dfpal_decimal64ToString(DfpalDecimal64 value, char* buffer, std::size_t bufferBytes) noexcept;
// As dfpal_decimal64ToString; DFPAL_DECIMAL128_TEXT_BYTES are enough.
VEK_EXPORT std::size_t dfpal_decimal128ToString(DfpalDecimal128 value, char* buffer, std::size_t bufferBytes) noexcept;

// ---- the other width --------------------------------------------------------------------------------------------

// Narrows: rounds to 16 digits.
VEK_EXPORT DfpalDecimal64 dfpal_decimal128ToDecimal64(DfpalDecimal128 value) noexcept;
// Widens, which is exact.
VEK_EXPORT DfpalDecimal128 dfpal_decimal64ToDecimal128(DfpalDecimal64 value) noexcept;

// ---- integers ---------------------------------------------------------------------------------------------------

// From an integer, with the exponent 0.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64FromInt32(std::int32_t value) noexcept;
// As dfpal_decimal64FromInt32.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64FromUint32(std::uint32_t value) noexcept;
// As dfpal_decimal64FromInt32; more than 16 digits are rounded.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64FromInt64(std::int64_t value) noexcept;
// As dfpal_decimal64FromInt64.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64FromUint64(std::uint64_t value) noexcept;
// From an integer, with the exponent 0; always exact.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128FromInt32(std::int32_t value) noexcept;
// As dfpal_decimal128FromInt32.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128FromUint32(std::uint32_t value) noexcept;
// As dfpal_decimal128FromInt32.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128FromInt64(std::int64_t value) noexcept;
// As dfpal_decimal128FromInt32.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128FromUint64(std::uint64_t value) noexcept;

// To an integer: rounds in the given mode, without raising `inexact`. A value outside the integer's range, an infinity,
// a NaN or an unknown mode raises `invalid` and answers 0.
VEK_EXPORT std::int32_t dfpal_decimal64ToInt32(DfpalDecimal64 value, std::uint32_t mode) noexcept;
// As dfpal_decimal64ToInt32.
VEK_EXPORT std::uint32_t dfpal_decimal64ToUint32(DfpalDecimal64 value, std::uint32_t mode) noexcept;
// As dfpal_decimal64ToInt32.
VEK_EXPORT std::int64_t dfpal_decimal64ToInt64(DfpalDecimal64 value, std::uint32_t mode) noexcept;
// As dfpal_decimal64ToInt32.
VEK_EXPORT std::uint64_t dfpal_decimal64ToUint64(DfpalDecimal64 value, std::uint32_t mode) noexcept;
// As dfpal_decimal64ToInt32.
VEK_EXPORT std::int32_t dfpal_decimal128ToInt32(DfpalDecimal128 value, std::uint32_t mode) noexcept;
// As dfpal_decimal64ToInt32.
VEK_EXPORT std::uint32_t dfpal_decimal128ToUint32(DfpalDecimal128 value, std::uint32_t mode) noexcept;
// As dfpal_decimal64ToInt32.
VEK_EXPORT std::int64_t dfpal_decimal128ToInt64(DfpalDecimal128 value, std::uint32_t mode) noexcept;
// As dfpal_decimal64ToInt32.
VEK_EXPORT std::uint64_t dfpal_decimal128ToUint64(DfpalDecimal128 value, std::uint32_t mode) noexcept;

// Rounds to an integral value in the given mode, without raising `inexact`: the exponent of the result is 0 or above.
// An unknown mode raises `invalid` and gives a NaN.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64RoundToIntegral(DfpalDecimal64 value, std::uint32_t mode) noexcept;
// As dfpal_decimal64RoundToIntegral.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128RoundToIntegral(DfpalDecimal128 value, std::uint32_t mode) noexcept;
// The same in the thread's mode, raising `inexact` when digits other than zeros were dropped.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64RoundToIntegralExact(DfpalDecimal64 value) noexcept;
// As dfpal_decimal64RoundToIntegralExact.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128RoundToIntegralExact(DfpalDecimal128 value) noexcept;

// ---- packed decimal ---------------------------------------------------------------------------------------------

// From a packed value, with its scale as negative exponent; more than 16 digits are rounded. Reads the bytes of the
// descriptor and trusts the digits, as every conversion of packed values does. A descriptor with a precision outside
// 1..31 or a scale above it raises `invalid`, reads nothing and gives a NaN. A zero is positive.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64FromPacked(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept;
// As dfpal_decimal64FromPacked; always exact.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128FromPacked(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept;

// To a packed value: rounds to the scale in the given mode, without raising `inexact`. True: it is written. False: the
// value does not fit the precision, is an infinity or a NaN, or mode or descriptor are none; `invalid` is raised and
// nothing is written.
VEK_EXPORT bool dfpal_decimal64ToPacked(DfpalDecimal64 value, std::uint32_t mode, std::uint8_t* packed,
                                        SqlvDescriptor descriptor) noexcept;
// As dfpal_decimal64ToPacked.
VEK_EXPORT bool dfpal_decimal128ToPacked(DfpalDecimal128 value, std::uint32_t mode, std::uint8_t* packed,
                                         SqlvDescriptor descriptor) noexcept;

// ---- comparison -------------------------------------------------------------------------------------------------

// Compares numerically: 1.0 equals 1.00, -0 equals 0. DFPAL_UNORDERED with a NaN, which raises `invalid` when it is
// signalling.
VEK_EXPORT std::int32_t dfpal_decimal64Compare(DfpalDecimal64 left, DfpalDecimal64 right) noexcept;
// As dfpal_decimal64Compare.
VEK_EXPORT std::int32_t dfpal_decimal128Compare(DfpalDecimal128 left, DfpalDecimal128 right) noexcept;
// The same, but every NaN raises `invalid`.
VEK_EXPORT std::int32_t dfpal_decimal64CompareSignal(DfpalDecimal64 left, DfpalDecimal64 right) noexcept;
// As dfpal_decimal64CompareSignal.
VEK_EXPORT std::int32_t dfpal_decimal128CompareSignal(DfpalDecimal128 left, DfpalDecimal128 right) noexcept;

// ---- arithmetic -------------------------------------------------------------------------------------------------

// left + right.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64Add(DfpalDecimal64 left, DfpalDecimal64 right) noexcept;
// left + right.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128Add(DfpalDecimal128 left, DfpalDecimal128 right) noexcept;
// left - right.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64Subtract(DfpalDecimal64 left, DfpalDecimal64 right) noexcept;
// left - right.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128Subtract(DfpalDecimal128 left, DfpalDecimal128 right) noexcept;
// left * right.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64Multiply(DfpalDecimal64 left, DfpalDecimal64 right) noexcept;
// left * right.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128Multiply(DfpalDecimal128 left, DfpalDecimal128 right) noexcept;
// left / right. A number other than 0 divided by 0 raises `division by zero` alone, 0 / 0 `invalid`.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64Divide(DfpalDecimal64 left, DfpalDecimal64 right) noexcept;
// left / right, as dfpal_decimal64Divide.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128Divide(DfpalDecimal128 left, DfpalDecimal128 right) noexcept;

// The value with the exponent of `pattern`, rounded as need be. Raises `invalid` when that takes more digits than the
// width has, or when one of both is infinite and the other a number.
VEK_EXPORT DfpalDecimal64 dfpal_decimal64Quantize(DfpalDecimal64 value, DfpalDecimal64 pattern) noexcept;
// As dfpal_decimal64Quantize.
VEK_EXPORT DfpalDecimal128 dfpal_decimal128Quantize(DfpalDecimal128 value, DfpalDecimal128 pattern) noexcept;

}  // extern "C"

// DECFLOAT column values: between their two widths, to integers, packed decimal and text, with return codes.
//
// A value is 8 bytes (decimal64) or 16 bytes (decimal128, lower word first) in the machine's byte order; `valueBytes`
// tells which. Pointers must not be null and need no alignment. Rounding is done in the mode of the calling thread
// (dfpalSetRoundingMode). The thread's status flags are the same before and after each of these calls, also after one
// that fails: what an operation raises is classified by the control flags (veksys/values/dfpal.h) and told as return
// code. Functions allocate nothing and may be called from any thread. Codes of all functions:
//
//   0                   done
//   SQLRX_DFP_RANGE     a warning: overflow or underflow. The result, an infinity, the largest or a tiny number, is
//                       stored
//   SQLRX_DFP_INEXACT   a warning: digits were lost in rounding. The result is stored
//   SQLRX_DFP_INVALID   there is no result, or `valueBytes` is neither 8 nor 16; nothing is stored
//   SQLRX_DEC_OVERFLOW  of conversions to integer and packed: the value does not fit the target, or is an infinity or a
//                       NaN; nothing is stored
//
// The warnings are those of the control flags at start; other control flags make other codes of the same conditions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/codes.h"
#include "veksys/export.h"
#include "veksys/types.h"
#include "veksys/values/dfpal.h"
#include "veksys/values/packed_decimal.h"

// The bytes of values.
inline constexpr std::uint32_t SQLV_DECFLOAT16_BYTES = 8;   // 16 digits
inline constexpr std::uint32_t SQLV_DECFLOAT34_BYTES = 16;  // 34 digits

// A value in the other width: DfpalDecimal128 to DfpalDecimal64, which rounds, and the other way round, which is exact.
// Instances for these two pairs are in the library. A signalling NaN stays one: its sign is kept, its payload becomes
// 0, and nothing is raised.
template <class Source, class Target>
SqlzZrc sqlvdfp2dfpTmpl(const Source* source, Target* target) noexcept;

// The two instances of the library.
extern template VEK_EXPORT SqlzZrc sqlvdfp2dfpTmpl(const DfpalDecimal128* source, DfpalDecimal64* target) noexcept;
extern template VEK_EXPORT SqlzZrc sqlvdfp2dfpTmpl(const DfpalDecimal64* source, DfpalDecimal128* target) noexcept;

extern "C" {

// To a 16-bit integer. With the decimal rounding setting on (sqlvSetDecimalRounding) digits behind the point are
// rounded in the thread's mode, else dropped; either way they make no warning. SQLRX_DEC_OVERFLOW for every condition
// that the control flags trap, warnings and tolerated ones as well. Where they do not trap `invalid`, an infinity, a
// NaN and a number of more than 32 bits become 0.
VEK_EXPORT SqlzZrc sqlvdfp2sht(const void* value, std::uint32_t valueBytes, std::int16_t* target) noexcept;

// To packed decimal, whatever the control flags say. Digits behind the target's scale are rounded or dropped as
// sqlvdfp2sht does. SQLRX_DEC_INVALID: a descriptor with a precision outside 1..31 or a scale above it.
VEK_EXPORT SqlzZrc sqlvdfp2dec(const void* value, std::uint32_t valueBytes, std::uint8_t* target,
                               SqlvDescriptor descriptor) noexcept;

// From text: what dfpal_decimal128FromString accepts, with blanks before and behind it. More digits than the value
// holds are rounded.
VEK_EXPORT SqlzZrc sqlv_chr_2_dfp(const char* text, std::size_t textBytes, void* value,
                                  std::uint32_t valueBytes) noexcept;

// To text, as dfpal_decimal128ToString writes it, terminated. `lengthOut` (may be null) gets the number of characters
// that the text has, also when it does not fit: SQLRX_DEC_OVERFLOW then, and the buffer stays as it is.
// DFPAL_DECIMAL128_TEXT_BYTES are enough for every value.
VEK_EXPORT SqlzZrc sqlvDecfloatToCharWrapper(const void* value, std::uint32_t valueBytes, char* buffer,
                                             std::size_t bufferBytes, std::size_t* lengthOut) noexcept;
// The same with another character for the decimal point.
VEK_EXPORT SqlzZrc sqlvDecfloatToCharWithDelimiter(const void* value, std::uint32_t valueBytes, char delimiter,
                                                   char* buffer, std::size_t bufferBytes,
                                                   std::size_t* lengthOut) noexcept;

}  // extern "C"

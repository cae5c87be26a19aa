// Packed decimal: validation, and conversion to and from binary integers, floating point, other packed decimals and
// text.
//
// A packed value of precision p and scale s holds p decimal digits, s of them behind the decimal point, in p / 2 + 1
// bytes: most significant digit first, two digits a byte, the last byte with the last digit in its high and the sign
// in its low half. With an even precision the high half of the first byte is a pad and 0. The sign is written as 0xC
// for positive values and zero, 0xD for negative ones; readers take 0xB and 0xD as negative and all others as positive.
//
// Values carry no length: each function reads or writes exactly the p / 2 + 1 bytes of its descriptor. Pointers must
// not be null and need no alignment. Source and target may be the same bytes. Functions allocate nothing, share
// nothing but the rounding setting, and may be called from any thread.
//
// The conversions trust the digits that they are given: of a malformed value they make some number, but read and write
// no other bytes. Values from outside go through sqlv_check_packed_Internal first. Results of all conversions:
//
//   0                   done
//   SQLRX_DEC_OVERFLOW  the value does not fit the target. An integer target keeps what it held; of a packed target
//                       bytes may be overwritten
//   SQLRX_DEC_INVALID   a descriptor with a precision outside 1..31 or a scale above it; nothing is written
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/codes.h"
#include "veksys/export.h"
#include "veksys/types.h"
#include "veksys/values/national_language.h"

// What a packed value is: the number of digits, and how many of them are behind the decimal point.
struct SqlvDescriptor {
  std::uint8_t precision;  // 1..31
  std::uint8_t scale;      // 0..precision
};

static_assert(sizeof(SqlvDescriptor) == 2);

inline constexpr unsigned SQLV_PRECISION_MAX = 31;        // of the conversions; validation takes up to 255
inline constexpr std::size_t SQLV_PACKED_BYTES_MAX = 16;  // of a value that conversions take

// The bytes of a packed value.
constexpr std::size_t sqlvPackedBytes(SqlvDescriptor descriptor) noexcept { return descriptor.precision / 2U + 1U; }

extern "C" {

// ---- validation -------------------------------------------------------------------------------------------------

// Whether a value is well-formed: 0, or SQLRX_DEC_INVALID when the scale is above the precision, the pad is not 0, the
// sign is neither 0xC nor 0xD, a digit is above 9, or a zero carries 0xD. Takes any precision from 1 on; a value
// without digits is not well-formed.
VEK_EXPORT SqlzZrc sqlv_check_packed_Internal(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept;

// ---- the rounding setting ---------------------------------------------------------------------------------------

// Whether conversions without `_trunc` round the digits that they drop: 1 is on, every other value off. One setting
// for the process, off at start; conversions that run while it changes see the one or the other value.
VEK_EXPORT void sqlvSetDecimalRounding(std::uint16_t setting) noexcept;
// The rounding setting as it was set last.
VEK_EXPORT std::uint16_t sqlvGetDecimalRounding() noexcept;

// ---- packed to integer ------------------------------------------------------------------------------------------

// Packed to a binary integer. Digits behind the point are dropped; without `_trunc`, and with the rounding setting on,
// they are rounded, halves away from zero. The unsigned targets refuse every value with a negative sign, zero included.
VEK_EXPORT SqlzZrc sqlvpdc2sht(const std::uint8_t* packed, SqlvDescriptor descriptor, std::int16_t* target) noexcept;
// As sqlvpdc2sht, never rounding.
VEK_EXPORT SqlzZrc sqlvpdc2sht_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor,
                                     std::int16_t* target) noexcept;
// As sqlvpdc2sht, to 16 bits without sign.
VEK_EXPORT SqlzZrc sqlvpdc2usht(const std::uint8_t* packed, SqlvDescriptor descriptor, std::uint16_t* target) noexcept;
// As sqlvpdc2usht, never rounding.
VEK_EXPORT SqlzZrc sqlvpdc2usht_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor,
                                      std::uint16_t* target) noexcept;
// As sqlvpdc2sht, to 32 bits.
VEK_EXPORT SqlzZrc sqlvpdc2lng(const std::uint8_t* packed, SqlvDescriptor descriptor, std::int32_t* target) noexcept;
// As sqlvpdc2lng, never rounding.
VEK_EXPORT SqlzZrc sqlvpdc2lng_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor,
                                     std::int32_t* target) noexcept;
// As sqlvpdc2sht, to 32 bits without sign.
VEK_EXPORT SqlzZrc sqlvpdc2ulng(const std::uint8_t* packed, SqlvDescriptor descriptor, std::uint32_t* target) noexcept;
// As sqlvpdc2ulng, never rounding.
VEK_EXPORT SqlzZrc sqlvpdc2ulng_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor,
                                      std::uint32_t* target) noexcept;
// As sqlvpdc2sht, to 64 bits.
VEK_EXPORT SqlzZrc sqlvpdc2big(const std::uint8_t* packed, SqlvDescriptor descriptor, std::int64_t* target) noexcept;
// As sqlvpdc2big, never rounding.
VEK_EXPORT SqlzZrc sqlvpdc2big_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor,
                                     std::int64_t* target) noexcept;
// As sqlvpdc2sht, to 64 bits without sign.
VEK_EXPORT SqlzZrc sqlvpdc2ubig(const std::uint8_t* packed, SqlvDescriptor descriptor, std::uint64_t* target) noexcept;
// As sqlvpdc2ubig, never rounding.
VEK_EXPORT SqlzZrc sqlvpdc2ubig_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor,
                                      std::uint64_t* target) noexcept;

// ---- integer to packed ------------------------------------------------------------------------------------------

// A binary integer to packed: the value with as many zeros behind the point as the target's scale tells.
VEK_EXPORT SqlzZrc sqlvsht2dec(std::int16_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept;
// As sqlvsht2dec, from 32 bits.
VEK_EXPORT SqlzZrc sqlvint2dec(std::int32_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept;
// As sqlvsht2dec, from 64 bits.
VEK_EXPORT SqlzZrc sqlvbig2dec(std::int64_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept;
// As sqlvsht2dec, from 64 bits without sign.
VEK_EXPORT SqlzZrc sqlvubig2dec(std::uint64_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept;

// ---- packed to packed -------------------------------------------------------------------------------------------

// A packed value at another precision and scale. Digits behind the point are added as zeros or dropped; a value whose
// integer digits do not fit overflows. Dropped digits are cut, but rounded in the rounding mode of the calling thread
// when the rounding setting is on and that mode is not the default one.
VEK_EXPORT SqlzZrc sqlvpdc2dec(const std::uint8_t* packed, SqlvDescriptor descriptor, std::uint8_t* target,
                               SqlvDescriptor targetDescriptor) noexcept;
// As sqlvpdc2dec, never rounding.
VEK_EXPORT SqlzZrc sqlvpdc2dec_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor, std::uint8_t* target,
                                     SqlvDescriptor targetDescriptor) noexcept;

// ---- floating point ---------------------------------------------------------------------------------------------

// Packed to the nearest double, the one with the even significand where two are equally near. Zero is positive. A
// program that has set another rounding mode of the processor (fesetround) gets a neighbour of it.
VEK_EXPORT SqlzZrc sqlvpdc2flt(const std::uint8_t* packed, SqlvDescriptor descriptor, double* target) noexcept;

// A double to packed: the exact decimal expansion of the double is cut behind the target's scale (0.1 holds a little
// more than a tenth, 0.3 a little less than three, and so gives 0.29 at scale 2). Infinities and NaN overflow.
VEK_EXPORT SqlzZrc sqlvflt2dec_trunc(double value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept;
// As sqlvflt2dec_trunc; what is dropped rounds as with sqlvpdc2dec.
VEK_EXPORT SqlzZrc sqlvflt2dec(double value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept;

// ---- packed to text ---------------------------------------------------------------------------------------------

// A packed value with its descriptor.
struct SqlvNumericValue {
  SqlvDescriptor descriptor;
  const std::uint8_t* packed;
};

// Where text goes: precision + 2 characters, without a terminator.
struct SqlvCharacterValue {
  char* buffer;
};

// Writes a packed value as precision + 2 characters: "-" for a negative value that is not zero, else a blank; the
// integer digits with their leading zeros; the decimal point of the language ("." without one), also at scale 0; the
// digits behind it. `ignored` is not looked at. Traced.
VEK_EXPORT SqlzZrc sqlv_num_2_chr_legacy(std::uint32_t ignored, const SqlvNumericValue* source,
                                         const SqlvNationalLanguage* language,
                                         const SqlvCharacterValue* target) noexcept;

// ---- many values ------------------------------------------------------------------------------------------------

// Each function of this section does to `count` values what its namesake does to one. Packed values and texts stand
// `stride` bytes apart, integers side by side; nothing is read or written between values. Source and target must not
// overlap. The work stops at the first value that fails: its code is the result, its index is stored in `*done`, and
// the values before it are done. Who wants the rest goes on behind it. Otherwise `*done` is `count`. The rounding
// setting is read once. For well-formed values the results do not depend on the processor. A descriptor that the
// namesake refuses is refused at the first value; with a `count` of 0 every function answers 0.
//
// Which vector instructions are used is found out at the first of these calls, not when the library is loaded: programs
// that never make one do not pay for it. Threads that find it out at once come to the same.

// Validation of many values.
VEK_EXPORT SqlzZrc sqlv_check_packed_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                           std::size_t count, std::size_t* done) noexcept;

// sqlvpdc2big of many values.
VEK_EXPORT SqlzZrc sqlvpdc2big_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                     std::int64_t* target, std::size_t count, std::size_t* done) noexcept;
// sqlvpdc2big_trunc of many values.
VEK_EXPORT SqlzZrc sqlvpdc2big_trunc_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                           std::int64_t* target, std::size_t count, std::size_t* done) noexcept;

// sqlvbig2dec of many values.
VEK_EXPORT SqlzZrc sqlvbig2dec_batch(const std::int64_t* values, std::uint8_t* target, std::size_t targetStride,
                                     SqlvDescriptor descriptor, std::size_t count, std::size_t* done) noexcept;

// sqlvpdc2dec of many values.
VEK_EXPORT SqlzZrc sqlvpdc2dec_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                     std::uint8_t* target, std::size_t targetStride, SqlvDescriptor targetDescriptor,
                                     std::size_t count, std::size_t* done) noexcept;
// sqlvpdc2dec_trunc of many values.
VEK_EXPORT SqlzZrc sqlvpdc2dec_trunc_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                           std::uint8_t* target, std::size_t targetStride,
                                           SqlvDescriptor targetDescriptor, std::size_t count,
                                           std::size_t* done) noexcept;

// The text of sqlv_num_2_chr_legacy of many values, precision + 2 characters each, not traced.
VEK_EXPORT SqlzZrc sqlv_num_2_chr_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                        const SqlvNationalLanguage* language, char* target, std::size_t targetStride,
                                        std::size_t count, std::size_t* done) noexcept;

}  // extern "C"

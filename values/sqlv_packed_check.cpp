// Validation of packed values.
#include "values/sqlv_packed_check.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vek {
namespace {

constexpr SqlzZrc verdict(bool malformed) noexcept {
  if (malformed) [[unlikely]]
    return SQLRX_DEC_INVALID;
  return 0;
}

// Values of more than 31 digits: 16 digits at a time from the front. The last ones are checked as a value of their own;
// that it is a negative zero is no fault where a digit before them is not 0.
bool isMalformedLong(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  std::size_t count = sqlvPackedBytes(descriptor);
  std::uint64_t wrong = descriptor.precision % 2 == 0 ? packed[0] >> kSqlvDigitBits : 0U;
  std::uint64_t any = 0;
  for (; count > SQLV_PACKED_BYTES_MAX; count -= 8, packed += 8) {
    const auto digits = sqlvi_loadBig<std::uint64_t>(packed);
    wrong |= sqlvi_aboveNine(digits);
    any |= digits;
  }
  const SqlvWide rest = sqlvi_loadLong(packed, count);
  const bool negativeZero = rest == kSqlvNegative && any == 0;
  return wrong != 0 || negativeZero || (rest != kSqlvNegative && sqlvi_isMalformed(rest, SQLV_PRECISION_MAX));
}

// Values of any precision. Apart from the common ones, which so need no stack.
[[gnu::noinline]] SqlzZrc checkAny(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  const unsigned precision = descriptor.precision;
  const std::size_t count = sqlvPackedBytes(descriptor);
  if (precision == 0) return SQLRX_DEC_INVALID;  // even, so that the byte of the sign would have to be 9 at most
  if (count <= kSqlvShortBytes) return verdict(sqlvi_isMalformed(sqlvi_loadShort(packed, count), precision));
  if (count <= SQLV_PACKED_BYTES_MAX) return verdict(sqlvi_isMalformed(sqlvi_loadLong(packed, count), precision));
  return verdict(isMalformedLong(packed, descriptor));
}

// ---- values that fill one word or two -------------------------------------------------------------------------

// Values of 15 digits, which most amounts are, and of 31: no pad, and a sign in the last of 8 or 16 bytes. The digits
// are looked at in the machine's order of bytes, since no digit's test looks at another one. Each rule is a branch of
// its own, never taken for a good value, rather than a term of a sum that would have to be put together.

SqlzZrc check15(const std::uint8_t* packed) noexcept {
  if constexpr (std::endian::native != std::endian::little)
    return verdict(sqlvi_isMalformed(sqlvi_loadBig<std::uint64_t>(packed), kSqlvShortDigits));
  constexpr unsigned kSignShift = 56;
  std::uint64_t raw = 0;
  std::memcpy(&raw, packed, sizeof raw);
  if ((sqlvi_aboveNine(raw) & ~(std::uint64_t{0xF} << kSignShift)) != 0) [[unlikely]]
    return SQLRX_DEC_INVALID;
  if ((packed[7] & 0xEU) != kSqlvPositive) [[unlikely]]
    return SQLRX_DEC_INVALID;
  return verdict(raw == kSqlvNegative << kSignShift);
}

#if defined(__SSE2__)

// Whether all bytes of two vectors are the same.
bool areSame(__m128i a, __m128i b) noexcept {
  constexpr int kAllBytes = 0xFFFF;
  return _mm_movemask_epi8(_mm_cmpeq_epi8(a, b)) == kAllBytes;
}

// Of the upper halves of bytes, what exceeds 0x9F is wrong; of the lower ones what exceeds 9, and 1 in the last byte,
// where the sign has been made 0 or 1.
SqlzZrc check31(const std::uint8_t* packed) noexcept {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(packed));
  const __m128i positive = _mm_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, kSqlvPositive);
  const __m128i negative = _mm_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, kSqlvNegative);
  const __m128i most = _mm_setr_epi8(9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 1);
  const __m128i lower = _mm_xor_si128(_mm_and_si128(bytes, _mm_set1_epi8(0x0F)), positive);
  const __m128i wrongUpper = _mm_subs_epu8(bytes, _mm_set1_epi8(static_cast<char>(0x9F)));
  if (!areSame(_mm_or_si128(wrongUpper, _mm_subs_epu8(lower, most)), _mm_setzero_si128())) [[unlikely]]
    return SQLRX_DEC_INVALID;
  return verdict(areSame(bytes, negative));
}

#else

SqlzZrc check31(const std::uint8_t* packed) noexcept {
  return verdict(sqlvi_isMalformed(sqlvi_loadLong(packed, SQLV_PACKED_BYTES_MAX), SQLV_PRECISION_MAX));
}

#endif

}  // namespace
}  // namespace vek

SqlzZrc sqlv_check_packed_Internal(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  using namespace vek;
  if (descriptor.precision < descriptor.scale) [[unlikely]]
    return SQLRX_DEC_INVALID;
  if (descriptor.precision == kSqlvShortDigits) [[likely]]
    return check15(packed);
  if (descriptor.precision == SQLV_PRECISION_MAX) [[likely]]
    return check31(packed);
  return checkAny(packed, descriptor);
}

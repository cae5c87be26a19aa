// Validation of packed values.
#include "values/sqlv_packed_check.h"

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

// The precision of most amounts, 15 with any scale up to it, in one comparison of both.
constexpr bool isAmount(SqlvDescriptor descriptor) noexcept {
  static_assert(kSqlvShortDigits == 0xF);
  const unsigned both = descriptor.precision | unsigned{descriptor.scale} << 8U;
  return ((both ^ kSqlvShortDigits) & 0xF0FFU) == 0;
}

// A value of 15 digits, whose eight bytes have no pad. The digits are looked at in the machine's order of bytes, since
// no digit's test looks at another one; the sign stands in the last byte.
bool isMalformedAmount(const std::uint8_t* packed) noexcept {
  if constexpr (std::endian::native != std::endian::little)
    return sqlvi_isMalformed(sqlvi_loadBig<std::uint64_t>(packed), kSqlvShortDigits);
  constexpr unsigned kSignShift = 56;
  std::uint64_t raw = 0;
  std::memcpy(&raw, packed, sizeof raw);
  const std::uint64_t aboveNine = raw & 0x8088888888888888U & (raw << 1U | raw << 2U);
  const std::uint64_t unknownSign = (raw >> kSignShift & 0xEU) ^ kSqlvPositive;
  return (aboveNine | unknownSign) != 0 || raw == kSqlvNegative << kSignShift;
}

}  // namespace
}  // namespace vek

SqlzZrc sqlv_check_packed_Internal(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  using namespace vek;
  if (isAmount(descriptor)) [[likely]]
    return verdict(isMalformedAmount(packed));
  const unsigned precision = descriptor.precision;
  if (precision < descriptor.scale) return SQLRX_DEC_INVALID;
  const std::size_t count = sqlvPackedBytes(descriptor);
  if (count <= kSqlvShortBytes) return verdict(sqlvi_isMalformed(sqlvi_loadShort(packed, count), precision));
  if (count <= SQLV_PACKED_BYTES_MAX) return verdict(sqlvi_isMalformed(sqlvi_loadLong(packed, count), precision));
  return verdict(isMalformedLong(packed, descriptor));
}

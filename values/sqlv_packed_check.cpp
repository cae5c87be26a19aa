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

}  // namespace
}  // namespace vek

SqlzZrc sqlv_check_packed_Internal(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  using namespace vek;
  const unsigned precision = descriptor.precision;
  if (precision < descriptor.scale) return SQLRX_DEC_INVALID;
  if (precision == kSqlvShortDigits) [[likely]]  // the precision of most amounts goes straight through
    return verdict(sqlvi_isMalformed(sqlvi_loadBig<std::uint64_t>(packed), kSqlvShortDigits));
  const std::size_t count = sqlvPackedBytes(descriptor);
  if (count <= kSqlvShortBytes) return verdict(sqlvi_isMalformed(sqlvi_loadShort(packed, count), precision));
  if (count <= SQLV_PACKED_BYTES_MAX) return verdict(sqlvi_isMalformed(sqlvi_loadLong(packed, count), precision));
  return verdict(isMalformedLong(packed, descriptor));
}

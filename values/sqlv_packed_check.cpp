// Validation of packed values.
#include "values/sqlv_packed.h"

namespace vek {
namespace {

// Not 0 when a digit is above 9: its bit of weight 8 is set, and that of 4 or of 2.
constexpr std::uint64_t aboveNine(std::uint64_t digits) noexcept {
  return digits & 0x8888888888888888U & (digits << 1U | digits << 2U);
}

constexpr SqlzZrc verdict(bool wrong) noexcept { return wrong ? SQLRX_DEC_INVALID : 0; }

// The last step for every length: the rules for the sign once it is known whether any digit is wrong and any not 0.
constexpr SqlzZrc checkSign(std::uint64_t sign, std::uint64_t wrongDigits, bool anyDigit) noexcept {
  const bool unknown = (sign | 1U) != kSqlvNegative;
  return verdict(unknown || wrongDigits != 0 || (sign == kSqlvNegative && !anyDigit));
}

// Values of more than 31 digits: 16 digits at a time from the front, what remains as a short value.
SqlzZrc checkLong(const std::uint8_t* packed, std::size_t count) noexcept {
  std::uint64_t wrong = 0;
  std::uint64_t any = 0;
  for (; count > SQLV_PACKED_BYTES_MAX; count -= 8, packed += 8) {
    const auto digits = sqlvi_loadBig<std::uint64_t>(packed);
    wrong |= aboveNine(digits);
    any |= digits;
  }
  const SqlvWide rest = sqlvi_load(packed, count);
  const SqlvWide digits = rest >> kSqlvDigitBits;
  wrong |= aboveNine(static_cast<std::uint64_t>(digits)) | aboveNine(static_cast<std::uint64_t>(digits >> 64U));
  return checkSign(static_cast<std::uint64_t>(rest) & 0xFU, wrong, any != 0 || digits != 0);
}

}  // namespace
}  // namespace vek

SqlzZrc sqlv_check_packed_Internal(const std::uint8_t* packed, SqlvDescriptor descriptor) noexcept {
  using namespace vek;
  if (descriptor.precision < descriptor.scale) return SQLRX_DEC_INVALID;
  if (descriptor.precision % 2 == 0 && packed[0] > 9) return SQLRX_DEC_INVALID;
  const std::size_t count = sqlvPackedBytes(descriptor);
  if (count > SQLV_PACKED_BYTES_MAX) return checkLong(packed, count);
  const SqlvWide word = sqlvi_load(packed, count);
  const SqlvWide digits = word >> kSqlvDigitBits;
  const std::uint64_t wrong =
      aboveNine(static_cast<std::uint64_t>(digits)) | aboveNine(static_cast<std::uint64_t>(digits >> 64U));
  return checkSign(static_cast<std::uint64_t>(word) & 0xFU, wrong, digits != 0);
}

// The fixed-width text of a packed value.
#pragma once

#include "values/sqlv_packed.h"

namespace vek {

// Eight packed digits as eight characters, the first in the highest byte.
constexpr std::uint64_t sqlvi_charactersOf8(std::uint32_t digits) noexcept {
  std::uint64_t spread = digits;
  spread = (spread | spread << 16U) & 0x0000FFFF0000FFFFU;
  spread = (spread | spread << 8U) & 0x00FF00FF00FF00FFU;
  spread = (spread | spread << 4U) & 0x0F0F0F0F0F0F0F0FU;
  return spread + 0x3030303030303030U;
}

// Writes precision + 2 characters.
inline void sqlvi_toCharacters(const std::uint8_t* packed, SqlvDescriptor descriptor, char decimalPoint,
                               char* target) noexcept {
  constexpr std::size_t kDigits = 2 * SQLV_PACKED_BYTES_MAX;
  const SqlvWide word = sqlvi_load(packed, sqlvPackedBytes(descriptor));
  const SqlvWide digits = word >> kSqlvDigitBits;
  std::uint8_t characters[kDigits];
  for (unsigned i = 0; i < 4; ++i)
    sqlvi_storeBig(characters + std::size_t{8} * i,
                   sqlvi_charactersOf8(static_cast<std::uint32_t>(digits >> 32U * (3 - i))));
  const std::size_t scale = descriptor.scale;
  const std::size_t whole = descriptor.precision - scale;
  const bool minus = sqlvi_isNegative(static_cast<std::uint64_t>(word)) != 0 && digits != 0;
  target[0] = minus ? '-' : ' ';
  std::memcpy(target + 1, characters + kDigits - scale - whole, whole);
  target[1 + whole] = decimalPoint;
  std::memcpy(target + 2 + whole, characters + kDigits - scale, scale);
}

}  // namespace vek

// Packed decimal and binary integers, against digits taken one by one.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>

#include "veksys/values/packed_decimal.h"

namespace {

using Packed = std::array<std::uint8_t, SQLV_PACKED_BYTES_MAX>;

// Digits of a magnitude with a sign, one by one.
Packed packed(std::uint64_t magnitude, std::uint8_t sign, SqlvDescriptor descriptor) {
  Packed bytes = {};
  std::size_t nibble = sqlvPackedBytes(descriptor) * 2 - 1;
  bytes[nibble / 2] = sign;
  while (nibble-- > 0) {
    const auto digit = static_cast<std::uint8_t>(magnitude % 10);
    bytes[nibble / 2] = static_cast<std::uint8_t>(bytes[nibble / 2] | (nibble % 2 == 0 ? digit << 4U : digit));
    magnitude /= 10;
  }
  return bytes;
}

std::uint64_t tenTo(unsigned power) {
  std::uint64_t result = 1;
  for (; power > 0; --power) result *= 10;
  return result;
}

// Every 16-bit integer into every precision and scale whose digits stay below 10^19, and back.
TEST(PackedInteger, EveryShortAtEveryPrecisionAndScale) {
  for (unsigned precision = 1; precision <= SQLV_PRECISION_MAX; ++precision)
    for (unsigned scale = 0; scale <= precision && scale <= 14; ++scale) {
      const SqlvDescriptor descriptor = {static_cast<std::uint8_t>(precision), static_cast<std::uint8_t>(scale)};
      for (int value = INT16_MIN; value <= INT16_MAX; ++value) {
        const auto magnitude = static_cast<std::uint64_t>(std::abs(value));
        const bool fits = precision - scale >= 5 || magnitude < tenTo(precision - scale);
        Packed written = {};
        ASSERT_EQ(sqlvsht2dec(static_cast<std::int16_t>(value), written.data(), descriptor),
                  fits ? 0 : SQLRX_DEC_OVERFLOW);
        if (!fits) continue;
        ASSERT_EQ(written, packed(magnitude * tenTo(scale), value < 0 ? 0xD : 0xC, descriptor));
        std::int16_t read = 0;
        ASSERT_EQ(sqlvpdc2sht(written.data(), descriptor, &read), 0);
        ASSERT_EQ(read, value);
      }
    }
}

}  // namespace

// Packed decimals and binary integers, against digits taken one by one.
#include <cstdlib>

#include "values/packed_support.h"

namespace vek::valuestest {
namespace {

// Every 16-bit integer into every precision and scale, and back.
TEST(PackedInteger, EveryShortAtEveryPrecisionAndScale) {
  for (unsigned precision = 1; precision <= SQLV_PRECISION_MAX; ++precision)
    for (unsigned scale = 0; scale <= precision; ++scale) {
      const SqlvDescriptor descriptor = descriptorOf(precision, scale);
      const Wide end = tenTo(precision - scale);
      const Wide unit = tenTo(scale);
      for (int value = INT16_MIN; value <= INT16_MAX; ++value) {
        const auto magnitude = static_cast<unsigned>(std::abs(value));
        Packed written = {};
        const SqlzZrc zrc = sqlvsht2dec(static_cast<std::int16_t>(value), written.data(), descriptor);
        ASSERT_EQ(zrc, magnitude < end ? 0 : SQLRX_DEC_OVERFLOW) << value << " " << precision << "," << scale;
        if (zrc != 0) continue;
        ASSERT_EQ(written, packedOf(magnitude * unit, value < 0 ? 0xD : 0xC, descriptor)) << value;
        std::int16_t read = 0;
        ASSERT_EQ(sqlvpdc2sht(written.data(), descriptor, &read), 0);
        ASSERT_EQ(read, value);
      }
    }
}

// The ends of the wider integers, at every scale that leaves them room.
TEST(PackedInteger, EndsOfWideIntegers) {
  for (unsigned scale = 0; scale <= 12; ++scale) {
    const Wide unit = tenTo(scale);
    const auto least = static_cast<Wide>(1) << 63U;
    Packed written = {};
    const SqlvDescriptor descriptor = descriptorOf(19 + scale, scale);
    EXPECT_EQ(sqlvbig2dec(INT64_MIN, written.data(), descriptor), 0);
    EXPECT_EQ(written, packedOf(least * unit, 0xD, descriptor));
    EXPECT_EQ(sqlvint2dec(INT32_MIN, written.data(), descriptor), 0);
    EXPECT_EQ(written, packedOf((static_cast<Wide>(1) << 31U) * unit, 0xD, descriptor));
    EXPECT_EQ(sqlvubig2dec(UINT64_MAX, written.data(), descriptor), SQLRX_DEC_OVERFLOW);
    if (scale == 12) continue;
    const SqlvDescriptor wider = descriptorOf(20 + scale, scale);
    EXPECT_EQ(sqlvubig2dec(UINT64_MAX, written.data(), wider), 0);
    EXPECT_EQ(written, packedOf((2 * least - 1) * unit, 0xC, wider));
  }
}

// Signs that only readers know; zero with any of them.
TEST(PackedInteger, ReadsEverySign) {
  for (unsigned sign = 0; sign < 16; ++sign)
    for (const SqlvDescriptor descriptor : {descriptorOf(4, 1), descriptorOf(31, 1)}) {
      const bool isNegative = sign == 0xB || sign == 0xD;
      for (const int digits : {125, 0}) {
        const Packed value = packedOf(static_cast<unsigned>(digits), sign, descriptor);
        std::int32_t read = 1;
        EXPECT_EQ(sqlvpdc2lng(value.data(), descriptor, &read), 0);
        EXPECT_EQ(read, (isNegative ? -digits : digits) / 10);
        std::uint16_t natural = 9;
        EXPECT_EQ(sqlvpdc2usht(value.data(), descriptor, &natural), isNegative ? SQLRX_DEC_OVERFLOW : 0);
        EXPECT_EQ(natural, isNegative ? 9 : digits / 10);
      }
    }
}

// Only the value 1 switches rounding on, and what no longer fits when rounded leaves the target alone.
TEST(PackedInteger, RoundsWhenToldTo) {
  const SqlvDescriptor descriptor = descriptorOf(6, 1);
  for (std::uint16_t setting = 0; setting <= 2; ++setting) {
    sqlvSetDecimalRounding(setting);
    EXPECT_EQ(sqlvGetDecimalRounding(), setting);
    std::int16_t read = 0;
    EXPECT_EQ(sqlvpdc2sht(packedOf(5, 0xD, descriptor).data(), descriptor, &read), 0);
    EXPECT_EQ(read, setting == 1 ? -1 : 0);
    const Packed largest = packedOf(327675, 0xC, descriptor);
    EXPECT_EQ(sqlvpdc2sht_trunc(largest.data(), descriptor, &read), 0);
    EXPECT_EQ(read, 32767);
    read = 7;
    EXPECT_EQ(sqlvpdc2sht(largest.data(), descriptor, &read), setting == 1 ? SQLRX_DEC_OVERFLOW : 0);
    EXPECT_EQ(read, setting == 1 ? 7 : 32767);
  }
  sqlvSetDecimalRounding(0);
}

}  // namespace
}  // namespace vek::valuestest

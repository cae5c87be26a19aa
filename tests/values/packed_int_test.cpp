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
  constexpr bool kNegative[16] = {false, false, false, false, false, false, false, false,
                                  false, false, false, true,  false, true,  false, false};
  for (unsigned sign = 0; sign < 16; ++sign)
    for (const SqlvDescriptor descriptor : {descriptorOf(4, 1), descriptorOf(31, 1)}) {
      std::int32_t read = 1;
      EXPECT_EQ(sqlvpdc2lng(packedOf(125, sign, descriptor).data(), descriptor, &read), 0);
      EXPECT_EQ(read, kNegative[sign] ? -12 : 12);
      EXPECT_EQ(sqlvpdc2lng(packedOf(0, sign, descriptor).data(), descriptor, &read), 0);
      EXPECT_EQ(read, 0);
      std::uint16_t natural = 9;
      const SqlzZrc expected = kNegative[sign] ? SQLRX_DEC_OVERFLOW : 0;
      EXPECT_EQ(sqlvpdc2usht(packedOf(5, sign, descriptor).data(), descriptor, &natural), expected);
      EXPECT_EQ(natural, kNegative[sign] ? 9 : 0);
    }
}

// Only the value 1 switches rounding on.
TEST(PackedInteger, RoundsHalvesAwayFromZeroWhenToldTo) {
  const SqlvDescriptor descriptor = descriptorOf(6, 1);
  const struct {
    unsigned magnitude;
    unsigned sign;
    int cut;
    int rounded;  // 99999: does not fit
  } cases[] = {{5, 0xD, 0, -1},
               {4, 0xC, 0, 0},
               {14, 0xD, -1, -1},
               {15, 0xC, 1, 2},
               {327675, 0xC, 32767, 99999},
               {327685, 0xD, -32768, 99999},
               {327674, 0xC, 32767, 32767}};
  for (std::uint16_t setting = 0; setting <= 2; ++setting) {
    sqlvSetDecimalRounding(setting);
    EXPECT_EQ(sqlvGetDecimalRounding(), setting);
    for (const auto& each : cases) {
      const Packed value = packedOf(each.magnitude, each.sign, descriptor);
      const int expected = setting == 1 ? each.rounded : each.cut;
      std::int16_t read = 0;
      EXPECT_EQ(sqlvpdc2sht(value.data(), descriptor, &read), expected == 99999 ? SQLRX_DEC_OVERFLOW : 0);
      EXPECT_EQ(read, expected == 99999 ? 0 : expected) << each.magnitude;
      EXPECT_EQ(sqlvpdc2sht_trunc(value.data(), descriptor, &read), 0);
      EXPECT_EQ(read, each.cut);
    }
  }
  sqlvSetDecimalRounding(0);
}

}  // namespace
}  // namespace vek::valuestest

// Packed decimals and binary integers, against digits taken one by one.
#include "values/packed_support.h"
#include "values/seed.h"

namespace vek::valuestest {
namespace {

// Whether an integer is written; it must be when its digits fit, and be those.
template <class Integer>
bool writes(SqlzZrc (*write)(Integer, std::uint8_t*, SqlvDescriptor) noexcept, Integer value, SqlvDescriptor type,
            Packed* written) {
  const bool isNegative = value < 0;
  const Wide magnitude = isNegative ? 0 - static_cast<Wide>(value) : static_cast<Wide>(value);
  const bool fits = magnitude < tenTo(type.precision + 0U - type.scale);
  *written = {};
  EXPECT_EQ(write(value, written->data(), type), fits ? 0 : SQLRX_DEC_OVERFLOW) << value;
  if (!fits) return false;
  EXPECT_EQ(*written, packedOf(magnitude * tenTo(type.scale), isNegative ? 0xD : 0xC, type)) << value;
  return true;
}

// Every 16-bit integer into every precision and scale, and back.
TEST(PackedInteger, EveryShortAtEveryPrecisionAndScale) {
  for (unsigned precision = 1; precision <= SQLV_PRECISION_MAX && !HasFailure(); ++precision)
    for (unsigned scale = 0; scale <= precision; ++scale)
      for (int value = INT16_MIN; value <= INT16_MAX; ++value) {
        const SqlvDescriptor descriptor = descriptorOf(precision, scale);
        Packed written;
        if (!writes(sqlvsht2dec, static_cast<std::int16_t>(value), descriptor, &written)) continue;
        std::int16_t read = 0;
        ASSERT_EQ(sqlvpdc2sht(written.data(), descriptor, &read), 0);
        ASSERT_EQ(read, value);
      }
}

// Wider integers of any length, and their ends.
TEST(PackedInteger, WideIntegersIntoAnyPrecisionAndScale) {
  constexpr std::uint64_t kEnds[] = {1ULL << 31U, (1ULL << 31U) - 1, 1ULL << 63U, (1ULL << 63U) - 1, ~0ULL};
  Random random;
  for (unsigned round = 0; round < 100000 && !HasFailure(); ++round) {
    const auto precision = static_cast<unsigned>(1 + random() % SQLV_PRECISION_MAX);
    const SqlvDescriptor descriptor = descriptorOf(precision, static_cast<unsigned>(random() % (precision + 1)));
    const std::uint64_t bits = random() % 4 == 0 ? kEnds[random() % std::size(kEnds)] : random() >> random() % 64;
    Packed written;
    writes(sqlvint2dec, static_cast<std::int32_t>(bits), descriptor, &written);
    writes(sqlvbig2dec, static_cast<std::int64_t>(bits), descriptor, &written);
    writes(sqlvubig2dec, bits, descriptor, &written);
  }
}

// Only the value 1 switches rounding on.
TEST(PackedInteger, RoundsWhenToldTo) {
  const Packed half = {0x00, 0x5D};
  for (std::uint16_t setting = 0; setting <= 2; ++setting) {
    sqlvSetDecimalRounding(setting);
    EXPECT_EQ(sqlvGetDecimalRounding(), setting);
    std::int16_t read = 7;
    EXPECT_EQ(sqlvpdc2sht(half.data(), descriptorOf(3, 1), &read), 0);
    EXPECT_EQ(read, setting == 1 ? -1 : 0);
  }
  sqlvSetDecimalRounding(0);
}

}  // namespace
}  // namespace vek::valuestest

// Densely packed decimal: the tables, and values whose bits nobody should have written.
#include <string_view>

#include "platform/ossx_tables.h"
#include "values/dfp_support.h"
#include "values/seed.h"

namespace vek::valuestest {
namespace {

// The digits of a declet pqrstuvwxy, bit by bit, as the definition of the encoding tells them: by v, then by w and x,
// then by s and t.
unsigned bcdByDefinition(unsigned declet) {
  constexpr std::string_view kDigits[] = {"0pqr0stu0wxy", "0pqr0stu100y", "0pqr100u0sty", "100r0stu0pqy",
                                          "100r100u0pqy", "100r0pqu100y", "0pqr100u100y", "100r100u100y"};
  const unsigned v = declet >> 3U & 1U;
  const unsigned wx = declet >> 1U & 3U;
  const unsigned st = declet >> 5U & 3U;
  unsigned bcd = 0;
  for (const char bit : kDigits[v == 0 ? 0 : wx < 3 ? 1 + wx : 4 + st])
    bcd = bcd << 1U | (bit >= 'p' ? declet >> static_cast<unsigned>('y' - bit) & 1U : bit == '1' ? 1U : 0U);
  return bcd;
}

TEST(Declets, AllOfThem) {
  unsigned unwritten = 0;
  for (unsigned declet = 0; declet < DECLETS; ++declet) {
    const unsigned bcd = DPD2BCD[declet];
    EXPECT_EQ(bcd, bcdByDefinition(declet)) << declet;
    const unsigned value = (bcd >> 8U) * 100 + (bcd >> 4U & 0xFU) * 10 + (bcd & 0xFU);
    EXPECT_EQ(DPD2BIN[declet], value);
    EXPECT_EQ(BIN2DPD[value], BCD2DPD[bcd]);
    EXPECT_EQ(canonicalDeclets(declet), BCD2DPD[bcd]);
    if (BCD2DPD[bcd] != declet) ++unwritten;
  }
  EXPECT_EQ(unwritten, 24U);
  for (unsigned value = 0; value < DECLET_VALUES; ++value) EXPECT_EQ(DPD2BIN[BIN2DPD[value]], value);
  for (const std::uint16_t declet : BCD2DPD) EXPECT_LT(declet, DECLETS);
}

// Results of every operation that can hand an operand on have declets that are written and no bits behind an infinity.
TEST(DfpEncoding, ResultsAreCanonicalWhateverTheOperandIs) {
  Random random;
  const RoundingMode mode(DFPAL_ROUND_HALF_EVEN);
  const auto declets = [&] {  // many of three large digits, with bits that mean nothing
    std::uint64_t word = 0;
    for (unsigned i = 0; i < 6; ++i)
      word = word << DECLET_BITS | (random() & 0x3FFU) | (random() % 2 == 0 ? 0x6EU : 0U);
    return word;
  };
  const auto isCanonical = [](DfpalDecimal128 value) {
    return value == valueOf<Width128>(textOf(value));  // reading makes declets of its own
  };
  for (unsigned i = 0; i < 20000; ++i) {
    std::uint64_t top = random();
    if (i % 8 == 0) top |= 0x78ULL << 56U;
    const std::uint64_t upper = declets();
    const DfpalDecimal128 wide = {declets() | upper << 60U,
                                  (top & ~((1ULL << 46U) - 1)) | (upper & ((1ULL << 46U) - 1))};
    const DfpalDecimal64 narrow = {(top & ~((1ULL << 50U) - 1)) | (upper & ((1ULL << 50U) - 1))};
    ASSERT_TRUE(isCanonical(dfpal_decimal64ToDecimal128(narrow))) << std::hex << narrow.word;
    ASSERT_TRUE(isCanonical(dfpal_decimal128RoundToIntegral(wide, DFPAL_ROUND_UP)));
    ASSERT_TRUE(isCanonical(dfpal_decimal128Add(wide, valueOf<Width128>("-0E-9999"))));
    ASSERT_TRUE(isCanonical(dfpal_decimal128Quantize(wide, wide)));
    // Digits that a narrow value holds take the short way, or the long one when their first one is moved away.
    const DfpalDecimal128 few = {(declets() & ((1ULL << 50U) - 1)) | (random() % 16) << 50U, 0x2208000000000000U};
    const DfpalDecimal64 result = dfpal_decimal128ToDecimal64(few);
    ASSERT_EQ(result, valueOf<Width64>(textOf(few))) << std::hex << few.low;
  }
}

}  // namespace
}  // namespace vek::valuestest

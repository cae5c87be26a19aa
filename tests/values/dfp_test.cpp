// DECFLOAT: return codes of conversions, what is stored, and that callers keep their flags; the state of threads;
// integers; densely packed digits, also those whose bits nobody should have written.
#include <thread>

#include "platform/ossx_tables.h"
#include "platform/support.h"
#include "values/support.h"

namespace vek::valuestest {
namespace {

constexpr std::uint32_t kCallersFlags = DFPAL_DIVISION_BY_ZERO | DFPAL_INEXACT;
constexpr DfpalDecimal64 kUntouched = {0x123456789ABCDEF0U};

// Every test begins with flags of its caller and the settings of the start, and must leave those flags alone. Values
// are made of texts that raise none.
class DfpCodes : public ::testing::Test {
 protected:
  DfpCodes() {
    dfpalGetControlFlags(&atStart_);
    dfpalSwapStatusFlag(kCallersFlags);
  }
  ~DfpCodes() override {
    EXPECT_EQ(dfpalReadClearAllStatusFlag(), kCallersFlags);
    EXPECT_EQ(dfpalSetControlFlags(&atStart_), 0);
    EXPECT_EQ(dfpalSetRoundingMode(DFPAL_ROUND_HALF_EVEN), 0);
    sqlvSetDecimalRounding(0);
  }

  DfpalControlFlags atStart_ = {};
};

TEST_F(DfpCodes, NarrowingTellsWhatWasLost) {
  const std::tuple<const char*, SqlzZrc, const char*> cases[] = {
      {"-1234567890.123456", 0, "-1234567890.123456"},
      {"1.200000000000000000000000000000000", 0, "1.200000000000000"},
      {"12345678901234565", SQLRX_DFP_INEXACT, "1.234567890123456E+16"},
      {"1E+385", SQLRX_DFP_RANGE, "Infinity"},
      {"1E-399", SQLRX_DFP_RANGE, "0E-398"},
      {"1E-398", 0, "1E-398"},
      {"-Infinity", 0, "-Infinity"},
      {"-NaN1234567890123456", 0, "-NaN234567890123456"},
      {"-sNaN77", 0, "-sNaN"},
      {"sNaN", 0, "sNaN"},
  };
  for (const auto& [text, zrc, wanted] : cases) {
    const auto source = valueOf<Width128>(text);
    DfpalDecimal64 target = kUntouched;
    EXPECT_EQ(sqlvdfp2dfpTmpl(&source, &target), zrc) << text;
    EXPECT_EQ(textOf(target), wanted);
  }
  const auto signalling = valueOf<Width64>("-sNaN77");
  DfpalDecimal128 wide = {};
  EXPECT_EQ(sqlvdfp2dfpTmpl(&signalling, &wide), 0);
  EXPECT_EQ(textOf(wide), "-sNaN");
}

TEST_F(DfpCodes, FollowTheControlFlagsInTheirOrder) {
  constexpr std::uint32_t kBoth = DFPAL_OVERFLOW | DFPAL_INEXACT;  // what 1E+385 raises
  const std::tuple<DfpalControlFlags, SqlzZrc, bool> cases[] = {
      {{DFPAL_INVALID, kBoth, kBoth, 0, 0}, 0, true},
      {{kBoth, DFPAL_INEXACT, DFPAL_OVERFLOW, 0, 0}, SQLRX_DFP_RANGE, true},
      {{DFPAL_OVERFLOW, 0, DFPAL_INEXACT, 0, 0}, SQLRX_DFP_INEXACT, true},
      {{kBoth, DFPAL_INVALID, DFPAL_UNDERFLOW, DFPAL_DIVISION_BY_ZERO, 0}, SQLRX_DFP_INVALID, false},
      {{kBoth, 0, 0, DFPAL_INEXACT, 0}, 0, true},
  };
  const auto source = valueOf<Width128>("1E+385");
  for (const auto& [control, zrc, isStored] : cases) {
    ASSERT_EQ(dfpalSetControlFlags(&control), 0);
    DfpalDecimal64 target = kUntouched;
    EXPECT_EQ(sqlvdfp2dfpTmpl(&source, &target), zrc);
    EXPECT_EQ(target == kUntouched, !isStored);
  }
  const auto infinity = valueOf<Width64>("Infinity");
  for (const std::uint32_t trapped : {DFPAL_CONDITIONS & ~DFPAL_INVALID, DFPAL_INVALID}) {
    const DfpalControlFlags control = {trapped, DFPAL_INVALID, 0, DFPAL_INVALID, 0};
    ASSERT_EQ(dfpalSetControlFlags(&control), 0);
    std::int16_t number = 7;
    EXPECT_EQ(sqlvdfp2sht(&infinity, sizeof infinity, &number), trapped == DFPAL_INVALID ? SQLRX_DEC_OVERFLOW : 0);
    EXPECT_EQ(number, trapped == DFPAL_INVALID ? 7 : 0);
  }
  const DfpalControlFlags& last = std::get<0>(cases[4]);
  ASSERT_EQ(dfpalSetControlFlags(&last), 0);
  const DfpalControlFlags refused[] = {{0x20, 0, 0, 0, 0}, {0, 0, 0, 0x100, 0}, {0, 0, 0, 0, DFPAL_ROUND_MODES}};
  for (const DfpalControlFlags& each : refused) EXPECT_EQ(dfpalSetControlFlags(&each), SQLO_INV_PARM);
  DfpalControlFlags inForce = {};
  dfpalGetControlFlags(&inForce);
  EXPECT_EQ(std::memcmp(&inForce, &last, sizeof inForce), 0) << "a refused record changed something";
}

TEST_F(DfpCodes, ShortIntegersRoundWhenTheSettingIsOn) {
  constexpr std::int16_t kNone = 12345;
  // A value, a mode, and what it gives cut and rounded; kNone: does not fit.
  const std::tuple<const char*, std::uint32_t, std::int16_t, std::int16_t> cases[] = {
      {"32767.9", DFPAL_ROUND_HALF_UP, 32767, kNone},
      {"32767.9", DFPAL_ROUND_FLOOR, 32767, 32767},
      {"-32768.5", DFPAL_ROUND_HALF_EVEN, -32768, -32768},
      {"-32768.5", DFPAL_ROUND_HALF_UP, -32768, kNone},
      {"0.1", DFPAL_ROUND_UP, 0, 1},
      {"-0.1", DFPAL_ROUND_CEILING, 0, 0},
      {"32768", DFPAL_ROUND_DOWN, kNone, kNone},
      {"-32769", DFPAL_ROUND_UP, kNone, kNone},
      {"3E+9", DFPAL_ROUND_UP, kNone, kNone},
      {"Infinity", DFPAL_ROUND_DOWN, kNone, kNone},
      {"sNaN", DFPAL_ROUND_DOWN, kNone, kNone},
  };
  for (const auto& [text, mode, cut, rounded] : cases) {
    const auto narrow = valueOf<Width64>(text);
    const auto wide = valueOf<Width128>(text);
    dfpalSetRoundingMode(mode);
    for (const bool isOn : {false, true}) {
      sqlvSetDecimalRounding(isOn ? 1 : 0);
      const std::int16_t wanted = isOn ? rounded : cut;
      const SqlzZrc zrc = wanted == kNone ? SQLRX_DEC_OVERFLOW : 0;
      std::int16_t got[2] = {kNone, kNone};
      EXPECT_EQ(sqlvdfp2sht(&narrow, sizeof narrow, &got[0]), zrc) << text;
      EXPECT_EQ(sqlvdfp2sht(&wide, sizeof wide, &got[1]), zrc) << text;
      EXPECT_TRUE(got[0] == wanted && got[1] == wanted) << text << ": " << got[0] << ", " << got[1];
    }
  }
}

TEST_F(DfpCodes, PackedTargetsKeepTheirBytesUnlessTheValueFits) {
  const auto value = valueOf<Width128>("-12.346");
  std::uint8_t packed[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(sqlvdfp2dec(&value, sizeof value, packed, {3, 2}), SQLRX_DEC_OVERFLOW);
  EXPECT_EQ(sqlvdfp2dec(&value, sizeof value, packed, {32, 0}), SQLRX_DEC_INVALID);
  EXPECT_EQ(sqlvdfp2dec(&value, sizeof value, packed, {4, 5}), SQLRX_DEC_INVALID);
  EXPECT_EQ(packed[0], 0xEE);
  EXPECT_EQ(sqlvdfp2dec(&value, sizeof value, packed, {4, 2}), 0);
  EXPECT_EQ(std::memcmp(packed, "\x01\x23\x4D\xEE", 4), 0);
  sqlvSetDecimalRounding(1);
  dfpalSetRoundingMode(DFPAL_ROUND_HALF_UP);
  EXPECT_EQ(sqlvdfp2dec(&value, sizeof value, packed, {4, 2}), 0);
  EXPECT_EQ(std::memcmp(packed, "\x01\x23\x5D\xEE", 4), 0);
  const auto small = valueOf<Width64>("-0.004");
  EXPECT_EQ(sqlvdfp2dec(&small, sizeof small, packed, {5, 2}), 0);
  EXPECT_EQ(std::memcmp(packed, "\x00\x00\x0C\xEE", 4), 0) << "a zero is positive";
}

TEST_F(DfpCodes, TextGoesBothWays) {
  DfpalDecimal128 wide = {};
  DfpalDecimal64 narrow = kUntouched;
  EXPECT_EQ(sqlv_chr_2_dfp("  -1.50E+3 ", 11, &wide, sizeof wide), 0);
  EXPECT_EQ(textOf(wide), "-1.50E+3");
  EXPECT_EQ(sqlv_chr_2_dfp("12345678901234567", 17, &narrow, sizeof narrow), SQLRX_DFP_INEXACT);
  EXPECT_EQ(textOf(narrow), "1.234567890123457E+16");
  EXPECT_EQ(sqlv_chr_2_dfp("1E999", 5, &narrow, sizeof narrow), SQLRX_DFP_RANGE);
  EXPECT_EQ(textOf(narrow), "Infinity");
  narrow = kUntouched;
  for (const std::string_view wrong : {"", "   ", "1 2", "ten", "1.2.3", "NaN1234567890123456"})
    EXPECT_EQ(sqlv_chr_2_dfp(wrong.data(), wrong.size(), &narrow, sizeof narrow), SQLRX_DFP_INVALID) << wrong;
  EXPECT_EQ(narrow, kUntouched);

  char text[16] = "untouched";
  std::size_t length = 0;
  EXPECT_EQ(sqlvDecfloatToCharWrapper(&wide, sizeof wide, text, 8, &length), SQLRX_DEC_OVERFLOW);
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(length, 8U);
  EXPECT_EQ(sqlvDecfloatToCharWithDelimiter(&wide, sizeof wide, ',', text, 9, nullptr), 0);
  EXPECT_STREQ(text, "-1,50E+3");
}

TEST_F(DfpCodes, OtherSizesAreRefused) {
  const DfpalDecimal128 value = valueOf<Width128>("1");
  std::int16_t number = 7;
  std::uint8_t packed[2] = {0xEE, 0xEE};
  char text[64] = "untouched";
  for (const std::uint32_t size : {0U, 4U, 7U, 9U, 12U, 32U}) {
    DfpalDecimal128 target = value;
    EXPECT_EQ(sqlvdfp2sht(&value, size, &number), SQLRX_DFP_INVALID);
    EXPECT_EQ(sqlvdfp2dec(&value, size, packed, {3, 0}), SQLRX_DFP_INVALID);
    EXPECT_EQ(sqlv_chr_2_dfp("5", 1, &target, size), SQLRX_DFP_INVALID);
    EXPECT_EQ(sqlvDecfloatToCharWrapper(&value, size, text, sizeof text, nullptr), SQLRX_DFP_INVALID);
    EXPECT_EQ(target, value);
  }
  EXPECT_EQ(number, 7);
  EXPECT_EQ(packed[0], 0xEE);
  EXPECT_STREQ(text, "untouched");
}

TEST(DfpThread, HasItsOwnModeAndFlagsAndForkKeepsThem) {
  EXPECT_EQ(dfpalSetRoundingMode(DFPAL_ROUND_MODES), SQLO_INV_PARM);
  EXPECT_EQ(dfpalGetRoundingMode(), DFPAL_ROUND_HALF_EVEN);
  const RoundingMode mode(DFPAL_ROUND_FLOOR);
  EXPECT_EQ(dfpalSwapStatusFlag(~0U), 0U);
  DfpalControlFlags control = {};
  dfpalGetControlFlags(&control);
  std::thread([control] {
    DfpalControlFlags other = control;
    other.defaultRounding = DFPAL_ROUND_CEILING;
    EXPECT_EQ(dfpalSetControlFlags(&other), 0);
    EXPECT_EQ(dfpalGetRoundingMode(), DFPAL_ROUND_CEILING) << "that of the control flags until it sets one";
    dfpalSetRoundingMode(DFPAL_ROUND_UP);
    EXPECT_EQ(dfpalReadClearAllStatusFlag(), 0U);
    EXPECT_EQ(textOf(valueOf<Width64>("10000000000000001")), "1.000000000000001E+16");
    EXPECT_EQ(dfpalReadClearAllStatusFlag(), DFPAL_INEXACT);
  }).join();
  EXPECT_EQ(dfpalSetControlFlags(&control), 0);
  platformtest::inProcess([] {
    EXPECT_EQ(dfpalGetRoundingMode(), DFPAL_ROUND_FLOOR);
    EXPECT_EQ(dfpalSwapStatusFlag(0), DFPAL_CONDITIONS);
  });
  EXPECT_EQ(dfpalGetRoundingMode(), DFPAL_ROUND_FLOOR);
  EXPECT_EQ(dfpalReadClearAllStatusFlag(), DFPAL_CONDITIONS) << "and nothing but conditions";
}

// Integers of any length give what their digits give, and come back when they have no more digits than the width.
template <class Width>
void bothWays(std::uint64_t bits) {
  const auto each = [bits](auto from, auto to) {
    using Integer = decltype(to({}, 0));
    const auto number = static_cast<Integer>(bits);
    const auto value = from(number);
    const std::uint32_t raised = dfpalReadClearAllStatusFlag();
    EXPECT_EQ(value, valueOf<Width>(std::to_string(number)));
    EXPECT_EQ(dfpalReadClearAllStatusFlag(), raised);
    EXPECT_EQ(raised == 0 ? to(value, DFPAL_ROUND_HALF_EVEN) : number, number);
    dfpalReadClearAllStatusFlag();
    EXPECT_EQ(to(value, DFPAL_ROUND_MODES), Integer{0});
    EXPECT_EQ(textOf(Width::integral(value, DFPAL_ROUND_MODES)), "NaN");
    EXPECT_EQ(dfpalReadClearAllStatusFlag(), DFPAL_INVALID);
  };
  each(Width::fromInt32, Width::toInt32);
  each(Width::fromUint32, Width::toUint32);
  each(Width::fromInt64, Width::toInt64);
  each(Width::fromUint64, Width::toUint64);
}

TEST(DfpIntegers, BothWaysAndUnknownModes) {
  Random random;
  const RoundingMode mode(DFPAL_ROUND_HALF_EVEN);
  for (unsigned i = 0; i < 2000 && !HasFailure(); ++i) {
    const std::uint64_t bits = i % 2 == 0 ? random() >> random() % 64 : (1ULL << i / 2 % 64) - i % 3;
    bothWays<Width64>(bits);
    bothWays<Width128>(bits);
  }
}

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

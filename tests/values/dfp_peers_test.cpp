// Decimal floating point against two implementations with binary coefficients: Intel's library, which also turns them
// into densely packed ones, and the compiler's own types. What is compared is every bit of results, and conditions.
#include <cstring>
#include <random>

#include "peer_intel_decimal.h"
#include "values/dfp_support.h"
#include "values/seed.h"

namespace vek::valuestest {
namespace {

using peer::IntelDecimal;

IntelDecimal asIntel(DfpalDecimal64 value) { return {value.word, 0}; }
IntelDecimal asIntel(DfpalDecimal128 value) { return {value.low, value.high}; }
bool operator==(const IntelDecimal& left, const IntelDecimal& right) {
  return left.low == right.low && left.high == right.high;
}

// Which of its modes is which of ours; the two that it lacks are not in the table.
constexpr std::uint32_t kModes[][2] = {{DFPAL_ROUND_HALF_EVEN, peer::kIntelNearest},
                                       {DFPAL_ROUND_DOWN, peer::kIntelToZero},
                                       {DFPAL_ROUND_HALF_UP, peer::kIntelTiesAway},
                                       {DFPAL_ROUND_CEILING, peer::kIntelUp},
                                       {DFPAL_ROUND_FLOOR, peer::kIntelDown}};

std::uint32_t conditionsOf(unsigned flags) {
  constexpr std::uint32_t kPairs[][2] = {{peer::kIntelInvalid, DFPAL_INVALID},
                                         {peer::kIntelDivisionByZero, DFPAL_DIVISION_BY_ZERO},
                                         {peer::kIntelOverflow, DFPAL_OVERFLOW},
                                         {peer::kIntelUnderflow, DFPAL_UNDERFLOW},
                                         {peer::kIntelInexact, DFPAL_INEXACT}};
  std::uint32_t conditions = 0;
  for (const auto& pair : kPairs) conditions |= (flags & pair[0]) != 0 ? pair[1] : 0;
  return conditions;
}

// Random numbers: any bits, or few digits near one exponent, so that operands meet. No NaN: payloads are aligned
// differently there.
class Source {
 public:
  explicit Source(std::uint32_t seed) : random_(seed) {}

  std::uint64_t next() { return random_(); }

  template <class Width>
  typename Width::Value number() {
    for (;;) {
      const auto value = random_() % 4 == 0 ? anyBits(typename Width::Value{}) : valueOf<Width>(text());
      if (textOf(value).find("NaN") == std::string::npos) return value;
    }
  }

 private:
  DfpalDecimal64 anyBits(DfpalDecimal64 /*width*/) { return {random_()}; }
  DfpalDecimal128 anyBits(DfpalDecimal128 /*width*/) { return {random_(), random_()}; }
  std::string text() {
    std::string text;
    if (random_() % 2 == 0) text += '-';
    for (auto digits = 1 + random_() % 34; digits > 0; --digits)
      text += static_cast<char>('0' + (random_() % 3 == 0 ? random_() % 10 : random_() % 2 * 9));
    text += 'E';
    return text += std::to_string(static_cast<int>(random_() % 60) - 40);
  }

  std::mt19937_64 random_;
};

template <class Width>
struct Operation {
  typename Width::Value (*ours)(typename Width::Value, typename Width::Value) noexcept;
  peer::IntelBinary theirs;
};

template <class Width>
void compareWithIntel(const peer::IntelWidth& intel, Source& source) {
  const Operation<Width> operations[] = {{Width::add, intel.add},
                                         {Width::subtract, intel.subtract},
                                         {Width::multiply, intel.multiply},
                                         {Width::divide, intel.divide},
                                         {Width::quantize, intel.quantize}};
  for (const auto& mode : kModes) {
    const RoundingMode ours(mode[0]);
    for (unsigned i = 0; i < 4000 && !::testing::Test::HasFailure(); ++i) {
      const auto left = source.number<Width>();
      const auto right = source.number<Width>();
      const auto& operation = operations[i % std::size(operations)];
      dfpalReadClearAllStatusFlag();
      const auto result = operation.ours(left, right);
      unsigned flags = 0;
      const IntelDecimal theirs =
          operation.theirs(intel.fromDensely(asIntel(left)), intel.fromDensely(asIntel(right)), mode[1], &flags);
      const std::string what = std::to_string(i % std::size(operations)) + ": " + textOf(left) + ", " + textOf(right);
      EXPECT_TRUE(asIntel(result) == intel.toDensely(theirs)) << what << " gives " << textOf(result);
      EXPECT_EQ(dfpalReadClearAllStatusFlag(), conditionsOf(flags)) << what;
      const auto integral = Width::integralExact(left);
      flags = 0;
      const IntelDecimal theirIntegral = intel.integralExact(intel.fromDensely(asIntel(left)), mode[1], &flags);
      EXPECT_TRUE(asIntel(integral) == intel.toDensely(theirIntegral)) << textOf(left);
      EXPECT_EQ(dfpalReadClearAllStatusFlag(), conditionsOf(flags)) << textOf(left);
    }
  }
}

TEST(DfpIntel, AgreesBitByBitAndInConditions) {
  if (peer::intelDecimal64() == nullptr) GTEST_SKIP() << "libintelrdfpmath-dev is not installed";
  const Seed seed;
  Source source(seed.number());
  compareWithIntel<Width64>(*peer::intelDecimal64(), source);
  compareWithIntel<Width128>(*peer::intelDecimal128(), source);
}

TEST(DfpIntel, AgreesInTheOtherWidth) {
  if (peer::intelDecimal64() == nullptr) GTEST_SKIP() << "libintelrdfpmath-dev is not installed";
  const peer::IntelWidth& narrow = *peer::intelDecimal64();
  const peer::IntelWidth& wide = *peer::intelDecimal128();
  const Seed seed;
  Source source(seed.number());
  for (const auto& mode : kModes) {
    const RoundingMode ours(mode[0]);
    for (unsigned i = 0; i < 10000 && !HasFailure(); ++i) {
      const auto value = source.number<Width128>();
      dfpalReadClearAllStatusFlag();
      const DfpalDecimal64 result = dfpal_decimal128ToDecimal64(value);
      unsigned flags = 0;
      const IntelDecimal theirs = peer::intelNarrow(wide.fromDensely(asIntel(value)), mode[1], &flags);
      EXPECT_TRUE(asIntel(result) == narrow.toDensely(theirs)) << textOf(value) << " gives " << textOf(result);
      EXPECT_EQ(dfpalReadClearAllStatusFlag(), conditionsOf(flags)) << textOf(value);
      const IntelDecimal widened = peer::intelWiden(narrow.fromDensely(asIntel(result)), &flags);
      EXPECT_TRUE(asIntel(dfpal_decimal64ToDecimal128(result)) == wide.toDensely(widened)) << textOf(result);
    }
  }
}

// ---- the compiler's types ---------------------------------------------------------------------------------------

#if defined(__GNUC__) && !defined(__clang__)
using Gcc64 = float __attribute__((mode(DD)));
using Gcc128 = float __attribute__((mode(TD)));
__extension__ using Wide = unsigned __int128;

// A finite number of 34 digits as the compiler holds it on this processor: sign, exponent, binary coefficient.
Gcc128 gccOf(bool isNegative, Wide coefficient, unsigned biased) {
  const Wide bits = coefficient | static_cast<Wide>(biased) << 113U | static_cast<Wide>(isNegative) << 127U;
  Gcc128 value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// And its text. A binary coefficient of up to 113 bits has its own field; no result here is an infinity.
std::string textOfGcc(Gcc128 value) {
  Wide bits;
  std::memcpy(&bits, &value, sizeof bits);
  const auto coefficient = bits & ((static_cast<Wide>(1) << 113U) - 1);
  const int exponent = static_cast<int>(bits >> 113U & 0x3FFFU) - 6176;
  std::string reversed;
  Wide rest = coefficient;
  do reversed += static_cast<char>('0' + static_cast<int>(rest % 10));
  while ((rest /= 10) != 0);
  if (bits >> 127U != 0) reversed += '-';
  std::string text(reversed.rbegin(), reversed.rend());
  text += 'E';
  return text += std::to_string(exponent);
}

TEST(DfpCompiler, AgreesInResults) {
  const Gcc128 one = gccOf(false, 1, 6176);
  if (!(one == static_cast<Gcc128>(1))) GTEST_SKIP() << "the compiler holds decimals in another form here";
  const Seed seed;
  std::mt19937_64 random(seed.number());
  const RoundingMode mode(DFPAL_ROUND_HALF_EVEN);
  const auto pick = [&] {
    Wide coefficient = 0;
    for (auto digits = random() % 35; digits > 0; --digits) coefficient = coefficient * 10 + random() % 10;
    return gccOf(random() % 2 == 0, coefficient, static_cast<unsigned>(6156 + random() % 40));
  };
  for (unsigned i = 0; i < 20000 && !HasFailure(); ++i) {
    const Gcc128 left = pick();
    const Gcc128 right = pick();
    const auto l = valueOf<Width128>(textOfGcc(left));
    const auto r = valueOf<Width128>(textOfGcc(right));
    const auto expect = [&](DfpalDecimal128 ours, Gcc128 theirs, const char* what) {
      EXPECT_EQ(ours, valueOf<Width128>(textOfGcc(theirs))) << textOf(l) << what << textOf(r);
    };
    expect(Width128::add(l, r), left + right, " + ");
    expect(Width128::subtract(l, r), left - right, " - ");
    expect(Width128::multiply(l, r), left * right, " * ");
    if (textOf(r).find_first_of("123456789") < textOf(r).find('E')) expect(Width128::divide(l, r), left / right, " / ");
    const Gcc64 narrowed = static_cast<Gcc64>(left);
    expect(dfpal_decimal64ToDecimal128(dfpal_decimal128ToDecimal64(l)), static_cast<Gcc128>(narrowed), " narrowed, ");
    const std::int32_t comparison = left < right ? DFPAL_LESS : left > right ? DFPAL_GREATER : DFPAL_EQUAL;
    EXPECT_EQ(Width128::compare(l, r), comparison) << textOf(l) << ' ' << textOf(r);
    const auto integer = static_cast<std::int64_t>(random() >> random() % 64);
    expect(Width128::fromInt64(integer), static_cast<Gcc128>(integer), " integer, ");
  }
}
#else
TEST(DfpCompiler, AgreesInResults) { GTEST_SKIP() << "this compiler has no decimal types"; }
#endif

}  // namespace
}  // namespace vek::valuestest

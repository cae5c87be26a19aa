// Decimal floating point against two implementations with binary coefficients: Intel's library, which also turns them
// into densely packed ones, and the compiler's own types. What is compared is every bit of results, and conditions.
#include "peer_intel_decimal.h"
#include "values/support.h"

namespace vek::valuestest {
namespace {

using peer::IntelDecimal;

IntelDecimal asIntel(DfpalDecimal64 value) { return {value.word, 0}; }
IntelDecimal asIntel(DfpalDecimal128 value) { return {value.low, value.high}; }
bool areSame(const IntelDecimal& left, const IntelDecimal& right) {
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

  Random random_;
};

// Whether an operation gives the same bits here and there, where they are turned into those of `width`, and raises the
// same conditions. A peer that tells none sets the flags to kUntold.
constexpr unsigned kUntold = ~0U;

template <class Ours, class Theirs>
void expectSame(const std::string& what, const peer::IntelWidth& width, Ours ours, Theirs theirs) {
  dfpalReadClearAllStatusFlag();
  const IntelDecimal result = asIntel(ours());
  const std::uint32_t conditions = dfpalReadClearAllStatusFlag();
  unsigned flags = 0;
  EXPECT_TRUE(areSame(result, width.toDensely(theirs(&flags)))) << what;
  EXPECT_EQ(conditions, flags == kUntold ? conditions : conditionsOf(flags)) << what;
}

template <class Width>
void compareWithIntel(const peer::IntelWidth& intel, unsigned mode, Source& source) {
  const auto left = source.number<Width>();
  const auto right = source.number<Width>();
  const IntelDecimal l = intel.fromDensely(asIntel(left));
  const IntelDecimal r = intel.fromDensely(asIntel(right));
  const auto same = [&](const char* name, auto operation, peer::IntelBinary theirs) {
    expectSame(
        textOf(left) + name + textOf(right), intel, [&] { return operation(left, right); },
        [&](unsigned* flags) { return theirs(l, r, mode, flags); });
  };
  same(" + ", Width::add, intel.add);
  same(" - ", Width::subtract, intel.subtract);
  same(" * ", Width::multiply, intel.multiply);
  same(" / ", Width::divide, intel.divide);
  same(" with the exponent of ", Width::quantize, intel.quantize);
  expectSame(
      "integral " + textOf(left), intel, [&] { return Width::integralExact(left); },
      [&](unsigned* flags) { return intel.integralExact(l, mode, flags); });
}

TEST(DfpIntel, AgreesBitByBitAndInConditions) {
  const peer::IntelWidth* const narrow = peer::intelDecimal64();
  const peer::IntelWidth* const wide = peer::intelDecimal128();
  if (wide == nullptr) GTEST_SKIP() << "libintelrdfpmath-dev is not installed";
  Source source;
  for (const auto& mode : kModes) {
    const RoundingMode ours(mode[0]);
    for (unsigned i = 0; i < 5000 && !HasFailure(); ++i) {
      compareWithIntel<Width64>(*narrow, mode[1], source);
      compareWithIntel<Width128>(*wide, mode[1], source);
      const auto many = source.number<Width128>();
      const auto few = source.number<Width64>();
      const IntelDecimal m = wide->fromDensely(asIntel(many));
      const IntelDecimal f = narrow->fromDensely(asIntel(few));
      expectSame(
          "narrow " + textOf(many), *narrow, [&] { return dfpal_decimal128ToDecimal64(many); },
          [&](unsigned* flags) { return peer::intelNarrow(m, mode[1], flags); });
      expectSame(
          "widen " + textOf(few), *wide, [&] { return dfpal_decimal64ToDecimal128(few); },
          [&](unsigned* flags) { return peer::intelWiden(f, flags); });
    }
  }
}

// ---- the compiler's types ---------------------------------------------------------------------------------------

#if defined(__GNUC__) && !defined(__clang__)
using Gcc64 = float __attribute__((mode(DD)));
using Gcc128 = float __attribute__((mode(TD)));

// The compiler holds its numbers as Intel's library does.
template <class Gcc>
Gcc gccOf(IntelDecimal bits) {
  Gcc value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

template <class Gcc>
IntelDecimal bitsOf(Gcc value) {
  IntelDecimal bits = {};
  std::memcpy(&bits, &value, sizeof value);
  return bits;
}

template <class Width, class Gcc>
void compareWithGcc(const peer::IntelWidth& width, Source& source) {
  for (unsigned i = 0; i < 5000 && !::testing::Test::HasFailure(); ++i) {
    const auto left = source.number<Width>();
    const auto right = source.number<Width>();
    const Gcc l = gccOf<Gcc>(width.fromDensely(asIntel(left)));
    const Gcc r = gccOf<Gcc>(width.fromDensely(asIntel(right)));
    const auto same = [&](const char* name, auto operation, Gcc theirs) {
      expectSame(
          textOf(left) + name + textOf(right), width, [&] { return operation(left, right); },
          [&](unsigned* flags) { return *flags = kUntold, bitsOf(theirs); });
    };
    same(" + ", Width::add, l + r);
    same(" - ", Width::subtract, l - r);
    same(" * ", Width::multiply, l * r);
    same(" / ", Width::divide, l / r);
  }
}

TEST(DfpCompiler, AgreesInResults) {
  const peer::IntelWidth* const narrow = peer::intelDecimal64();
  const peer::IntelWidth* const wide = peer::intelDecimal128();
  if (wide == nullptr) GTEST_SKIP() << "libintelrdfpmath-dev, which makes its numbers, is not installed";
  if (!areSame(bitsOf(static_cast<Gcc128>(1)), wide->fromDensely(asIntel(dfpal_decimal128FromInt32(1)))))
    GTEST_SKIP() << "the compiler holds decimals in another form here";
  const RoundingMode mode(DFPAL_ROUND_HALF_EVEN);
  Source source;
  compareWithGcc<Width64, Gcc64>(*narrow, source);
  compareWithGcc<Width128, Gcc128>(*wide, source);
  for (unsigned i = 0; i < 10000 && !HasFailure(); ++i) {
    const auto value = source.number<Width128>();
    const auto theirs = static_cast<Gcc64>(gccOf<Gcc128>(wide->fromDensely(asIntel(value))));
    EXPECT_TRUE(areSame(asIntel(dfpal_decimal128ToDecimal64(value)), narrow->toDensely(bitsOf(theirs))))
        << textOf(value);
  }
}
#endif

}  // namespace
}  // namespace vek::valuestest

// The decimal floating-point library: what its files share, and what the floors above may use besides the exported
// functions of veksys/values/dfpal.h.
//
// A value is taken apart into a Number with a binary coefficient, worked on, and put together again by `finish`, the
// one place that rounds to a width, and knows overflow, underflow and the exponents that a width has. Operations are
// pure: they read the rounding mode from a context and note the conditions that they meet in it; the exported functions
// make the context from the thread's state and add its conditions to the thread's flags (DfpScope).
//
// The width is a template argument everywhere: Decimal64 or Decimal128.
#pragma once

#include <array>
#include <cstdint>

#include "platform/ossx_tables.h"
#include "veksys/values/dfpal.h"

namespace vek {

__extension__ using DfpWide = unsigned __int128;

// ---- powers of ten, digits --------------------------------------------------------------------------------------

// Every coefficient on its way to `finish` is below this power of ten, so that the upper of its two parts (split18)
// fits a word, as does everything that such a part is multiplied with or divided by.
inline constexpr unsigned DFP_WORK_DIGITS = 37;
inline constexpr unsigned DFP_LOWER_DIGITS = 18;

inline constexpr auto kDfpTenTo = [] {
  std::array<DfpWide, DFP_WORK_DIGITS + 1> powers = {1};
  for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}();

inline constexpr auto kDfpTenTo64 = [] {
  std::array<std::uint64_t, 20> powers = {1};
  for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}();

inline constexpr std::uint64_t kDfpTenTo18 = kDfpTenTo64[DFP_LOWER_DIGITS];

// The decimal digits of a number below 10^37; 0 for 0.
inline unsigned dfpDigits(DfpWide number) noexcept {
  const auto high = static_cast<std::uint64_t>(number >> 64U);
  const auto low = static_cast<std::uint64_t>(number);
  const int zeros = high != 0 ? __builtin_clzll(high) : 64 + __builtin_clzll(low | 1);
  const unsigned estimate = static_cast<unsigned>(128 - zeros) * 1233U >> 12U;  // log10(2), never too large
  return estimate + (number >= kDfpTenTo[estimate] ? 1U : 0U);
}

struct DfpSplit {
  std::uint64_t upper;
  std::uint64_t lower;  // below 10^18
};

// A number below 10^37 divided by 10^18. The quotient is first estimated from the upper 64 of 123 bits, never too large
// and at most 2 too small.
inline DfpSplit dfpSplit18(DfpWide number) noexcept {
  constexpr unsigned kDropped = 59;
  constexpr auto kReciprocal = static_cast<std::uint64_t>((DfpWide{1} << (64U + kDropped)) / kDfpTenTo18);
  auto upper = static_cast<std::uint64_t>((number >> kDropped) * kReciprocal >> 64U);
  auto lower = static_cast<std::uint64_t>(number) - upper * kDfpTenTo18;
  while (lower >= kDfpTenTo18) {
    ++upper;
    lower -= kDfpTenTo18;
  }
  return {upper, lower};
}

// ---- rounding ---------------------------------------------------------------------------------------------------

// How what was dropped compares to one unit of the last digit that was kept.
enum class DfpRest : std::uint8_t { Zero, BelowHalf, Half, AboveHalf };

struct DfpDropped {
  DfpWide kept;
  DfpRest rest;
};

// Drops the last `count` digits of a number below 10^37, any count.
DfpDropped dfpDropDigits(DfpWide number, unsigned count) noexcept;

// Per mode a bit for each of the 16 cases: rest, sign, last digit odd.
constexpr unsigned dfpRoundingCase(bool isNegative, bool isOdd, DfpRest rest) noexcept {
  return static_cast<unsigned>(rest) << 2U | (isNegative ? 2U : 0U) | (isOdd ? 1U : 0U);
}

constexpr bool dfpGoesUp(std::uint32_t mode, bool isNegative, bool isOdd, DfpRest rest) noexcept {
  switch (mode) {
    case DFPAL_ROUND_HALF_EVEN:
      return rest == DfpRest::AboveHalf || (rest == DfpRest::Half && isOdd);
    case DFPAL_ROUND_HALF_UP:
      return rest >= DfpRest::Half;
    case DFPAL_ROUND_HALF_DOWN:
      return rest == DfpRest::AboveHalf;
    case DFPAL_ROUND_CEILING:
      return rest != DfpRest::Zero && !isNegative;
    case DFPAL_ROUND_FLOOR:
      return rest != DfpRest::Zero && isNegative;
    case DFPAL_ROUND_UP:
      return rest != DfpRest::Zero;
    default:
      return false;
  }
}

inline constexpr auto kDfpRoundsUp = [] {
  std::array<std::uint16_t, DFPAL_ROUND_MODES> table = {};
  for (std::uint32_t mode = 0; mode < table.size(); ++mode)
    for (const DfpRest rest : {DfpRest::Zero, DfpRest::BelowHalf, DfpRest::Half, DfpRest::AboveHalf})
      for (const bool isNegative : {false, true})
        for (const bool isOdd : {false, true})
          if (dfpGoesUp(mode, isNegative, isOdd, rest))
            table[mode] = static_cast<std::uint16_t>(table[mode] | 1U << dfpRoundingCase(isNegative, isOdd, rest));
  return table;
}();

// Whether the digit that was kept last goes up by one. `mode` is one of the seven.
inline bool dfpRoundsUp(std::uint32_t mode, bool isNegative, bool isOdd, DfpRest rest) noexcept {
  const std::uint32_t cases = kDfpRoundsUp[mode];
  return (cases >> dfpRoundingCase(isNegative, isOdd, rest) & 1U) != 0;
}

// What is left of a division by `divisor`, a power of ten above 1; with `isMore` something follows it.
inline DfpRest dfpCompareToHalf(std::uint64_t rest, std::uint64_t divisor, bool isMore) noexcept {
  const std::uint64_t half = divisor / 2;
  if (rest == half) return isMore ? DfpRest::AboveHalf : DfpRest::Half;
  if (rest > half) return DfpRest::AboveHalf;
  return rest == 0 && !isMore ? DfpRest::Zero : DfpRest::BelowHalf;
}

// ---- declets and binary -----------------------------------------------------------------------------------------

inline std::uint64_t dfpBinaryOf3(std::uint64_t declets) noexcept {
  const auto at = [declets](unsigned shift) -> std::uint64_t { return DPD2BIN[declets >> shift & (DECLETS - 1)]; };
  return (at(2 * DECLET_BITS) * 1000 + at(DECLET_BITS)) * 1000 + at(0);
}

// Six declets, 18 digits; of five with a digit above them, 16.
inline std::uint64_t dfpBinaryOf6(std::uint64_t declets) noexcept {
  return dfpBinaryOf3(declets >> 3 * DECLET_BITS) * 1'000'000'000 + dfpBinaryOf3(declets);
}

inline std::uint64_t dfpDecletsOf9(std::uint32_t number) noexcept {
  const std::uint32_t thousands = number / 1000;
  const std::uint32_t upper = thousands / 1000;
  return std::uint64_t{BIN2DPD[upper]} << 2 * DECLET_BITS |
         std::uint64_t{BIN2DPD[thousands - upper * 1000]} << DECLET_BITS | BIN2DPD[number - thousands * 1000];
}

inline std::uint64_t dfpDecletsOf18(std::uint64_t number) noexcept {
  const std::uint64_t upper = number / 1'000'000'000;
  return dfpDecletsOf9(static_cast<std::uint32_t>(upper)) << 3 * DECLET_BITS |
         dfpDecletsOf9(static_cast<std::uint32_t>(number - upper * 1'000'000'000));
}

// ---- numbers ----------------------------------------------------------------------------------------------------

enum class DfpKind : std::uint8_t { Finite, Infinite, Quiet, Signalling };

struct DfpNumber {
  DfpKind kind = DfpKind::Finite;
  bool isNegative = false;
  std::int32_t exponent = 0;
  DfpWide coefficient = 0;  // of a NaN: its payload

  bool isNan() const noexcept { return kind >= DfpKind::Quiet; }
  bool isZero() const noexcept { return kind == DfpKind::Finite && coefficient == 0; }
};

// What an operation knows and tells.
struct DfpContext {
  std::uint32_t mode = DFPAL_ROUND_HALF_EVEN;
  std::uint32_t raised = 0;
};

// The widths.
struct Decimal64 {
  using Value = DfpalDecimal64;
  static constexpr unsigned kDigits = 16;
  static constexpr unsigned kContinuationBits = 8;      // of the exponent
  static constexpr std::int32_t kLeastExponent = -398;  // of the last digit
  static constexpr std::int32_t kMostExponent = 369;
};

struct Decimal128 {
  using Value = DfpalDecimal128;
  static constexpr unsigned kDigits = 34;
  static constexpr unsigned kContinuationBits = 12;
  static constexpr std::int32_t kLeastExponent = -6176;
  static constexpr std::int32_t kMostExponent = 6111;
};

// The upper word of a value: sign, combination field, continuation of the exponent, and what is left of the word.
inline constexpr std::uint64_t DFP_SIGN = std::uint64_t{1} << 63U;
inline constexpr std::uint64_t DFP_SPECIAL = std::uint64_t{0x1E} << 58U;     // these four bits set: infinity or NaN
inline constexpr std::uint64_t DFP_NAN = std::uint64_t{0x1F} << 58U;         // all five: NaN
inline constexpr std::uint64_t DFP_SIGNALLING = std::uint64_t{0x3F} << 57U;  // six: a signalling one

constexpr std::uint64_t dfpUpperWord(DfpalDecimal64 value) noexcept { return value.word; }
constexpr std::uint64_t dfpUpperWord(DfpalDecimal128 value) noexcept { return value.high; }

// Whether a value is a signalling NaN.
template <class Value>
constexpr bool dfpIsSignalling(Value value) noexcept {
  return (dfpUpperWord(value) & DFP_SIGNALLING) == DFP_SIGNALLING;
}

// The declets of a coefficient: the first digit and five declets, which both widths have, and the six of decimal128
// that follow. The declet of a single digit is that digit, so that the first one can be handled like the others.
inline constexpr unsigned DFP_TRAILING_BITS = 5 * DECLET_BITS;
inline constexpr unsigned DFP_LOWER_BITS = 6 * DECLET_BITS;
inline constexpr std::uint64_t DFP_TRAILING = (std::uint64_t{1} << DFP_TRAILING_BITS) - 1;
inline constexpr std::uint64_t DFP_LOWER = (std::uint64_t{1} << DFP_LOWER_BITS) - 1;

struct DfpDeclets {
  std::uint64_t upper;  // DFP_TRAILING, and the first digit above it
  std::uint64_t lower;
};

// The declets of a value without its first digit.
constexpr DfpDeclets dfpTrailing(DfpalDecimal64 value) noexcept { return {value.word & DFP_TRAILING, 0}; }
constexpr DfpDeclets dfpTrailing(DfpalDecimal128 value) noexcept {
  return {(value.high << 4U | value.low >> DFP_LOWER_BITS) & DFP_TRAILING, value.low & DFP_LOWER};
}

// Biased exponent and first digit of a value that is finite.
struct DfpFields {
  std::uint32_t biased;
  std::uint32_t firstDigit;
};

template <class Format>
inline constexpr unsigned kDfpContinuationShift = 58 - Format::kContinuationBits;

// The combination field of five bits: the upper two of the exponent and the first digit. A first digit of 8 or 9 shows
// as two bits set on top. Both ways without a branch, since first digits are as good as random.
inline constexpr auto kDfpCombinations = [] {
  std::array<std::uint8_t, 32> table = {};  // upper << 4 | digit
  for (std::uint32_t field = 0; field < table.size(); ++field)
    table[field] = static_cast<std::uint8_t>(field < 0x18 ? (field >> 3U) << 4U | (field & 7U)
                                                          : (field >> 1U & 3U) << 4U | 8U | (field & 1U));
  return table;
}();

constexpr std::uint32_t dfpCombinationOf(std::uint32_t upper, std::uint32_t digit) noexcept {
  const std::uint32_t small = upper << 3U | digit;
  const std::uint32_t large = 0x18U | upper << 1U | (digit & 1U);
  return small ^ ((small ^ large) & (0U - (digit >> 3U)));
}

template <class Format>
constexpr DfpFields dfpFieldsOf(std::uint64_t upperWord) noexcept {
  const std::uint32_t combination = kDfpCombinations[upperWord >> 58U & 0x1FU];
  const auto continuation =
      static_cast<std::uint32_t>(upperWord >> kDfpContinuationShift<Format>) & ((1U << Format::kContinuationBits) - 1);
  return {.biased = (combination >> 4U) << Format::kContinuationBits | continuation, .firstDigit = combination & 0xFU};
}

template <class Format>
constexpr std::uint64_t dfpUpperWordOf(bool isNegative, const DfpFields& fields) noexcept {
  const std::uint64_t combination = dfpCombinationOf(fields.biased >> Format::kContinuationBits, fields.firstDigit);
  const std::uint64_t continuation = fields.biased & ((1U << Format::kContinuationBits) - 1);
  return static_cast<std::uint64_t>(isNegative) << 63U | combination << 58U |
         continuation << kDfpContinuationShift<Format>;
}

// The value of an upper word without declets, and its declets. A first digit above them is left out.
constexpr DfpalDecimal64 dfpAssemble(std::uint64_t upperWord, const DfpDeclets& declets, Decimal64 /*width*/) noexcept {
  return {upperWord | (declets.upper & DFP_TRAILING)};
}
constexpr DfpalDecimal128 dfpAssemble(std::uint64_t upperWord, const DfpDeclets& declets,
                                      Decimal128 /*width*/) noexcept {
  return {declets.lower | declets.upper << DFP_LOWER_BITS, upperWord | (declets.upper & DFP_TRAILING) >> 4U};
}

// Takes a value apart, whatever its bits; puts one together. The coefficient has at most the digits of the width (a
// payload one less) and the exponent is one that the width has.
template <class Format>
DfpNumber dfpUnpack(typename Format::Value value) noexcept;
template <class Format>
typename Format::Value dfpPack(const DfpNumber& number) noexcept;

// Rounds to the width and packs. The exact value is `coefficient` (below 10^37) with `exponent`; with `isMore` it is
// larger by less than one unit of the coefficient, which then has more digits than the width.
template <class Format>
typename Format::Value dfpFinish(DfpContext& context, const DfpNumber& number, bool isMore = false) noexcept;

// The result when `left` or `right` is a NaN.
template <class Format>
typename Format::Value dfpNanOf(DfpContext& context, const DfpNumber& left, const DfpNumber& right) noexcept;

// The result of an operation that has none.
template <class Format>
typename Format::Value dfpInvalid(DfpContext& context) noexcept;

// ---- the thread's state -----------------------------------------------------------------------------------------

struct DfpThread {
  std::uint8_t raised;
  std::uint8_t modeAndOne;  // 0: the thread set none
};

static_assert(sizeof(DfpThread) <= 4 && DFPAL_CONDITIONS <= 0xFF);

extern thread_local constinit DfpThread t_dfp __attribute__((tls_model("initial-exec")));

// The rounding mode of the control flags.
std::uint32_t dfpDefaultMode() noexcept;

inline std::uint32_t dfpThreadMode() noexcept {
  const std::uint32_t own = t_dfp.modeAndOne;
  return own != 0 ? own - 1 : dfpDefaultMode();
}

// The context of one operation in the mode of the thread, or in a given one: what it raised is added to the thread's
// flags at its end.
class DfpScope : public DfpContext {
 public:
  explicit DfpScope(std::uint32_t ofMode = dfpThreadMode()) noexcept { mode = ofMode; }
  ~DfpScope() {
    if (raised != 0) t_dfp.raised = static_cast<std::uint8_t>(t_dfp.raised | raised);
  }
  DfpScope(const DfpScope&) = delete;
  DfpScope& operator=(const DfpScope&) = delete;
};

}  // namespace vek

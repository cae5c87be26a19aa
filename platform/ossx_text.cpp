// Decimal floating point to and from text.
#include <bit>
#include <cstring>
#include <string_view>

#include "platform/ossx.h"
#include "platform/ossx_scan.h"

namespace vek {
namespace {

// ---- reading digits ---------------------------------------------------------------------------------------------

// One more than a number of 34 digits needs to be rounded rightly with the fact that something follows.
constexpr unsigned kKeptDigits = 36;

constexpr bool isDigit(char c) noexcept { return static_cast<unsigned char>(c - '0') < 10; }
constexpr char lowerCase(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::uint64_t eightCharacters(const char* text) noexcept {
  std::uint64_t word;
  std::memcpy(&word, text, sizeof word);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;  // the first character is the lowest byte
}

bool areDigits(std::uint64_t characters) noexcept {
  constexpr std::uint64_t kUpperHalves = 0xF0F0F0F0F0F0F0F0U;
  constexpr std::uint64_t kSix = 0x0606060606060606U;
  return ((characters & kUpperHalves) | ((characters + kSix) & kUpperHalves) >> 4U) == 0x3333333333333333U;
}

// Eight digits as a number: neighbours are joined, halving their number each time.
std::uint64_t numberOf(std::uint64_t characters) noexcept {
  characters -= 0x3030303030303030U;
  characters = characters * 10 + (characters >> 8U);
  constexpr std::uint64_t kPair = 0x000000FF000000FFU;
  return ((characters & kPair) * (100 + (1'000'000ULL << 32U)) +
          (characters >> 16U & kPair) * (1 + (10'000ULL << 32U))) >>
         32U;
}

// What stands before the exponent of a text.
struct Digits {
  DfpWide coefficient = 0;
  unsigned kept = 0;  // digits in the coefficient, zeros in front not counted
  std::int64_t exponent = 0;
  bool isMore = false;  // digits other than zeros follow those kept
  bool areThere = false;

  // Takes the digits from `from` on and returns where they end. `step` is what each one that is kept adds to the
  // exponent, -1 behind the point, and `skipped` what each of the others does.
  const char* take(const char* from, const char* end, int step, int skipped) noexcept {
    const char* at = from;
    if (kept == 0)
      for (; at != end && *at == '0'; ++at) exponent += step;
    const char* const first = at;
    at = takeKept(at, end);
    exponent += step * (at - first);
    for (; at != end && isDigit(*at); ++at) {
      isMore = isMore || *at != '0';
      exponent += skipped;
    }
    areThere = areThere || at != from;
    return at;
  }

 private:
  const char* takeKept(const char* at, const char* end) noexcept {
    for (; end - at >= 8 && kept + 8 <= kKeptDigits; at += 8, kept += 8) {
      const std::uint64_t characters = eightCharacters(at);
      if (!areDigits(characters)) break;
      coefficient = coefficient * 100'000'000 + numberOf(characters);
    }
    std::uint64_t rest = 0;
    const char* const first = at;
    for (; at != end && kept < kKeptDigits && at - first < 16 && isDigit(*at); ++at, ++kept)
      rest = rest * 10 + static_cast<unsigned char>(*at - '0');
    coefficient = coefficient * kDfpTenTo64[static_cast<std::size_t>(at - first)] + rest;
    return at;
  }
};

// ---- reading words ----------------------------------------------------------------------------------------------

bool startsWith(std::string_view text, std::string_view word) noexcept {
  if (text.size() < word.size()) return false;
  for (std::size_t i = 0; i < word.size(); ++i)
    if (lowerCase(text[i]) != word[i]) return false;
  return true;
}

// The payload of a NaN: digits up to the end, or none.
template <class Format>
bool readPayload(std::string_view text, DfpNumber& number) noexcept {
  Digits digits;
  const char* const end = text.data() + text.size();
  if (digits.take(text.data(), end, 0, 0) != end || digits.kept >= Format::kDigits) return false;
  number.coefficient = digits.coefficient;
  return true;
}

template <class Format>
bool readWord(std::string_view text, DfpNumber& number) noexcept {
  constexpr std::string_view kInfinity = "infinity";
  constexpr std::size_t kShort = 3;  // Inf, NaN
  if (startsWith(text, kInfinity.substr(0, kShort))) {
    number.kind = DfpKind::Infinite;
    return text.size() == kShort || (text.size() == kInfinity.size() && startsWith(text, kInfinity));
  }
  number.kind = startsWith(text, "snan") ? DfpKind::Signalling : DfpKind::Quiet;
  if (number.kind == DfpKind::Quiet && !startsWith(text, "nan")) return false;
  return readPayload<Format>(text.substr(kShort + (number.kind == DfpKind::Signalling ? 1 : 0)), number);
}

// ---- reading a value --------------------------------------------------------------------------------------------

// Exponents beyond this are beyond every width, whatever the digits.
constexpr std::int64_t kFarExponent = 100'000;

// ---- writing ----------------------------------------------------------------------------------------------------

struct DecletText {
  char digits[3];
  std::uint8_t zeros;  // in front, 0..3
};

constexpr auto kDecletTexts = [] {
  std::array<DecletText, DECLETS> table = {};
  for (unsigned declet = 0; declet < DECLETS; ++declet) {
    const unsigned value = DPD2BIN[declet];
    table[declet] = {{static_cast<char>('0' + value / 100), static_cast<char>('0' + value / 10 % 10),
                      static_cast<char>('0' + value % 10)},
                     static_cast<std::uint8_t>(value == 0    ? 3
                                               : value < 10  ? 2
                                               : value < 100 ? 1
                                                             : 0)};
  }
  return table;
}();

// The digits of a coefficient, in a buffer that leaves room for stores that are wider than what they have to write.
template <class Format>
struct DigitText {
  static constexpr unsigned kDeclets = (Format::kDigits - 1) / 3;

  char characters[Format::kDigits + 46];
  unsigned first;  // where the first digit stands that is not a zero; the last one, when all are

  DigitText(std::uint32_t firstDigit, const DfpDeclets& declets) noexcept {
    characters[0] = static_cast<char>('0' + firstDigit);
    if (kLower == 0 || firstDigit != 0 || declets.upper != 0)
      for (unsigned i = 0; i < kDeclets - kLower; ++i) put(declets, i);
    for (unsigned i = kDeclets - kLower; i < kDeclets; ++i) put(declets, i);
    first = firstDigit != 0 ? 0 : zerosInFront(declets);
  }

  const char* begin() const noexcept { return characters + first; }
  unsigned size() const noexcept { return Format::kDigits - first; }

 private:
  static constexpr unsigned kLower = Format::kDigits > DFP_LOWER_DIGITS ? 6 : 0;

  void put(const DfpDeclets& declets, unsigned index) noexcept {
    const DecletText& text = kDecletTexts[declet(declets, kDeclets - 1 - index)];
    std::memcpy(characters + 1 + index * 3, &text, sizeof text);
  }

  // From where the uppermost bit stands; a coefficient of 0 keeps its last digit.
  static unsigned zerosInFront(const DfpDeclets& declets) noexcept {
    const std::uint64_t word = declets.upper != 0 ? declets.upper : declets.lower;
    if (word == 0) return Format::kDigits - 1;
    const unsigned index = (63U - static_cast<unsigned>(__builtin_clzll(word))) / DECLET_BITS;
    const unsigned declet = index + (declets.upper != 0 ? kLower : 0);
    return Format::kDigits - 3 * (declet + 1) + kDecletTexts[word >> index * DECLET_BITS].zeros;
  }

  static std::size_t declet(const DfpDeclets& declets, unsigned index) noexcept {
    const std::uint64_t word =
        index < kLower ? declets.lower >> index * DECLET_BITS : declets.upper >> (index - kLower) * DECLET_BITS;
    return static_cast<std::size_t>(word & (DECLETS - 1));
  }
};

static_assert(DFPAL_DECIMAL64_TEXT_BYTES == Decimal64::kDigits + 9 &&
              DFPAL_DECIMAL128_TEXT_BYTES == Decimal128::kDigits + 9);

// Copies up to 40 characters in stores of fixed sizes: both sides have room for 40.
template <class Format>
void copyWide(char* to, const char* from) noexcept {
  std::memcpy(to, from, Format::kDigits > DFP_LOWER_DIGITS ? 40 : 16);
}

// An exponent with its sign, without zeros in front.
char* writeExponent(char* at, std::int32_t exponent) noexcept {
  *at++ = 'E';
  *at++ = exponent < 0 ? '-' : '+';
  const auto magnitude = static_cast<unsigned>(exponent < 0 ? -exponent : exponent);
  const unsigned thousands = magnitude / 1000;
  const DecletText& text = kDecletTexts[BIN2DPD[magnitude - thousands * 1000]];
  unsigned zeros = text.zeros < 3 ? text.zeros : 2U;
  if (thousands != 0) {
    *at++ = static_cast<char>('0' + thousands);
    zeros = 0;
  }
  for (unsigned i = zeros; i < 3; ++i) *at++ = text.digits[i];
  return at;
}

// The digits of a finite number with point and exponent. `digits` are followed by room to read.
template <class Format>
char* writeNumber(char* at, const DigitText<Format>& text, std::int32_t exponent) noexcept {
  const auto count = static_cast<std::int32_t>(text.size());
  const std::int32_t adjusted = exponent + count - 1;  // of the first digit
  if (exponent > 0 || adjusted < -6) {
    at[0] = text.begin()[0];
    at[1] = '.';
    copyWide<Format>(at + 2, text.begin() + 1);
    return writeExponent(at + (count > 1 ? count + 1 : 1), adjusted);
  }
  if (exponent == 0) {
    copyWide<Format>(at, text.begin());
    return at + count;
  }
  if (adjusted < 0) {
    std::memcpy(at, "0.00000", 8);
    at += 1 - adjusted;
    copyWide<Format>(at, text.begin());
    return at + count;
  }
  const std::int32_t before = adjusted + 1;
  copyWide<Format>(at, text.begin());
  copyWide<Format>(at + before + 1, text.begin() + before);
  at[before] = '.';
  return at + count + 1;
}

template <class Format>
char* writeSpecial(char* at, std::uint64_t upperWord, const DfpDeclets& declets) noexcept {
  const bool isNan = (upperWord & DFP_NAN) == DFP_NAN;
  const std::string_view word = !isNan ? "Infinity" : (upperWord & DFP_SIGNALLING) == DFP_SIGNALLING ? "sNaN" : "NaN";
  std::memcpy(at, word.data(), word.size());
  at += word.size();
  if (!isNan || (declets.upper | declets.lower) == 0) return at;
  const DigitText<Format> payload(0, declets);
  std::memcpy(at, payload.begin(), payload.size());
  return at + payload.size();
}

template <class Format>
std::size_t write(typename Format::Value value, char* buffer, std::size_t bufferBytes) noexcept {
  char text[Format::kDigits * 2 + 64];  // the longest text, and room behind it for the widest store
  char* at = text;
  const std::uint64_t upperWord = dfpUpperWord(value);
  const DfpDeclets declets = dfpTrailing(value);
  *at = '-';
  at += upperWord >> 63U;
  if ((upperWord & DFP_SPECIAL) == DFP_SPECIAL) [[unlikely]] {
    at = writeSpecial<Format>(at, upperWord, declets);
  } else {
    const DfpFields fields = dfpFieldsOf<Format>(upperWord);
    at = writeNumber<Format>(at, DigitText<Format>(fields.firstDigit, declets),
                             static_cast<std::int32_t>(fields.biased) + Format::kLeastExponent);
  }
  *at = '\0';
  const auto count = static_cast<std::size_t>(at - text);
  // A buffer that is large enough for any value gets the same number of bytes each time.
  constexpr std::size_t kLongest = Format::kDigits + 9;
  if (bufferBytes >= kLongest) [[likely]]
    std::memcpy(buffer, text, kLongest);
  else if (count < bufferBytes)
    std::memcpy(buffer, text, count + 1);
  return count;
}

}  // namespace

template <class Format>
typename Format::Value dfpReadLong(const char* text, std::size_t bytes) noexcept {
  DfpScope context;
  const char* at = text;
  const char* const end = text + bytes;
  DfpNumber number;
  number.isNegative = at != end && *at == '-';
  if (at != end && (*at == '-' || *at == '+')) ++at;
  const char* const unsignedText = at;
  Digits digits;
  at = digits.take(at, end, 0, 1);
  if (at != end && *at == '.') at = digits.take(at + 1, end, -1, 0);
  if (!digits.areThere) {
    const bool isWord = readWord<Format>({unsignedText, static_cast<std::size_t>(end - unsignedText)}, number);
    return isWord ? dfpPack<Format>(number) : dfpInvalid<Format>(context);
  }
  if (at != end && (lowerCase(*at) != 'e' || !dfpReadExponent(at + 1, end, &digits.exponent)))
    return dfpInvalid<Format>(context);
  number.exponent = static_cast<std::int32_t>(digits.exponent < -kFarExponent  ? -kFarExponent
                                              : digits.exponent > kFarExponent ? kFarExponent
                                                                               : digits.exponent);
  number.coefficient = digits.coefficient;
  return dfpFinish<Format>(context, number, digits.isMore);
}

template DfpalDecimal64 dfpReadLong<Decimal64>(const char*, std::size_t) noexcept;
template DfpalDecimal128 dfpReadLong<Decimal128>(const char*, std::size_t) noexcept;

}  // namespace vek

std::size_t dfpal_decimal64ToString(DfpalDecimal64 value, char* buffer, std::size_t bufferBytes) noexcept {
  return vek::write<vek::Decimal64>(value, buffer, bufferBytes);
}

std::size_t dfpal_decimal128ToString(DfpalDecimal128 value, char* buffer, std::size_t bufferBytes) noexcept {
  return vek::write<vek::Decimal128>(value, buffer, bufferBytes);
}

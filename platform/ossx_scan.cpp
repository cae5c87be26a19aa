#include "platform/ossx_scan.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vek {

[[gnu::noinline]] bool dfpReadExponent(const char* at, const char* end, std::int64_t* out) noexcept {
  constexpr std::int64_t kEnough = std::int64_t{1} << 56U;
  const bool isNegative = at != end && *at == '-';
  if (at != end && (*at == '-' || *at == '+')) ++at;
  if (at == end) return false;
  std::int64_t exponent = 0;
  for (; at != end && *at >= '0' && *at <= '9'; ++at)
    if (exponent < kEnough) exponent = exponent * 10 + (*at - '0');
  *out += isNegative ? -exponent : exponent;
  return at == end;
}

namespace {

#if defined(__SSE2__)

constexpr unsigned kBlock = 16;
constexpr unsigned kLongest = 3 * kBlock;
constexpr unsigned kMostDigits = 35;  // with the point

__m128i load(const char* from) noexcept { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)); }

// Characters in a wide word, the first one in its lowest byte.
template <class Word>
DfpWide wordOf(const char* from) noexcept {
  Word word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

// Up to 16 characters and zeros behind them: two loads that overlap, of the widest word that fits.
DfpWide firstOf(const char* text, unsigned bytes) noexcept {
  if (bytes >= kBlock) return wordOf<DfpWide>(text);
  if (bytes >= 8) return wordOf<std::uint64_t>(text) | wordOf<std::uint64_t>(text + bytes - 8) << 8 * (bytes - 8);
  if (bytes >= 4) return wordOf<std::uint32_t>(text) | wordOf<std::uint32_t>(text + bytes - 4) << 8 * (bytes - 4);
  DfpWide word = 0;
  for (unsigned i = bytes; i-- > 0;) word = word << 8U | static_cast<unsigned char>(text[i]);
  return word;
}

__m128i blockOf(DfpWide word) noexcept {
  return _mm_set_epi64x(static_cast<long long>(word >> 64U), static_cast<long long>(word));
}

// A bit for each character of a block that is a digit.
std::uint64_t digitBits(__m128i characters) noexcept {
  const __m128i digits = _mm_sub_epi8(characters, _mm_set1_epi8('0'));
  const __m128i isDigit = _mm_cmpeq_epi8(_mm_min_epu8(digits, _mm_set1_epi8(9)), digits);
  return static_cast<std::uint64_t>(_mm_movemask_epi8(isDigit));
}

// A text of 1 to 48 characters without sign, and what is known of its digits. Nothing outside it is read, and nothing
// is written to memory: a load of what was just written in other pieces would have to wait for it.
class Scanned {
 public:
  Scanned(const char* text, unsigned bytes) noexcept : text_(text), first_(firstOf(text, bytes)) {
    const std::uint64_t digits = bytes < kBlock ? digitBits(blockOf(first_)) : wideDigits(bytes);
    const std::uint64_t others = ~digits | ~std::uint64_t{0} << bytes;
    point_ = static_cast<unsigned>(__builtin_ctzll(others));
    hasPoint_ = point_ < bytes && text[point_] == '.';
    end_ = hasPoint_ ? static_cast<unsigned>(__builtin_ctzll(others & (others - 1))) : point_;
    gap_ = _mm_set1_epi8(static_cast<char>(hasPoint_ ? point_ + kBlock - end_ : 0U - kLongest));
  }

  const char* end() const noexcept { return text_ + end_; }
  unsigned fraction() const noexcept { return hasPoint_ ? end_ - point_ - 1 : 0; }
  unsigned size() const noexcept { return end_; }
  bool hasDigits() const noexcept { return end_ > (hasPoint_ ? 1U : 0U); }

  // Sixteen digits, the last of which has `kBehind` others behind it, in binary-coded form.
  template <int kBehind>
  std::uint64_t digits() const noexcept {
    // Characters behind the point stand where they belong, those before it one further to the left.
    const int to = static_cast<int>(end_) - kBehind;
    if (to <= 0) return 0;
    const __m128i index = _mm_setr_epi8(0 - kBehind, 1 - kBehind, 2 - kBehind, 3 - kBehind, 4 - kBehind, 5 - kBehind,
                                        6 - kBehind, 7 - kBehind, 8 - kBehind, 9 - kBehind, 10 - kBehind, 11 - kBehind,
                                        12 - kBehind, 13 - kBehind, 14 - kBehind, 15 - kBehind);
    const __m128i isBehind = _mm_cmpgt_epi8(index, gap_);
    const __m128i chosen =
        _mm_or_si128(_mm_and_si128(isBehind, before(to)), _mm_andnot_si128(isBehind, before(to - 1)));
    const __m128i nibbles = _mm_and_si128(chosen, _mm_set1_epi8(0x0F));
    const __m128i pairs =
        _mm_and_si128(_mm_or_si128(_mm_slli_epi16(nibbles, 4), _mm_srli_epi16(nibbles, 8)), _mm_set1_epi16(0x00FF));
    return __builtin_bswap64(static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_packus_epi16(pairs, pairs))));
  }

  // The digits that have 32 others behind them, of which there are at most three.
  std::uint64_t digitsAbove32() const noexcept {
    const int to = static_cast<int>(end_) - 2 * static_cast<int>(kBlock);
    if (to <= 0) return 0;
    const auto characters = static_cast<std::uint32_t>(first_) << 8 * (4 - to);  // the last one in the upper byte
    const int above = hasPoint_ ? 4 - to + static_cast<int>(point_) + 1 : 0;     // bytes up to the point
    const std::uint64_t isBehind = above > 4 ? 0 : ~std::uint64_t{0} << 8 * above;
    const auto chosen = static_cast<std::uint32_t>((characters & isBehind) | (characters << 8U & ~isBehind));
    return (chosen >> 24U & 0xFU) | (chosen >> 12U & 0xF0U) | (chosen & 0xF00U);
  }

 private:
  std::uint64_t wideDigits(unsigned bytes) const noexcept {
    std::uint64_t digits = digitBits(load(text_));
    if (bytes > 2 * kBlock) digits |= digitBits(load(text_ + kBlock)) << kBlock;
    return digits | digitBits(load(text_ + bytes - kBlock)) << (bytes - kBlock);
  }

  // The 16 characters before a place, zeros where the text has not begun.
  __m128i before(int place) const noexcept {
    constexpr int kWhole = kBlock;
    if (place > kWhole) return load(text_ + place - kWhole);
    return place > 0 ? blockOf(first_ << 8 * (kWhole - place)) : _mm_setzero_si128();
  }

  const char* text_;
  DfpWide first_;
  __m128i gap_;  // where the point stands, counted from 16 characters before the end
  unsigned point_;
  unsigned end_;
  bool hasPoint_;
};

constexpr unsigned kGroupBits = 12;  // three binary-coded digits

// Five groups of three digits, 60 bits, as declets.
std::uint64_t decletsOf15(std::uint64_t bcd) noexcept {
  std::uint64_t declets = 0;
  for (unsigned i = 0; i < 5; ++i) declets |= std::uint64_t{BCD2DPD[bcd >> i * kGroupBits & 0xFFFU]} << i * DECLET_BITS;
  return declets;
}

// The declets of the digits, the first one included. False: there are more digits than the width holds.
bool decletsOf(const Scanned& text, DfpDeclets* out, Decimal64 /*width*/) noexcept {
  const std::uint64_t lowest = text.digits<0>();
  *out = {decletsOf15(lowest) | (lowest >> 5 * kGroupBits) << DFP_TRAILING_BITS, 0};
  return (text.digits<16>() | text.digitsAbove32()) == 0;
}

bool decletsOf(const Scanned& text, DfpDeclets* out, Decimal128 /*width*/) noexcept {
  const std::uint64_t lowest = text.digits<0>();
  const std::uint64_t middle = text.digits<16>();
  const std::uint64_t highest = text.digitsAbove32();
  const std::uint64_t across = (lowest >> 5 * kGroupBits | middle << 4U) & 0xFFFU;
  const std::uint64_t rest = middle >> 8U | highest << 56U;
  *out = {decletsOf15(rest) | (rest >> 5 * kGroupBits) << DFP_TRAILING_BITS,
          decletsOf15(lowest) | std::uint64_t{BCD2DPD[across]} << 5 * DECLET_BITS};
  return highest >> 8U == 0;
}

// Reads a text, or refuses.
template <class Format>
bool scan(const char* text, std::size_t bytes, typename Format::Value* out) noexcept {
  if (bytes == 0) return false;
  const bool isNegative = *text == '-';
  const unsigned sign = isNegative || *text == '+' ? 1 : 0;
  const char* const end = text + bytes;
  text += sign;
  bytes -= sign;
  if (bytes - 1 >= kLongest) return false;
  const Scanned scanned(text, static_cast<unsigned>(bytes));
  if (!scanned.hasDigits() || scanned.size() > kMostDigits) return false;
  std::int64_t exponent = 0;
  if (const char* const mark = scanned.end();
      mark != end && ((*mark | 0x20) != 'e' || !dfpReadExponent(mark + 1, end, &exponent)))
    return false;
  exponent -= scanned.fraction();
  DfpDeclets declets;
  if (!decletsOf(scanned, &declets, Format{})) return false;
  if (exponent < Format::kLeastExponent || exponent > Format::kMostExponent) return false;
  const DfpFields fields = {.biased = static_cast<std::uint32_t>(exponent - Format::kLeastExponent),
                            .firstDigit = static_cast<std::uint32_t>(declets.upper >> DFP_TRAILING_BITS)};
  *out = dfpAssemble(dfpUpperWordOf<Format>(isNegative, fields), declets, Format{});
  return true;
}

#else

// Reads a text, or refuses.
template <class Format>
bool scan(const char* /*text*/, std::size_t /*bytes*/, typename Format::Value* /*out*/) noexcept {
  return false;
}

#endif

template <class Format>
typename Format::Value read(const char* text, std::size_t bytes) noexcept {
  typename Format::Value value;
  return scan<Format>(text, bytes, &value) ? value : dfpReadLong<Format>(text, bytes);
}

}  // namespace
}  // namespace vek

DfpalDecimal64 dfpal_decimal64FromString(const char* text, std::size_t bytes) noexcept {
  return vek::read<vek::Decimal64>(text, bytes);
}

DfpalDecimal128 dfpal_decimal128FromString(const char* text, std::size_t bytes) noexcept {
  return vek::read<vek::Decimal128>(text, bytes);
}

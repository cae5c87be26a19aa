// Kernels for processors with AVX2 that move the decimal point: to another scale, and into text.
#include "values/sqlv_packed_avx2.h"

#if defined(__x86_64__)

#include <algorithm>

#include "values/sqlv_avx2_lanes.h"

namespace vek {
namespace {

// ---- packed to packed -------------------------------------------------------------------------------------------

// A value of 4 to 16 bytes raw; the upper half is 0 for a short one.
SQLV_AVX2_INLINE __m128i rawAny(const std::uint8_t* value, std::size_t bytes) {
  if (bytes > kSqlvShortBytes) return avx2RawLong(value, bytes);
  return _mm_cvtsi64_si128(static_cast<long long>(avx2RawShort(value, bytes)));
}

SQLV_AVX2_INLINE void putRawAny(std::uint8_t* value, std::size_t bytes, __m128i raw) {
  if (bytes > kSqlvShortBytes) return avx2PutRawLong(value, bytes, raw);
  avx2PutRawShort(value, bytes, static_cast<std::uint64_t>(_mm_cvtsi128_si64(raw)));
}

Avx2Shuffle reversalOfAny(std::size_t bytes) noexcept {
  return bytes > kSqlvShortBytes ? avx2ReversalOfLong(bytes, 0)
                                 : avx2ShuffleOf([bytes](int i) { return static_cast<int>(bytes) - 1 - i; });
}

Avx2Shuffle rawOfAny(std::size_t bytes) noexcept {
  return bytes > kSqlvShortBytes ? avx2RawOfLong(bytes, 0) : reversalOfAny(bytes);
}

// What moves the digits of words from one scale to another.
struct Move {
  Avx2Shuffle whole;  // by pairs of digits
  int digits;         // by one more: 1 up, -1 down
  SqlvWide beyond;    // bits of source words for which the target has no room

  Move(SqlvDescriptor from, SqlvDescriptor to) noexcept {
    const int up = to.scale - from.scale;
    const int pairs = up / 2;
    whole = avx2ShuffleOf([pairs](int i) { return i - pairs; });
    digits = up % 2;
    const unsigned kept = std::min<unsigned>(to.precision + 0U - to.scale + from.scale, SQLV_PRECISION_MAX);
    beyond = kept == SQLV_PRECISION_MAX ? 0 : ~SqlvWide{0} << kSqlvDigitBits * (kept + 1);
  }
};

SQLV_AVX2_INLINE __m256i moved(__m256i digits, const Move& move) {
  const __m256i whole = _mm256_shuffle_epi8(digits, move.whole.wide());
  if (move.digits == 0) return whole;
  return move.digits > 0 ? avx2UpOneDigit(whole) : avx2DownOneDigit(whole);
}

// Words without digits beyond the target, moved. Zero becomes positive.
SQLV_AVX2_INLINE __m256i rescaled(__m256i words, const Move& move) {
  const __m256i digitBits = avx2Pairs(~std::uint64_t{0}, ~std::uint64_t{0xF});
  const __m256i digits = _mm256_and_si256(moved(_mm256_and_si256(words, digitBits), move), digitBits);
  const __m256i halfIsZero = _mm256_cmpeq_epi64(digits, _mm256_setzero_si256());
  const __m256i zero = _mm256_and_si256(halfIsZero, _mm256_shuffle_epi32(halfIsZero, _MM_SHUFFLE(1, 0, 3, 2)));
  const __m256i sign = _mm256_and_si256(words, avx2Pairs(0, 0xF));
  const __m256i negative = _mm256_and_si256(_mm256_srlv_epi64(avx2Pairs(0, 0x2800), sign), avx2Pairs(0, 1));
  return _mm256_or_si256(digits, _mm256_or_si256(avx2Pairs(0, kSqlvPositive), _mm256_andnot_si256(zero, negative)));
}

SQLV_AVX2_INLINE __m256i rawPair(const SqlvColumn& column, std::size_t index) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(rawAny(column.at(index), column.bytes)),
                                 rawAny(column.at(index + 1), column.bytes), 1);
}

SQLV_AVX2_INLINE void putRawPair(const SqlvTargetColumn& column, std::size_t index, __m256i raw) {
  putRawAny(column.at(index), column.bytes, _mm256_castsi256_si128(raw));
  putRawAny(column.at(index + 1), column.bytes, _mm256_extracti128_si256(raw, 1));
}

}  // namespace

SQLV_AVX2 std::size_t sqlvi_avx2Rescale(const SqlvColumn& source, const SqlvTargetColumn& target,
                                        std::size_t count) noexcept {
  if (source.bytes < kAvx2LeastBytes || target.bytes < kAvx2LeastBytes) return 0;
  const Move move(source.descriptor, target.descriptor);
  const Avx2Shuffle toWords = reversalOfAny(source.bytes);
  const Avx2Shuffle toRaw = rawOfAny(target.bytes);
  const __m256i beyond =
      avx2Pairs(static_cast<std::uint64_t>(move.beyond >> 64U), static_cast<std::uint64_t>(move.beyond));
  std::size_t index = 0;
  for (; index + kSqlvKernelBlock <= count; index += kSqlvKernelBlock) {
    const __m256i front = _mm256_shuffle_epi8(rawPair(source, index), toWords.wide());
    const __m256i back = _mm256_shuffle_epi8(rawPair(source, index + 2), toWords.wide());
    if (_mm256_testz_si256(_mm256_or_si256(front, back), beyond) == 0) break;
    putRawPair(target, index, _mm256_shuffle_epi8(rescaled(front, move), toRaw.wide()));
    putRawPair(target, index + 2, _mm256_shuffle_epi8(rescaled(back, move), toRaw.wide()));
  }
  return index;
}

// ---- packed to text ---------------------------------------------------------------------------------------------

namespace {

constexpr unsigned kTextLeast = 14;  // digits: the text has at least sixteen characters
constexpr std::size_t kPart = 16;    // characters

// Sixteen characters of a text, from the digits of a value's first eight bytes and of its last eight.
struct TextPart {
  Avx2Shuffle first;
  Avx2Shuffle last;
  alignas(kPart) char fixed[kPart];  // what is not a digit, and the character '0' for digits

  SQLV_AVX2_INLINE __m128i of(__m128i firstDigits, __m128i lastDigits) const {
    const __m128i digits =
        _mm_or_si128(_mm_shuffle_epi8(firstDigits, first.narrow()), _mm_shuffle_epi8(lastDigits, last.narrow()));
    return _mm_or_si128(digits, _mm_load_si128(reinterpret_cast<const __m128i*>(fixed)));
  }
};

// Where the characters of a text come from.
class TextLayout {
 public:
  TextLayout(SqlvDescriptor descriptor, char decimalPoint) noexcept
      : bytes_(static_cast<int>(sqlvPackedBytes(descriptor))),
        whole_(descriptor.precision - descriptor.scale),
        skipped_(2 * bytes_ - 1 - descriptor.precision),
        decimalPoint_(decimalPoint) {}

  // The half digit of the value that a character shows, -1 for one that shows none.
  int digitOf(int character) const noexcept {
    if (character == 0 || character == whole_ + 1) return -1;
    return skipped_ + (character <= whole_ ? character - 1 : character - 2);
  }

  TextPart part(int start) const noexcept {
    const int lastStart = 2 * (bytes_ - 8);  // the digits of the last eight bytes, which are there for long values
    const auto isLast = [&](int digit) { return bytes_ > 8 && digit >= lastStart; };
    TextPart part = {};
    part.first = avx2ShuffleOf([&](int i) { return isLast(digitOf(start + i)) ? -1 : digitOf(start + i); });
    part.last = avx2ShuffleOf([&](int i) { return isLast(digitOf(start + i)) ? digitOf(start + i) - lastStart : -1; });
    for (int i = 0; i < static_cast<int>(kPart); ++i) part.fixed[i] = fixed(start + i);
    return part;
  }

  // One character alone.
  char character(const std::uint8_t* packed, int position) const noexcept {
    const int digit = digitOf(position);
    if (digit < 0) return fixed(position);
    const unsigned pair = packed[digit / 2];
    return static_cast<char>('0' + (digit % 2 == 0 ? pair >> 4U : pair & 0xFU));
  }

 private:
  char fixed(int character) const noexcept {
    if (digitOf(character) >= 0) return '0';
    return character == 0 ? ' ' : decimalPoint_;
  }

  int bytes_;
  int whole_;    // digits before the point
  int skipped_;  // half digits before the first digit
  char decimalPoint_;
};

// All bits of raw bytes but those of the sign.
SQLV_AVX2_INLINE __m128i digitBitsOf(int signByte) {
  alignas(kPart) std::uint8_t bits[kPart];
  for (int i = 0; i < static_cast<int>(kPart); ++i) bits[i] = i == signByte ? 0xF0 : 0xFF;
  return _mm_load_si128(reinterpret_cast<const __m128i*>(bits));
}

}  // namespace

SQLV_AVX2 std::size_t sqlvi_avx2Text(const SqlvColumn& source, char decimalPoint, char* target,
                                     std::size_t targetStride, std::size_t count) noexcept {
  if (source.descriptor.precision < kTextLeast) return 0;
  const TextLayout layout(source.descriptor, decimalPoint);
  const std::size_t length = source.descriptor.precision + 2U;
  const TextPart front = layout.part(0);
  const TextPart back = layout.part(static_cast<int>(length - kPart));
  const int signByte = source.bytes > kSqlvShortBytes ? 15 : 7;
  const __m128i digitBits = digitBitsOf(signByte);
  for (std::size_t index = 0; index < count; ++index) {
    const std::uint8_t* value = source.at(index);
    char* text = target + index * targetStride;
    const __m128i raw = rawAny(value, source.bytes);
    const __m128i high = _mm_and_si128(_mm_srli_epi16(raw, 4), _mm_set1_epi8(0x0F));
    const __m128i low = _mm_and_si128(raw, _mm_set1_epi8(0x0F));
    const __m128i firstDigits = _mm_unpacklo_epi8(high, low);
    const __m128i lastDigits = _mm_unpackhi_epi8(high, low);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(text), front.of(firstDigits, lastDigits));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(text + length - kPart), back.of(firstDigits, lastDigits));
    const std::uint64_t sign = value[source.bytes - 1];
    if (sqlvi_isNegative(sign) != 0 && _mm_testz_si128(raw, digitBits) == 0) text[0] = '-';
    if (length > 2 * kPart) text[kPart] = layout.character(value, static_cast<int>(kPart));
  }
  return count;
}

}  // namespace vek

#endif

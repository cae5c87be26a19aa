// Kernels for processors with AVX2: four values at a time, in lanes of 64 bits for values of 4 to 8 bytes, of 128 bits
// for longer ones. Each value is read and written by words that lie within it.
#include "values/sqlv_packed_avx2.h"

#if defined(__x86_64__)

#include "values/sqlv_avx2_lanes.h"
#include "values/sqlv_packed_int.h"

namespace vek {
namespace {

// ---- loading and storing ----------------------------------------------------------------------------------------

// Four short values as words.
SQLV_AVX2_INLINE __m256i loadShorts(const SqlvColumn& column, std::size_t index, __m256i reversal) {
  const auto raw = [&](std::size_t i) {
    return static_cast<long long>(avx2RawShort(column.at(index + i), column.bytes));
  };
  return _mm256_shuffle_epi8(_mm256_set_epi64x(raw(3), raw(2), raw(1), raw(0)), reversal);
}

SQLV_AVX2_INLINE __m256i rawLongs(const SqlvColumn& column, std::size_t index) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(avx2RawLong(column.at(index), column.bytes)),
                                 avx2RawLong(column.at(index + 1), column.bytes), 1);
}

SQLV_AVX2_INLINE void putRawLongs(const SqlvTargetColumn& column, std::size_t index, __m256i raw) {
  avx2PutRawLong(column.at(index), column.bytes, _mm256_castsi256_si128(raw));
  avx2PutRawLong(column.at(index + 1), column.bytes, _mm256_extracti128_si256(raw, 1));
}

// ---- validation -------------------------------------------------------------------------------------------------

// Bits that tell a wrong digit, pad or sign. `fixed` are the bits that are the same in every well-formed value: those
// of the pad, and of the sign all but the one that tells negative from positive.
SQLV_AVX2_INLINE __m256i faults(__m256i words, __m256i digitBits, __m256i fixed, __m256i positive) {
  const __m256i digits = _mm256_and_si256(words, digitBits);
  const __m256i above = _mm256_and_si256(_mm256_and_si256(digits, _mm256_set1_epi8(static_cast<char>(0x88))),
                                         _mm256_or_si256(_mm256_slli_epi64(digits, 1), _mm256_slli_epi64(digits, 2)));
  return _mm256_or_si256(above, _mm256_xor_si256(_mm256_and_si256(words, fixed), positive));
}

SQLV_AVX2 std::size_t checkShorts(const SqlvColumn& column, std::size_t count) noexcept {
  const __m256i reversal = avx2ReversalOfShort(column.bytes).wide();
  const __m256i digitBits = avx2All(~std::uint64_t{0xF});
  const std::uint64_t pad = column.descriptor.precision % 2 == 0 ? std::uint64_t{0xF} << (8 * column.bytes - 4) : 0;
  const __m256i fixed = avx2All(pad | 0xEU);
  const __m256i positive = avx2All(kSqlvPositive);
  const __m256i negativeZero = avx2All(kSqlvNegative);
  std::size_t index = 0;
  for (; index + kSqlvKernelBlock <= count; index += kSqlvKernelBlock) {
    const __m256i words = loadShorts(column, index, reversal);
    const __m256i wrong =
        _mm256_or_si256(faults(words, digitBits, fixed, positive), _mm256_cmpeq_epi64(words, negativeZero));
    if (_mm256_testz_si256(wrong, wrong) == 0) break;
  }
  return index;
}

SQLV_AVX2 std::size_t checkLongs(const SqlvColumn& column, std::size_t count) noexcept {
  const __m256i reversal = avx2ReversalOfLong(column.bytes, 0).wide();
  const __m256i digitBits = avx2Pairs(~std::uint64_t{0}, ~std::uint64_t{0xF});
  const std::uint64_t pad = column.descriptor.precision % 2 == 0 ? std::uint64_t{0xF} << (8 * column.bytes - 68) : 0;
  const __m256i fixed = avx2Pairs(pad, 0xE);
  const __m256i positive = avx2Pairs(0, kSqlvPositive);
  const __m256i negativeZero = avx2Pairs(0, kSqlvNegative);
  std::size_t index = 0;
  for (; index + kSqlvKernelBlock <= count; index += kSqlvKernelBlock) {
    const __m256i front = _mm256_shuffle_epi8(rawLongs(column, index), reversal);
    const __m256i back = _mm256_shuffle_epi8(rawLongs(column, index + 2), reversal);
    const __m256i frontZero = _mm256_cmpeq_epi64(front, negativeZero);
    const __m256i backZero = _mm256_cmpeq_epi64(back, negativeZero);
    const __m256i zeros =
        _mm256_and_si256(_mm256_unpacklo_epi64(frontZero, backZero), _mm256_unpackhi_epi64(frontZero, backZero));
    const __m256i wrong = _mm256_or_si256(
        zeros, _mm256_or_si256(faults(front, digitBits, fixed, positive), faults(back, digitBits, fixed, positive)));
    if (_mm256_testz_si256(wrong, wrong) == 0) break;
  }
  return index;
}

std::size_t check(const SqlvColumn& column, std::size_t count) noexcept {
  if (column.bytes < kAvx2LeastBytes) return 0;
  return column.bytes <= kSqlvShortBytes ? checkShorts(column, count) : checkLongs(column, count);
}

// ---- packed to integer ------------------------------------------------------------------------------------------

// Two digits of each byte joined.
SQLV_AVX2_INLINE __m256i joinedDigits(__m256i digits) {
  const __m256i tens = _mm256_and_si256(_mm256_srli_epi16(digits, 4), _mm256_set1_epi8(0x0F));
  return _mm256_sub_epi8(digits, _mm256_add_epi8(_mm256_slli_epi16(tens, 1), _mm256_slli_epi16(tens, 2)));
}

// Then the neighbouring pairs.
SQLV_AVX2_INLINE __m256i joinedPairs(__m256i pairsOfDigits) {
  return _mm256_maddubs_epi16(pairsOfDigits, _mm256_set1_epi16(100 * 256 + 1));
}

// Sixteen digits of each lane as binary.
SQLV_AVX2_INLINE __m256i binaryOfLanes(__m256i digits) {
  const __m256i quarters = joinedPairs(joinedDigits(digits));
  const __m256i halves = _mm256_madd_epi16(quarters, _mm256_set1_epi32(10000 * 65536 + 1));
  const __m256i low = _mm256_and_si256(halves, avx2All(0xFFFFFFFF));
  return _mm256_add_epi64(low, _mm256_mul_epu32(_mm256_srli_epi64(halves, 32), avx2All(100'000'000)));
}

// All ones where the sign in the lowest digit is 0xB or 0xD.
SQLV_AVX2_INLINE __m256i negatives(__m256i words) {
  const __m256i bit = _mm256_srlv_epi64(avx2All(0x2800), _mm256_and_si256(words, avx2All(0xF)));
  return _mm256_sub_epi64(_mm256_setzero_si256(), _mm256_and_si256(bit, avx2All(1)));
}

SQLV_AVX2_INLINE __m256i withSign(__m256i magnitudes, __m256i negative) {
  return _mm256_sub_epi64(_mm256_xor_si256(magnitudes, negative), negative);
}

SQLV_AVX2 std::size_t shortsToBig(const SqlvColumn& column, std::int64_t* target, std::size_t count) noexcept {
  const __m256i reversal = avx2ReversalOfShort(column.bytes).wide();
  const __m128i dropped = _mm_cvtsi32_si128(static_cast<int>(kSqlvDigitBits) * (column.descriptor.scale + 1));
  std::size_t index = 0;
  for (; index + kSqlvKernelBlock <= count; index += kSqlvKernelBlock) {
    const __m256i words = loadShorts(column, index, reversal);
    const __m256i magnitudes = binaryOfLanes(_mm256_srl_epi64(words, dropped));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(target + index), withSign(magnitudes, negatives(words)));
  }
  return index;
}

// Values of which more than 921 * 10^16 is left are left to the single calls, which know the limit.
SQLV_AVX2 std::size_t longsToBig(const SqlvColumn& column, std::int64_t* target, std::size_t count) noexcept {
  const unsigned dropped = column.descriptor.scale + 1U;
  const __m256i reversal = avx2ReversalOfLong(column.bytes, dropped / 2).wide();
  std::size_t index = 0;
  for (; index + kSqlvKernelBlock <= count; index += kSqlvKernelBlock) {
    const __m256i rawFront = rawLongs(column, index);
    const __m256i rawBack = rawLongs(column, index + 2);
    __m256i front = _mm256_shuffle_epi8(rawFront, reversal);
    __m256i back = _mm256_shuffle_epi8(rawBack, reversal);
    if (dropped % 2 != 0) {
      front = avx2DownOneDigit(front);
      back = avx2DownOneDigit(back);
    }
    const __m256i upper = _mm256_unpackhi_epi64(front, back);  // of the values 0, 2, 1, 3
    if (const __m256i large = _mm256_cmpgt_epi64(upper, avx2All(0x921)); _mm256_testz_si256(large, large) == 0) break;
    const __m256i lower = binaryOfLanes(_mm256_unpacklo_epi64(front, back));
    const __m256i upperBinary = joinedPairs(joinedDigits(upper));
    const __m256i upperTimes =
        _mm256_add_epi64(_mm256_mul_epu32(upperBinary, avx2All(kSqlvTenTo16 & 0xFFFFFFFFU)),
                         _mm256_slli_epi64(_mm256_mul_epu32(upperBinary, avx2All(kSqlvTenTo16 >> 32U)), 32));
    const __m256i signs = _mm256_srli_epi64(_mm256_unpackhi_epi64(rawFront, rawBack), 56);
    const __m256i integers = withSign(_mm256_add_epi64(lower, upperTimes), negatives(signs));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(target + index),
                        _mm256_permute4x64_epi64(integers, _MM_SHUFFLE(3, 1, 2, 0)));
  }
  return index;
}

std::size_t toBig(const SqlvColumn& column, std::int64_t* target, std::size_t count) noexcept {
  if (column.bytes < kAvx2LeastBytes) return 0;
  return column.bytes <= kSqlvShortBytes ? shortsToBig(column, target, count) : longsToBig(column, target, count);
}

// ---- integer to packed ------------------------------------------------------------------------------------------

// Digits of lanes of 16 bits below 10000.
SQLV_AVX2_INLINE __m256i digitsOfQuarters(__m256i quarters) {
  const __m256i tops = _mm256_srli_epi16(_mm256_mulhi_epu16(quarters, _mm256_set1_epi16(5243)), 3);  // / 100
  const __m256i byPair = _mm256_add_epi16(quarters, _mm256_mullo_epi16(tops, _mm256_set1_epi16(256 - 100)));
  const __m256i tenth = _mm256_set1_epi16(6554);
  const __m256i evenTens = _mm256_mulhi_epu16(_mm256_and_si256(byPair, _mm256_set1_epi16(0xFF)), tenth);
  const __m256i oddTens = _mm256_mulhi_epu16(_mm256_srli_epi16(byPair, 8), tenth);
  const __m256i tens = _mm256_or_si256(evenTens, _mm256_slli_epi16(oddTens, 8));
  return _mm256_add_epi8(byPair, _mm256_add_epi8(_mm256_slli_epi16(tens, 1), _mm256_slli_epi16(tens, 2)));
}

// Digits of lanes of 32 bits below 10^8.
SQLV_AVX2_INLINE __m256i digitsOfHalves(__m256i halves) {
  const __m256i reciprocal = avx2All(109'951'163);  // / 10000
  const __m256i even = _mm256_srli_epi64(_mm256_mul_epu32(halves, reciprocal), 40);
  const __m256i odd = _mm256_srli_epi64(_mm256_mul_epu32(_mm256_srli_epi64(halves, 32), reciprocal), 40);
  const __m256i tops = _mm256_or_si256(even, _mm256_slli_epi64(odd, 32));
  return digitsOfQuarters(_mm256_add_epi32(halves, _mm256_mullo_epi32(tops, _mm256_set1_epi32(65536 - 10000))));
}

// Four integers, none of them above `largest` in magnitude.
struct Magnitudes {
  std::uint64_t of[kSqlvKernelBlock];
  bool fit;
};

inline Magnitudes magnitudesOf(const std::int64_t* values, std::uint64_t largest) noexcept {
  Magnitudes magnitudes = {{}, true};
  for (std::size_t i = 0; i < kSqlvKernelBlock; ++i) {
    magnitudes.of[i] = sqlvi_magnitude(values[i]);
    magnitudes.fit &= magnitudes.of[i] <= largest;
  }
  return magnitudes;
}

// A number below 10^16 as two lanes below 10^8.
constexpr long long halvesOf(std::uint64_t value) noexcept {
  const std::uint64_t upper = value / 100'000'000;
  return static_cast<long long>(upper << 32U | (value - upper * 100'000'000));
}

// 0xC or, where the value is negative, 0xD.
SQLV_AVX2_INLINE __m256i signsOf(const std::int64_t* values) {
  const __m256i integers = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(values));
  return _mm256_add_epi64(avx2All(kSqlvPositive), _mm256_srli_epi64(integers, 63));
}

SQLV_AVX2 std::size_t shortsFromBig(const std::int64_t* values, const SqlvTargetColumn& column,
                                    std::size_t count) noexcept {
  const unsigned scale = column.descriptor.scale;
  const std::uint64_t largest = kSqlvLargestOf[column.descriptor.precision - scale];
  const __m256i reversal = avx2ReversalOfShort(column.bytes).wide();
  const __m128i added = _mm_cvtsi32_si128(static_cast<int>(kSqlvDigitBits * (scale + 1)));
  std::size_t index = 0;
  for (; index + kSqlvKernelBlock <= count; index += kSqlvKernelBlock) {
    const Magnitudes magnitudes = magnitudesOf(values + index, largest);
    if (!magnitudes.fit) break;
    const __m256i halves = _mm256_set_epi64x(halvesOf(magnitudes.of[3]), halvesOf(magnitudes.of[2]),
                                             halvesOf(magnitudes.of[1]), halvesOf(magnitudes.of[0]));
    const __m256i words = _mm256_or_si256(_mm256_sll_epi64(digitsOfHalves(halves), added), signsOf(values + index));
    alignas(32) std::uint64_t raw[kSqlvKernelBlock];
    _mm256_store_si256(reinterpret_cast<__m256i*>(raw), _mm256_shuffle_epi8(words, reversal));
    for (std::size_t i = 0; i < kSqlvKernelBlock; ++i) avx2PutRawShort(column.at(index + i), column.bytes, raw[i]);
  }
  return index;
}

SQLV_AVX2 std::size_t longsFromBig(const std::int64_t* values, const SqlvTargetColumn& column,
                                   std::size_t count) noexcept {
  const unsigned scale = column.descriptor.scale;
  const unsigned added = scale + 1;
  const std::uint64_t largest = kSqlvLargestOf[column.descriptor.precision - scale];
  const __m256i reversal = avx2RawOfLong(column.bytes, added / 2).wide();
  std::size_t index = 0;
  for (; index + kSqlvKernelBlock <= count; index += kSqlvKernelBlock) {
    Magnitudes magnitudes = magnitudesOf(values + index, largest);
    if (!magnitudes.fit) break;
    std::uint64_t tops[kSqlvKernelBlock];
    for (std::size_t i = 0; i < kSqlvKernelBlock; ++i) {
      tops[i] = magnitudes.of[i] / kSqlvTenTo16;
      magnitudes.of[i] -= tops[i] * kSqlvTenTo16;
    }
    // In the order 0, 2, 1, 3, so that pairs of words come out of the two unpacking steps in theirs.
    const __m256i lower = digitsOfHalves(_mm256_set_epi64x(halvesOf(magnitudes.of[3]), halvesOf(magnitudes.of[1]),
                                                           halvesOf(magnitudes.of[2]), halvesOf(magnitudes.of[0])));
    const __m256i upper =
        digitsOfQuarters(_mm256_set_epi64x(static_cast<long long>(tops[3]), static_cast<long long>(tops[1]),
                                           static_cast<long long>(tops[2]), static_cast<long long>(tops[0])));
    const __m256i signs = _mm256_slli_epi64(_mm256_permute4x64_epi64(signsOf(values + index), _MM_SHUFFLE(3, 1, 2, 0)),
                                            56);  // in the last byte
    __m256i front = _mm256_unpacklo_epi64(lower, upper);
    __m256i back = _mm256_unpackhi_epi64(lower, upper);
    if (added % 2 != 0) {
      front = avx2UpOneDigit(front);
      back = avx2UpOneDigit(back);
    }
    const __m256i none = _mm256_setzero_si256();
    putRawLongs(column, index,
                _mm256_or_si256(_mm256_shuffle_epi8(front, reversal), _mm256_unpacklo_epi64(none, signs)));
    putRawLongs(column, index + 2,
                _mm256_or_si256(_mm256_shuffle_epi8(back, reversal), _mm256_unpackhi_epi64(none, signs)));
  }
  return index;
}

std::size_t fromBig(const std::int64_t* values, const SqlvTargetColumn& column, std::size_t count) noexcept {
  if (column.bytes < kAvx2LeastBytes) return 0;
  return column.bytes <= kSqlvShortBytes ? shortsFromBig(values, column, count) : longsFromBig(values, column, count);
}

constexpr SqlvKernels kAvx2 = {check, toBig, fromBig, sqlvi_avx2Rescale, sqlvi_avx2Text};

}  // namespace

const SqlvKernels* sqlvi_avx2Kernels() noexcept { return __builtin_cpu_supports("avx2") != 0 ? &kAvx2 : nullptr; }

}  // namespace vek

#else

namespace vek {

const SqlvKernels* sqlvi_avx2Kernels() noexcept { return nullptr; }

}  // namespace vek

#endif

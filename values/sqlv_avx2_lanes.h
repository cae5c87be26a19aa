// What kernels for AVX2 share: values in lanes of 64 or 128 bits, as raw bytes and as words. A word has the sign in its
// lowest four bits and one digit in each four above.
//
// Functions carry their target themselves, so that nothing else is compiled for it; what is shared is always inlined.
#pragma once

#include <immintrin.h>

#include "values/sqlv_packed_kernels.h"

#define SQLV_AVX2 __attribute__((target("avx2")))
#define SQLV_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

namespace vek {

inline constexpr unsigned kAvx2Lane = 16;
inline constexpr char kAvx2NoByte = static_cast<char>(0x80);  // in a shuffle: 0

// Which byte goes where within 16 bytes.
struct Avx2Shuffle {
  alignas(kAvx2Lane) char from[kAvx2Lane];

  SQLV_AVX2_INLINE __m128i narrow() const { return _mm_load_si128(reinterpret_cast<const __m128i*>(from)); }
  SQLV_AVX2_INLINE __m256i wide() const { return _mm256_broadcastsi128_si256(narrow()); }
};

template <class Source>
inline Avx2Shuffle avx2ShuffleOf(Source source) noexcept {
  Avx2Shuffle shuffle = {};
  for (int i = 0; i < static_cast<int>(kAvx2Lane); ++i) {
    const int from = source(i);
    shuffle.from[i] = from >= 0 && from < static_cast<int>(kAvx2Lane) ? static_cast<char>(from) : kAvx2NoByte;
  }
  return shuffle;
}

// ---- loading and storing ----------------------------------------------------------------------------------------

inline constexpr std::size_t kAvx2LeastBytes = 4;  // bytes; below, values are left to the single calls

template <class Word>
inline std::uint64_t avx2WordAt(const std::uint8_t* bytes) noexcept {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

template <class Word>
inline void avx2PutWord(std::uint8_t* bytes, std::uint64_t word) noexcept {
  const auto narrowed = static_cast<Word>(word);
  std::memcpy(bytes, &narrowed, sizeof narrowed);
}

// The bytes of a value of 4 to 8 bytes, the first one lowest.
inline std::uint64_t avx2RawShort(const std::uint8_t* value, std::size_t bytes) noexcept {
  if (bytes == kSqlvShortBytes) return avx2WordAt<std::uint64_t>(value);
  return avx2WordAt<std::uint32_t>(value) | avx2WordAt<std::uint32_t>(value + bytes - 4) << 8U * (bytes - 4);
}

inline void avx2PutRawShort(std::uint8_t* value, std::size_t bytes, std::uint64_t raw) noexcept {
  if (bytes == kSqlvShortBytes) return avx2PutWord<std::uint64_t>(value, raw);
  avx2PutWord<std::uint32_t>(value, raw);
  avx2PutWord<std::uint32_t>(value + bytes - 4, raw >> 8U * (bytes - 4));
}

// Turns raw bytes of short values, two in 16 bytes, into words, and words into raw bytes.
inline Avx2Shuffle avx2ReversalOfShort(std::size_t bytes) noexcept {
  return avx2ShuffleOf([bytes](int i) {
    const int from = static_cast<int>(bytes) - 1 - i % 8;
    return from < 0 ? -1 : i / 8 * 8 + from;
  });
}

// A long value raw: its first eight bytes, then its last eight.
SQLV_AVX2_INLINE __m128i avx2RawLong(const std::uint8_t* value, std::size_t bytes) {
  return _mm_set_epi64x(static_cast<long long>(avx2WordAt<std::uint64_t>(value + bytes - 8)),
                        static_cast<long long>(avx2WordAt<std::uint64_t>(value)));
}

SQLV_AVX2_INLINE void avx2PutRawLong(std::uint8_t* value, std::size_t bytes, __m128i raw) {
  avx2PutWord<std::uint64_t>(value, static_cast<std::uint64_t>(_mm_cvtsi128_si64(raw)));
  avx2PutWord<std::uint64_t>(value + bytes - 8, static_cast<std::uint64_t>(_mm_extract_epi64(raw, 1)));
}

// Turns raw bytes of long values into words without their `dropped` lowest bytes.
inline Avx2Shuffle avx2ReversalOfLong(std::size_t bytes, unsigned dropped) noexcept {
  return avx2ShuffleOf([=](int i) {
    const int place = i + static_cast<int>(dropped);  // within the word
    const int first = static_cast<int>(bytes) - 1 - place;
    return place < 8 ? 15 - place : first;
  });
}

// Turns words that are to move up by `added` bytes into raw bytes.
inline Avx2Shuffle avx2RawOfLong(std::size_t bytes, unsigned added) noexcept {
  return avx2ShuffleOf([=](int i) {
    const int position = i < 8 ? i : static_cast<int>(bytes) - 16 + i;  // within the value
    return static_cast<int>(bytes) - 1 - position - static_cast<int>(added);
  });
}

SQLV_AVX2_INLINE __m256i avx2DownOneDigit(__m256i words) {
  return _mm256_or_si256(_mm256_srli_epi64(words, 4), _mm256_slli_epi64(_mm256_bsrli_epi128(words, 8), 60));
}

SQLV_AVX2_INLINE __m256i avx2UpOneDigit(__m256i words) {
  return _mm256_or_si256(_mm256_slli_epi64(words, 4), _mm256_srli_epi64(_mm256_bslli_epi128(words, 8), 60));
}

SQLV_AVX2_INLINE __m256i avx2All(std::uint64_t word) { return _mm256_set1_epi64x(static_cast<long long>(word)); }
SQLV_AVX2_INLINE __m256i avx2Pairs(std::uint64_t high, std::uint64_t low) {
  return _mm256_set_epi64x(static_cast<long long>(high), static_cast<long long>(low), static_cast<long long>(high),
                           static_cast<long long>(low));
}

}  // namespace vek

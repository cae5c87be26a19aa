// Packed values as words: a value of up to 31 digits with its sign is one 128-bit word, one decimal digit in four
// bits, the sign in the lowest four.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "veksys/values/packed_decimal.h"

namespace vek {

__extension__ typedef unsigned __int128 SqlvWide;

inline constexpr unsigned kSqlvDigitBits = 4;
inline constexpr std::uint64_t kSqlvPositive = 0xC;
inline constexpr std::uint64_t kSqlvNegative = 0xD;

// Descriptors that the conversions take: one subtraction and two tests.
constexpr bool sqlvi_convertible(SqlvDescriptor descriptor) noexcept {
  return descriptor.precision - 1U < SQLV_PRECISION_MAX && descriptor.scale <= descriptor.precision;
}

// 0xB and 0xD are negative, all others positive.
constexpr std::uint64_t sqlvi_isNegative(std::uint64_t word) noexcept { return 0x2800U >> (word & 0xFU) & 1U; }

// The sign of a result; zero is positive.
constexpr std::uint64_t sqlvi_sign(std::uint64_t negative, SqlvWide digits) noexcept {
  return kSqlvPositive + (negative & static_cast<std::uint64_t>(digits != 0));
}

// ---- memory -----------------------------------------------------------------------------------------------------

inline std::uint64_t sqlvi_swap(std::uint64_t word) noexcept { return __builtin_bswap64(word); }
inline std::uint32_t sqlvi_swap(std::uint32_t word) noexcept { return __builtin_bswap32(word); }
inline std::uint16_t sqlvi_swap(std::uint16_t word) noexcept { return __builtin_bswap16(word); }

template <class Word>
inline Word sqlvi_loadBig(const std::uint8_t* bytes) noexcept {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  if constexpr (std::endian::native == std::endian::little) word = sqlvi_swap(word);
  return word;
}

template <class Word>
inline void sqlvi_storeBig(std::uint8_t* bytes, Word word) noexcept {
  if constexpr (std::endian::native == std::endian::little) word = sqlvi_swap(word);
  std::memcpy(bytes, &word, sizeof word);
}

// `count` bytes, 1..16, as one big-endian word: two loads of the widest word that fits, one from the front and one from
// the back, where they overlap of the same bits.
inline SqlvWide sqlvi_load(const std::uint8_t* bytes, std::size_t count) noexcept {
  if (count >= 8) {
    const auto beyond = static_cast<unsigned>(kSqlvDigitBits * (16 - count));  // half of the bits that come twice
    const std::uint64_t upper = sqlvi_loadBig<std::uint64_t>(bytes) >> beyond >> beyond;
    return static_cast<SqlvWide>(upper) << 64U | sqlvi_loadBig<std::uint64_t>(bytes + count - 8);
  }
  if (count >= 4) {
    const std::uint64_t upper = sqlvi_loadBig<std::uint32_t>(bytes);
    return upper << 8U * (count - 4) | sqlvi_loadBig<std::uint32_t>(bytes + count - 4);
  }
  if (count >= 2) {
    const std::uint64_t upper = sqlvi_loadBig<std::uint16_t>(bytes);
    return upper << 8U * (count - 2) | sqlvi_loadBig<std::uint16_t>(bytes + count - 2);
  }
  return bytes[0];
}

// The other way round.
inline void sqlvi_store(std::uint8_t* bytes, std::size_t count, SqlvWide word) noexcept {
  if (count >= 8) {
    sqlvi_storeBig(bytes, static_cast<std::uint64_t>(word >> 8U * (count - 8)));
    sqlvi_storeBig(bytes + count - 8, static_cast<std::uint64_t>(word));
  } else if (count >= 4) {
    sqlvi_storeBig(bytes, static_cast<std::uint32_t>(static_cast<std::uint64_t>(word) >> 8U * (count - 4)));
    sqlvi_storeBig(bytes + count - 4, static_cast<std::uint32_t>(word));
  } else if (count >= 2) {
    sqlvi_storeBig(bytes, static_cast<std::uint16_t>(static_cast<std::uint64_t>(word) >> 8U * (count - 2)));
    sqlvi_storeBig(bytes + count - 2, static_cast<std::uint16_t>(word));
  } else {
    bytes[0] = static_cast<std::uint8_t>(word);
  }
}

// ---- digits and binary ------------------------------------------------------------------------------------------

// Eight packed digits as binary: neighbours are joined, halving their number each time.
constexpr std::uint32_t sqlvi_binaryOf8(std::uint32_t digits) noexcept {
  digits -= (digits >> 4U & 0x0F0F0F0FU) * (16 - 10);
  digits -= (digits >> 8U & 0x00FF00FFU) * (256 - 100);
  return digits - (digits >> 16U) * (65536 - 10000);
}

// Sixteen packed digits as binary.
constexpr std::uint64_t sqlvi_binaryOf16(std::uint64_t digits) noexcept {
  digits -= (digits >> 4U & 0x0F0F0F0F0F0F0F0FU) * (16 - 10);
  digits -= (digits >> 8U & 0x00FF00FF00FF00FFU) * (256 - 100);
  digits -= (digits >> 16U & 0x0000FFFF0000FFFFU) * (65536 - 10000);
  return digits - (digits >> 32U) * ((std::uint64_t{1} << 32U) - 100'000'000);
}

inline constexpr std::uint64_t kSqlvTenTo16 = 10'000'000'000'000'000;

// A number below 10^8, split into two halves of four digits, then into four pairs, then into eight digits; a lane per
// part. Divisions are multiplications with the reciprocal, exact in the range of the lane.
constexpr std::uint64_t sqlvi_quartersOf8(std::uint64_t value) noexcept {
  const std::uint64_t upper = value * 109'951'163U >> 40U;  // / 10000
  return upper << 32U | (value - upper * 10000);
}

constexpr std::uint64_t sqlvi_pairsOfQuarters(std::uint64_t quarters) noexcept {
  const std::uint64_t upper = quarters * 5243U >> 19U & 0x0000007F0000007FU;  // / 100
  return quarters + upper * (256 - 100);
}

// Packed digits of a number below 10^16.
constexpr std::uint64_t sqlvi_digitsOf16(std::uint64_t value) noexcept {
  const std::uint64_t upper = value / 100'000'000;
  const std::uint64_t high = sqlvi_pairsOfQuarters(sqlvi_quartersOf8(upper));
  const std::uint64_t low = sqlvi_pairsOfQuarters(sqlvi_quartersOf8(value - upper * 100'000'000));
  // Lanes of 32 bits with two bytes in use each: brought together, eight bytes of 0..99.
  const std::uint64_t highPairs = (high >> 16U | high) & 0xFFFFFFFFU;
  const std::uint64_t lowPairs = (low >> 16U | low) & 0xFFFFFFFFU;
  const std::uint64_t pairs = highPairs << 32U | lowPairs;
  const std::uint64_t tensOfEven = (pairs & 0x00FF00FF00FF00FFU) * 103U >> 10U & 0x000F000F000F000FU;
  const std::uint64_t tensOfOdd = (pairs >> 8U & 0x00FF00FF00FF00FFU) * 103U >> 2U & 0x0F000F000F000F00U;
  return pairs + (tensOfEven | tensOfOdd) * (16 - 10);
}

// Packed digits of any 64-bit number, at most 20.
constexpr SqlvWide sqlvi_digitsOf20(std::uint64_t value) noexcept {
  const std::uint64_t upper = value / kSqlvTenTo16;
  if (upper == 0) return sqlvi_digitsOf16(value);
  return static_cast<SqlvWide>(sqlvi_digitsOf16(upper)) << 64U | sqlvi_digitsOf16(value - upper * kSqlvTenTo16);
}

// 10^n, n to 19.
inline constexpr auto kSqlvTenTo = [] {
  std::array<std::uint64_t, 20> powers = {1};
  for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}();

// The largest 64-bit number of at most n digits, n to 31.
inline constexpr auto kSqlvLargestOf = [] {
  std::array<std::uint64_t, SQLV_PRECISION_MAX + 1> largest = {};
  for (std::size_t i = 0; i < largest.size(); ++i)
    largest[i] = i < kSqlvTenTo.size() ? kSqlvTenTo[i] - 1 : ~std::uint64_t{0};
  return largest;
}();

// ---- the rounding setting ---------------------------------------------------------------------------------------

// Whether conversions without `_trunc` round.
bool sqlvi_roundingIsOn() noexcept;

}  // namespace vek

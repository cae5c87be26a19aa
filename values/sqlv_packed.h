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

__extension__ using SqlvWide = unsigned __int128;

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
template <class Word>
constexpr std::uint64_t sqlvi_sign(std::uint64_t negative, Word digits) noexcept {
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

// `count` bytes, 1..8, as one big-endian word: two loads of the widest word that fits, one from the front and one from
// the back; where they overlap, it is of the same bits.
inline std::uint64_t sqlvi_loadShort(const std::uint8_t* bytes, std::size_t count) noexcept {
  if (count == 8) return sqlvi_loadBig<std::uint64_t>(bytes);
  if (count >= 4) {
    const std::uint64_t upper = sqlvi_loadBig<std::uint32_t>(bytes);
    return upper << 8U * (count - 4) | sqlvi_loadBig<std::uint32_t>(bytes + count - 4);
  }
  if (count == 1) return bytes[0];
  const std::uint64_t upper = sqlvi_loadBig<std::uint16_t>(bytes);
  return upper << 8U * (count - 2) | sqlvi_loadBig<std::uint16_t>(bytes + count - 2);
}

// The same for 9..16 bytes.
inline SqlvWide sqlvi_loadLong(const std::uint8_t* bytes, std::size_t count) noexcept {
  const std::uint64_t upper = sqlvi_loadBig<std::uint64_t>(bytes) >> 8U * (16 - count);
  return static_cast<SqlvWide>(upper) << 64U | sqlvi_loadBig<std::uint64_t>(bytes + count - 8);
}

// The other way round, 1..8 bytes.
inline void sqlvi_storeShort(std::uint8_t* bytes, std::size_t count, std::uint64_t word) noexcept {
  if (count == 8) {
    sqlvi_storeBig(bytes, word);
  } else if (count >= 4) {
    sqlvi_storeBig(bytes, static_cast<std::uint32_t>(word >> 8U * (count - 4)));
    sqlvi_storeBig(bytes + count - 4, static_cast<std::uint32_t>(word));
  } else if (count == 1) {
    bytes[0] = static_cast<std::uint8_t>(word);
  } else {
    sqlvi_storeBig(bytes, static_cast<std::uint16_t>(word >> 8U * (count - 2)));
    sqlvi_storeBig(bytes + count - 2, static_cast<std::uint16_t>(word));
  }
}

// And 9..16 bytes.
inline void sqlvi_storeLong(std::uint8_t* bytes, std::size_t count, SqlvWide word) noexcept {
  sqlvi_storeBig(bytes, static_cast<std::uint64_t>(word >> 8U * (count - 8)));
  sqlvi_storeBig(bytes + count - 8, static_cast<std::uint64_t>(word));
}

inline constexpr std::size_t kSqlvShortBytes = 8;  // of values that fit a 64-bit word
inline constexpr unsigned kSqlvShortDigits = 15;

// A word for values of the given kind only: 64 bits for 1..8 bytes, 128 bits for 9..16 bytes.
template <class Word>
inline Word sqlvi_loadAs(const std::uint8_t* bytes, std::size_t count) noexcept {
  if constexpr (sizeof(Word) == sizeof(std::uint64_t)) return sqlvi_loadShort(bytes, count);
  if constexpr (sizeof(Word) != sizeof(std::uint64_t)) return sqlvi_loadLong(bytes, count);
}

template <class Word>
inline void sqlvi_storeAs(std::uint8_t* bytes, std::size_t count, Word word) noexcept {
  if constexpr (sizeof(Word) == sizeof(std::uint64_t)) sqlvi_storeShort(bytes, count, word);
  if constexpr (sizeof(Word) != sizeof(std::uint64_t)) sqlvi_storeLong(bytes, count, word);
}

// Values of any kind.
inline SqlvWide sqlvi_load(const std::uint8_t* bytes, std::size_t count) noexcept {
  return count <= kSqlvShortBytes ? sqlvi_loadShort(bytes, count) : sqlvi_loadLong(bytes, count);
}

inline void sqlvi_store(std::uint8_t* bytes, std::size_t count, SqlvWide word) noexcept {
  if (count <= kSqlvShortBytes) return sqlvi_storeShort(bytes, count, static_cast<std::uint64_t>(word));
  sqlvi_storeLong(bytes, count, word);
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

// A number below 10^8 as two lanes of 16 bits, the upper and the lower four digits. Divisions here are multiplications
// with a reciprocal, exact in the range of what is divided.
constexpr std::uint64_t sqlvi_quartersOf8(std::uint64_t value) noexcept {
  const std::uint64_t upper = value * 109'951'163U >> 40U;  // / 10000
  return value + upper * (65536 - 10000);
}

// Packed digits of lanes of 16 bits below 10000: lanes of 8 bits below 100 first.
constexpr std::uint64_t sqlvi_digitsOfQuarters(std::uint64_t quarters) noexcept {
  const std::uint64_t evenTops = (quarters & 0x0000FFFF0000FFFFU) * 5243U >> 19U & 0x0000007F0000007FU;       // / 100
  const std::uint64_t oddTops = (quarters >> 16U & 0x0000FFFF0000FFFFU) * 5243U >> 3U & 0x007F0000007F0000U;  // / 100
  const std::uint64_t pairs = quarters + (evenTops | oddTops) * (256 - 100);
  const std::uint64_t evenTens = (pairs & 0x00FF00FF00FF00FFU) * 103U >> 10U & 0x000F000F000F000FU;      // / 10
  const std::uint64_t oddTens = (pairs >> 8U & 0x00FF00FF00FF00FFU) * 103U >> 2U & 0x0F000F000F000F00U;  // / 10
  return pairs + (evenTens | oddTens) * (16 - 10);
}

// Packed digits of a number below 10^16.
constexpr std::uint64_t sqlvi_digitsOf16(std::uint64_t value) noexcept {
  const std::uint64_t upper = value / 100'000'000;
  const std::uint64_t lower = value - upper * 100'000'000;
  return sqlvi_digitsOfQuarters(sqlvi_quartersOf8(upper) << 32U | sqlvi_quartersOf8(lower));
}

// Packed digits of any 64-bit number, at most 20.
constexpr SqlvWide sqlvi_digitsOf20(std::uint64_t value) noexcept {
  const std::uint64_t upper = value / kSqlvTenTo16;
  return static_cast<SqlvWide>(sqlvi_digitsOfQuarters(upper)) << 64U | sqlvi_digitsOf16(value - upper * kSqlvTenTo16);
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

// 10^n, n to 31, as one word of binary.
inline constexpr auto kSqlvWideTenTo = [] {
  std::array<SqlvWide, SQLV_PRECISION_MAX + 1> powers = {1};
  for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}();

// The largest packed word of n digits, n to 31: for comparing digits in packed form.
inline constexpr auto kSqlvLargestPackedOf = [] {
  std::array<SqlvWide, SQLV_PRECISION_MAX + 1> largest = {};
  for (std::size_t i = 1; i < largest.size(); ++i) largest[i] = largest[i - 1] << kSqlvDigitBits | 9U;
  return largest;
}();

// Packed digits of a number below 10^32.
constexpr SqlvWide sqlvi_digitsOf32(SqlvWide value) noexcept {
  if (value >> 64U == 0) return sqlvi_digitsOf20(static_cast<std::uint64_t>(value));
  const auto upper = static_cast<std::uint64_t>(value / kSqlvTenTo16);
  const auto lower = static_cast<std::uint64_t>(value - static_cast<SqlvWide>(upper) * kSqlvTenTo16);
  return static_cast<SqlvWide>(sqlvi_digitsOf16(upper)) << 64U | sqlvi_digitsOf16(lower);
}

// The packed digits of the next number.
constexpr SqlvWide sqlvi_increment(SqlvWide digits) noexcept {
  SqlvWide unit = 1;
  for (; ((digits / unit) & 0xFU) == 9; unit <<= kSqlvDigitBits) digits -= unit * 9;
  return digits + unit;
}

}  // namespace vek

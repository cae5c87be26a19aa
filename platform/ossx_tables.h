// Densely packed decimal: three digits in ten bits, called a declet.
//
// All tables are made from the two definitions below by the compiler. An index of the full width of its bits is always
// inside: of what is no digit some declet is made, and of the 24 declets that nobody writes the digits they stand for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vek {

inline constexpr unsigned DECLET_BITS = 10;
inline constexpr unsigned DECLETS = 1U << DECLET_BITS;
inline constexpr unsigned DECLET_VALUES = 1000;

// The declet of three binary-coded digits abcd efgh ijkm. a, e and i tell which digits are 8 or 9; those keep only
// their last bit, and the bits that become free tell where they stand.
constexpr std::uint16_t decletOfBcd(unsigned bcd) noexcept {
  const unsigned pqr = bcd >> 8U & 7U;
  const unsigned stu = bcd >> 4U & 7U;
  const unsigned wxy = bcd & 7U;
  const unsigned r = pqr & 1U;
  const unsigned u = stu & 1U;
  const unsigned y = wxy & 1U;
  const unsigned upper = pqr << 7U;
  const unsigned lastTwo = wxy >> 1U;
  switch ((bcd >> 9U & 4U) | (bcd >> 6U & 2U) | (bcd >> 3U & 1U)) {
    case 0:
      return static_cast<std::uint16_t>(upper | stu << 4U | wxy);
    case 1:
      return static_cast<std::uint16_t>(upper | stu << 4U | 0x8U | y);
    case 2:
      return static_cast<std::uint16_t>(upper | lastTwo << 5U | u << 4U | 0xAU | y);
    case 3:
      return static_cast<std::uint16_t>(upper | 2U << 5U | u << 4U | 0xEU | y);
    case 4:
      return static_cast<std::uint16_t>(lastTwo << 8U | r << 7U | stu << 4U | 0xCU | y);
    case 5:
      return static_cast<std::uint16_t>((stu >> 1U) << 8U | r << 7U | 1U << 5U | u << 4U | 0xEU | y);
    case 6:
      return static_cast<std::uint16_t>(lastTwo << 8U | r << 7U | u << 4U | 0xEU | y);
    default:
      return static_cast<std::uint16_t>(r << 7U | 3U << 5U | u << 4U | 0xEU | y);
  }
}

// The three binary-coded digits of a declet pqr stu v wxy.
constexpr std::uint16_t bcdOfDeclet(unsigned declet) noexcept {
  const unsigned pqr = declet >> 7U & 7U;
  const unsigned stu = declet >> 4U & 7U;
  const unsigned wxy = declet & 7U;
  const unsigned r8 = 8U | (pqr & 1U);
  const unsigned u8 = 8U | (stu & 1U);
  const unsigned y8 = 8U | (wxy & 1U);
  const unsigned pqy = (pqr & 6U) | (wxy & 1U);
  const unsigned sty = (stu & 6U) | (wxy & 1U);
  const unsigned pqu = (pqr & 6U) | (stu & 1U);
  const auto join = [](unsigned first, unsigned second, unsigned third) {
    return static_cast<std::uint16_t>(first << 8U | second << 4U | third);
  };
  if ((declet & 0x8U) == 0) return join(pqr, stu, wxy);
  switch (wxy >> 1U) {
    case 0:
      return join(pqr, stu, y8);
    case 1:
      return join(pqr, u8, sty);
    case 2:
      return join(r8, stu, pqy);
    default:
      break;
  }
  switch (stu >> 1U) {
    case 0:
      return join(r8, u8, pqy);
    case 1:
      return join(r8, pqu, y8);
    case 2:
      return join(pqr, u8, y8);
    default:
      return join(r8, u8, y8);
  }
}

// From 12 bits of binary-coded digits to the declet.
inline constexpr auto BCD2DPD = [] {
  std::array<std::uint16_t, 4096> table = {};
  for (unsigned bcd = 0; bcd < table.size(); ++bcd) table[bcd] = decletOfBcd(bcd);
  return table;
}();

// From the declet to 12 bits of binary-coded digits.
inline constexpr auto DPD2BCD = [] {
  std::array<std::uint16_t, DECLETS> table = {};
  for (unsigned declet = 0; declet < table.size(); ++declet) table[declet] = bcdOfDeclet(declet);
  return table;
}();

// From the declet to its value, 0..999.
inline constexpr auto DPD2BIN = [] {
  std::array<std::uint16_t, DECLETS> table = {};
  for (unsigned declet = 0; declet < table.size(); ++declet) {
    const unsigned bcd = DPD2BCD[declet];
    table[declet] = static_cast<std::uint16_t>((bcd >> 8U) * 100 + (bcd >> 4U & 0xFU) * 10 + (bcd & 0xFU));
  }
  return table;
}();

// From a value, 0..999, to the declet.
inline constexpr auto BIN2DPD = [] {
  std::array<std::uint16_t, DECLET_VALUES> table = {};
  for (unsigned value = 0; value < table.size(); ++value)
    table[value] = decletOfBcd((value / 100) << 8U | (value / 10 % 10) << 4U | value % 10);
  return table;
}();

// Six declets with every one that stands for the same digits as another replaced by the one that is written. Those
// are the declets of three digits 8 or 9 whose two upper bits, which then mean nothing, are not 0.
constexpr std::uint64_t canonicalDeclets(std::uint64_t declets) noexcept {
  constexpr std::uint64_t kLowest = 0x0004010040100401U;
  const std::uint64_t allLarge =
      (declets >> 6U) & (declets >> 5U) & (declets >> 3U) & (declets >> 2U) & (declets >> 1U) & kLowest;
  return declets & ~(allLarge * 0x300U);
}

}  // namespace vek

// What tests of this folder share: random numbers, packed values digit by digit, memory that ends where a value ends,
// texts made from a pattern, texts that are written, and what a script prints.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "veksys/values.h"

// Bit by bit.
inline bool operator==(DfpalDecimal64 left, DfpalDecimal64 right) { return left.word == right.word; }
inline bool operator==(DfpalDecimal128 left, DfpalDecimal128 right) {
  return left.low == right.low && left.high == right.high;
}

namespace vek::valuestest {

// ---- random numbers ---------------------------------------------------------------------------------------------

// Random numbers that begin with VEK_TEST_SEED where that is set, else with another number every time. As long as the
// object lives, failures tell it.
class Random : public std::mt19937_64 {
 public:
  Random() { seed(std::stoul(begin_)); }
  const std::string& begin() const { return begin_; }

 private:
  const char* const given_ = std::getenv("VEK_TEST_SEED");
  const std::string begin_ = given_ != nullptr ? given_ : std::to_string(std::random_device{}());
  const ::testing::ScopedTrace trace_{__FILE__, __LINE__, "VEK_TEST_SEED=" + begin_};
};

// ---- packed values ----------------------------------------------------------------------------------------------

using Packed = std::array<std::uint8_t, SQLV_PACKED_BYTES_MAX>;
__extension__ using Wide = unsigned __int128;

constexpr SqlvDescriptor descriptorOf(unsigned precision, unsigned scale) {
  return {static_cast<std::uint8_t>(precision), static_cast<std::uint8_t>(scale)};
}

inline void setNibble(std::uint8_t* bytes, std::size_t index, unsigned nibble) {
  const unsigned kept = index % 2 == 0 ? bytes[index / 2] & 0x0FU : bytes[index / 2] & 0xF0U;
  bytes[index / 2] = static_cast<std::uint8_t>(kept | (index % 2 == 0 ? nibble << 4U : nibble));
}

// Digits of a magnitude with a sign, one by one.
inline Packed packedOf(Wide magnitude, unsigned sign, SqlvDescriptor descriptor) {
  Packed bytes = {};
  std::size_t index = sqlvPackedBytes(descriptor) * 2 - 1;
  setNibble(bytes.data(), index, sign);
  for (; magnitude != 0 && index-- > 0; magnitude /= 10)
    setNibble(bytes.data(), index, static_cast<unsigned>(magnitude % 10));
  return bytes;
}

inline Wide tenTo(unsigned power) {
  Wide result = 1;
  for (; power > 0; --power) result *= 10;
  return result;
}

// A page between two that nobody may touch: what ends at its end, or begins at its start, cannot be left unseen.
class GuardedPage {
 public:
  GuardedPage() {
    pages_ = ::mmap(nullptr, 3 * kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(::mprotect(front(), kBytes, PROT_READ | PROT_WRITE), 0);
  }
  ~GuardedPage() { ::munmap(pages_, 3 * kBytes); }
  GuardedPage(const GuardedPage&) = delete;
  GuardedPage& operator=(const GuardedPage&) = delete;

  std::uint8_t* front() const { return static_cast<std::uint8_t*>(pages_) + kBytes; }
  // Room for so many bytes at one end or the other.
  std::uint8_t* place(std::size_t bytes, bool atEnd) const { return atEnd ? front() + kBytes - bytes : front(); }
  std::uint8_t* place(const std::vector<std::uint8_t>& bytes, bool atEnd) const {
    std::uint8_t* target = place(bytes.size(), atEnd);
    std::copy(bytes.begin(), bytes.end(), target);
    return target;
  }

 private:
  static constexpr std::size_t kBytes = 4096;
  void* pages_;
};

inline std::vector<std::uint8_t> bytesOfHex(const std::string& hex) {
  std::vector<std::uint8_t> bytes(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); ++i)
    setNibble(bytes.data(), i, static_cast<unsigned>(std::stoul(hex.substr(i, 1), nullptr, 16)));
  return bytes;
}

inline std::string hexOf(const std::uint8_t* bytes, std::size_t count) {
  std::string hex;
  for (std::size_t i = 0; i < count; ++i)
    hex += {"0123456789ABCDEF"[bytes[i] >> 4U], "0123456789ABCDEF"[bytes[i] & 0xFU]};
  return hex;
}

// ---- decimal floating point -------------------------------------------------------------------------------------

#define VEK_DFP_WIDTH(bits)                                                          \
  struct Width##bits {                                                               \
    using Value = DfpalDecimal##bits;                                                \
    static constexpr auto fromString = dfpal_decimal##bits##FromString;              \
    static constexpr auto toString = dfpal_decimal##bits##ToString;                  \
    static constexpr auto add = dfpal_decimal##bits##Add;                            \
    static constexpr auto subtract = dfpal_decimal##bits##Subtract;                  \
    static constexpr auto multiply = dfpal_decimal##bits##Multiply;                  \
    static constexpr auto divide = dfpal_decimal##bits##Divide;                      \
    static constexpr auto quantize = dfpal_decimal##bits##Quantize;                  \
    static constexpr auto compare = dfpal_decimal##bits##Compare;                    \
    static constexpr auto compareSignal = dfpal_decimal##bits##CompareSignal;        \
    static constexpr auto integral = dfpal_decimal##bits##RoundToIntegral;           \
    static constexpr auto integralExact = dfpal_decimal##bits##RoundToIntegralExact; \
    static constexpr auto fromInt32 = dfpal_decimal##bits##FromInt32;                \
    static constexpr auto fromUint32 = dfpal_decimal##bits##FromUint32;              \
    static constexpr auto fromInt64 = dfpal_decimal##bits##FromInt64;                \
    static constexpr auto fromUint64 = dfpal_decimal##bits##FromUint64;              \
    static constexpr auto toInt32 = dfpal_decimal##bits##ToInt32;                    \
    static constexpr auto toUint32 = dfpal_decimal##bits##ToUint32;                  \
    static constexpr auto toInt64 = dfpal_decimal##bits##ToInt64;                    \
    static constexpr auto toUint64 = dfpal_decimal##bits##ToUint64;                  \
    static constexpr auto fromPacked = dfpal_decimal##bits##FromPacked;              \
    static constexpr auto toPacked = dfpal_decimal##bits##ToPacked;                  \
  }
VEK_DFP_WIDTH(64);
VEK_DFP_WIDTH(128);
#undef VEK_DFP_WIDTH

// The value of a text, and the text of a value.
template <class Width>
typename Width::Value valueOf(std::string_view text) {
  return Width::fromString(text.data(), text.size());
}

inline std::string textOf(DfpalDecimal128 value) {
  char text[DFPAL_DECIMAL128_TEXT_BYTES];
  return {text, dfpal_decimal128ToString(value, text, sizeof text)};
}
inline std::string textOf(DfpalDecimal64 value) {
  char text[DFPAL_DECIMAL64_TEXT_BYTES];
  return {text, dfpal_decimal64ToString(value, text, sizeof text)};
}

// A rounding mode and no flags for as long as the object lives; afterwards half even and no flags.
class RoundingMode {
 public:
  explicit RoundingMode(std::uint32_t mode) {
    EXPECT_EQ(dfpalSetRoundingMode(mode), 0);
    dfpalReadClearAllStatusFlag();
  }
  ~RoundingMode() {
    dfpalSetRoundingMode(DFPAL_ROUND_HALF_EVEN);
    dfpalReadClearAllStatusFlag();
  }
  RoundingMode(const RoundingMode&) = delete;
  RoundingMode& operator=(const RoundingMode&) = delete;
};

// ---- texts ------------------------------------------------------------------------------------------------------

// A pattern in which numbers stand for their letters, digit by digit.
inline std::string textOf(std::string_view pattern, std::initializer_list<std::pair<char, unsigned>> parts) {
  std::string text(pattern);
  for (auto [letter, number] : parts)
    for (std::size_t i = text.size(); i-- > 0;)
      if (text[i] == letter) {
        text[i] = static_cast<char>('0' + number % 10);
        number /= 10;
      }
  return text;
}

// The text that sqlvputd, sqlvputt or sqlvputs writes, behind which nothing was touched.
template <class Function, class... Arguments>
std::string written(Function function, Arguments... arguments) {
  std::array<char, SQLV_TIMESTAMP_TEXT_MAX + 1> text;
  text.fill('#');
  const std::size_t count = function(arguments..., text.data());
  EXPECT_EQ(text[count], '#');
  return {text.data(), count};
}

}  // namespace vek::valuestest

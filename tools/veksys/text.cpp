#include "text.h"

#include <algorithm>
#include <array>

namespace veksys {
namespace {

constexpr std::size_t kFirstCapacity = 512;

constexpr std::array<char, 200> makePairs() {
  std::array<char, 200> pairs{};
  for (std::size_t i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}
constexpr std::array<char, 200> kPairs = makePairs();
constexpr char kHexDigits[] = "0123456789ABCDEF";

// Writes the digits so that they end before `end`; answers where they begin.
char* digitsBefore(char* end, std::uint64_t value) noexcept {
  while (value >= 100) {
    end -= 2;
    std::memcpy(end, &kPairs[value % 100 * 2], 2);
    value /= 100;
  }
  if (value >= 10) {
    end -= 2;
    std::memcpy(end, &kPairs[value * 2], 2);
    return end;
  }
  *--end = static_cast<char>('0' + value);
  return end;
}

bool isPlain(char c) noexcept { return c >= ' ' && c <= '~' && c != '\\'; }

void putOdd(Text& text, char c) {
  if (c == '\\') return text.put("\\\\");
  if (c == '\n') return text.put("\\n");
  if (c == '\t') return text.put("\\t");
  text.put("\\x");
  text.hex(static_cast<unsigned char>(c), 2);
}

}  // namespace

void Text::grow(std::size_t bytes) {
  const std::size_t capacity = std::max({capacity_ * 2, size_ + bytes, kFirstCapacity});
  auto larger = std::make_unique_for_overwrite<char[]>(capacity);
  if (size_ != 0) std::memcpy(larger.get(), data_.get(), size_);
  data_ = std::move(larger);
  capacity_ = capacity;
}

void Text::decimal(std::uint64_t value) {
  char digits[20];
  const char* begin = digitsBefore(digits + sizeof digits, value);
  put(std::string_view(begin, static_cast<std::size_t>(digits + sizeof digits - begin)));
}

void Text::signedDecimal(std::int64_t value) {
  if (value >= 0) return decimal(static_cast<std::uint64_t>(value));
  put('-');
  decimal(0U - static_cast<std::uint64_t>(value));
}

void Text::decimalRight(std::uint64_t value, unsigned width) {
  char digits[20];
  const char* begin = digitsBefore(digits + sizeof digits, value);
  const auto count = static_cast<std::size_t>(digits + sizeof digits - begin);
  if (count < width) fill(' ', width - count);
  put(std::string_view(begin, count));
}

void Text::decimalZeros(std::uint64_t value, unsigned digits) {
  char* at = room(digits) + digits;
  commit(digits);
  for (; digits >= 2; digits -= 2, value /= 100) {
    at -= 2;
    std::memcpy(at, &kPairs[value % 100 * 2], 2);
  }
  if (digits == 1) *--at = static_cast<char>('0' + value % 10);
}

void Text::grouped(std::uint64_t value) {
  if (value < 1000) return decimal(value);
  grouped(value / 1000);
  put(',');
  decimalZeros(value % 1000, 3);
}

void Text::hex(std::uint64_t value, unsigned digits) {
  char* at = room(digits);
  for (unsigned i = digits; i-- > 0; value >>= 4) at[i] = kHexDigits[value & 0xFU];
  commit(digits);
}

void Text::hexShort(std::uint64_t value) {
  unsigned digits = 1;
  while (digits < 16 && (value >> (digits * 4)) != 0) ++digits;
  put("0x");
  hex(value, digits);
}

std::size_t wideCharacter(std::string_view text) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const std::size_t length = byte(0) >= 0xF0 ? 4 : byte(0) >= 0xE0 ? 3 : 2;
  if (byte(0) < 0xC2 || byte(0) > 0xF4 || text.size() < length) return 0;
  std::uint32_t code = byte(0) & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3FU);
  }
  constexpr std::uint32_t kLeast[] = {0, 0, 0xA0, 0x800, 0x10000};
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code >= kLeast[length] && code <= 0x10FFFF && !surrogate ? length : 0;
}

void putSafe(Text& text, std::string_view foreign) {
  while (!foreign.empty()) {
    const auto odd = std::find_if_not(foreign.begin(), foreign.end(), isPlain);
    const auto plain = static_cast<std::size_t>(odd - foreign.begin());
    text.put(foreign.substr(0, plain));
    foreign.remove_prefix(plain);
    if (foreign.empty()) return;
    const std::size_t wide = wideCharacter(foreign);
    if (wide != 0)
      text.put(foreign.substr(0, wide));
    else
      putOdd(text, foreign[0]);
    foreign.remove_prefix(wide != 0 ? wide : 1);
  }
}

}  // namespace veksys

#include "text.h"

#include <veksys/diag/sqlca.h>

#include <array>
#include <charconv>
#include <iterator>

namespace demo {
namespace {

std::string withDecimals(double value, int decimals) {
  std::array<char, 64> digits;
  const auto end =
      std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed, decimals).ptr;
  return {digits.data(), end};
}

}  // namespace

std::string left(std::string_view text, std::size_t width) {
  std::string out(text);
  if (out.size() < width) out.append(width - out.size(), ' ');
  return out;
}

std::string right(std::string_view text, std::size_t width) {
  std::string out(text.size() < width ? width - text.size() : 0, ' ');
  return out.append(text);
}

std::string grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, 1, ',');
  return digits;
}

std::string bytesText(std::uint64_t bytes) {
  constexpr const char* kUnits[] = {" bytes", " KiB", " MiB", " GiB", " TiB", " PiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; value >= 1024 && unit + 1 < std::size(kUnits); ++unit) value /= 1024;
  return withDecimals(value, unit == 0 ? 0 : 1) + kUnits[unit];
}

std::string timeText(std::chrono::nanoseconds time) {
  const double ms = std::chrono::duration<double, std::milli>(time).count();
  return ms < 1000 ? withDecimals(ms, 1) + " ms" : withDecimals(ms / 1000, 2) + " s";
}

std::string hexText(std::uint32_t bits) {
  std::string out = "0x";
  for (int shift = 28; shift >= 0; shift -= 4) out += "0123456789ABCDEF"[(bits >> shift) & 0xFU];
  return out;
}

std::string printable(std::string_view raw) {
  std::string out;
  for (const char c : raw) {
    if (c == SQLZ_SQLCA_TOKEN_SEPARATOR)
      out += " | ";
    else
      out += c < ' ' || c > '~' ? '?' : c;
  }
  return out;
}

std::string quoted(const std::string& word) {
  constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,:@";
  if (word.find_first_not_of(kPlain) == std::string::npos) return word;
  std::string out = "'";
  for (const char c : word) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

}  // namespace demo

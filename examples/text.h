// Making lines for people: columns, numbers with units, text that is safe to print.
#pragma once

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace demo {

inline void appendPart(std::string& out, std::string_view part) { out += part; }
template <std::integral Number>
void appendPart(std::string& out, Number number) {
  out += std::to_string(number);
}

// Texts and numbers, one behind the other.
template <class... Parts>
std::string joined(const Parts&... parts) {
  std::string out;
  (appendPart(out, parts), ...);
  return out;
}

// Filled with blanks up to the width, which a longer text passes.
std::string left(std::string_view text, std::size_t width);
std::string right(std::string_view text, std::size_t width);

std::string grouped(std::uint64_t number);            // 1,234,567
std::string bytesText(std::uint64_t bytes);           // 1.5 MiB
std::string timeText(std::chrono::nanoseconds time);  // 12.3 ms
std::string hexText(std::uint32_t bits);              // 0x8B0F0000

// With a question mark for everything that is not printable ASCII, and " | " between message tokens.
std::string printable(std::string_view raw);

// As a word of a shell command.
std::string quoted(const std::string& word);

}  // namespace demo

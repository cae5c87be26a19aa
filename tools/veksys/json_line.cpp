#include "json_line.h"

#include <array>

namespace veksys {
namespace {

// By byte: 0 for what stands for itself, 'u' for \u00XX, else the letter behind the backslash.
constexpr std::array<char, 256> makeEscapes() {
  std::array<char, 256> escapes{};
  for (std::size_t c = 0; c < 0x20; ++c) escapes[c] = 'u';
  escapes['\b'] = 'b';
  escapes['\f'] = 'f';
  escapes['\n'] = 'n';
  escapes['\r'] = 'r';
  escapes['\t'] = 't';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  return escapes;
}
constexpr std::array<char, 256> kEscapes = makeEscapes();
constexpr char kHexDigits[] = "0123456789ABCDEF";
constexpr std::size_t kEscapeMost = 6;  // \u00XX

}  // namespace

void JsonLine::string(std::string_view text) {
  char* const begin = text_->room(text.size() * kEscapeMost + 2);
  char* at = begin;
  *at++ = '"';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const char escape = kEscapes[byte];
    if (escape == 0) [[likely]] {
      *at++ = c;
      continue;
    }
    *at++ = '\\';
    *at++ = escape;
    if (escape != 'u') continue;
    *at++ = '0';
    *at++ = '0';
    *at++ = kHexDigits[byte >> 4];
    *at++ = kHexDigits[byte & 0xFU];
  }
  *at++ = '"';
  text_->commit(static_cast<std::size_t>(at - begin));
}

}  // namespace veksys
